#include <cutils/trace.h>

#include <atomic>

#include "kivhal/host.h"

namespace {
std::atomic<uint64_t> g_queries{0};
}

extern "C" uint64_t atrace_get_enabled_tags(void) {
    g_queries.fetch_add(1, std::memory_order_relaxed);
    return ATRACE_TAG_NEVER;
}

namespace kivhal {
namespace host {

uint64_t trace_tag_queries() {
    return g_queries.load(std::memory_order_relaxed);
}
void reset_trace_tag_queries() {
    g_queries.store(0, std::memory_order_relaxed);
}

}  // namespace host
}  // namespace kivhal
