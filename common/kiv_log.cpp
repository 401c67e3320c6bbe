#include "kiv_log.h"

#include <atomic>

namespace {
// Relaxed atomics: the settings are written once by the service and read on
// every thread; a reader may see the old or the new value, never a torn one.
constexpr const char* kDefaultTag = "KIVHAL-Sensors";
std::atomic<kiv_log::log_level> g_level{kiv_log::INFO};
std::atomic<const char*> g_tag{kDefaultTag};
std::atomic<bool> g_stderr_logging{false};
}  // namespace

kiv_log::log_level kiv_log::get_level() {
    return g_level.load(std::memory_order_relaxed);
}
void kiv_log::set_level(log_level level) {
    g_level.store(level, std::memory_order_relaxed);
}

const char* kiv_log::get_tag() {
    return g_tag.load(std::memory_order_relaxed);
}
void kiv_log::set_tag(const char* tag) {
    g_tag.store(tag, std::memory_order_relaxed);
}

bool kiv_log::get_stderr_logging() {
    return g_stderr_logging.load(std::memory_order_relaxed);
}
void kiv_log::set_stderr_logging(bool enabled) {
    g_stderr_logging.store(enabled, std::memory_order_relaxed);
}
