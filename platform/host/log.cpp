#include <android/log.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>

#include "kivhal/host.h"

namespace kivhal {
namespace host {
namespace {

struct capture {
    std::mutex mutex;
    std::deque<log_line> lines;
    size_t dropped = 0;
};

// Never destroyed: threads may still log while the process exits.
capture& the_capture() {
    static capture* c = new capture();
    return *c;
}

char priority_letter(int prio) {
    static const char kLetters[] = "??VDIWEFS";
    return (prio >= 0 && prio < static_cast<int>(sizeof(kLetters) - 1)) ? kLetters[prio] : '?';
}

bool logcat_mirroring() {
    const char* value = getenv("KIVHAL_LOGCAT");
    return value != nullptr && strcmp(value, "1") == 0;
}

std::string format_line(const char* fmt, va_list args) {
    va_list copy;
    va_copy(copy, args);
    char small[512];
    int n = vsnprintf(small, sizeof(small), fmt, copy);
    va_end(copy);
    if (n < 0) return std::string();
    if (static_cast<size_t>(n) < sizeof(small)) return std::string(small, n);
    std::string text(static_cast<size_t>(n) + 1, '\0');
    vsnprintf(&text[0], text.size(), fmt, args);
    text.resize(static_cast<size_t>(n));
    return text;
}

}  // namespace

std::vector<log_line> captured_log() {
    capture& c = the_capture();
    std::lock_guard<std::mutex> lock(c.mutex);
    return std::vector<log_line>(c.lines.begin(), c.lines.end());
}

void clear_captured_log() {
    capture& c = the_capture();
    std::lock_guard<std::mutex> lock(c.mutex);
    c.lines.clear();
    c.dropped = 0;
}

size_t captured_log_dropped() {
    capture& c = the_capture();
    std::lock_guard<std::mutex> lock(c.mutex);
    return c.dropped;
}

}  // namespace host
}  // namespace kivhal

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    std::string text = kivhal::host::format_line(fmt, args);
    va_end(args);
    const char* safe_tag = tag != nullptr ? tag : "";

    if (kivhal::host::logcat_mirroring()) {
        fprintf(stderr, "%c/%s(%5d): %s\n", kivhal::host::priority_letter(prio), safe_tag,
                static_cast<int>(getpid()), text.c_str());
    }

    const int length = static_cast<int>(text.size());
    kivhal::host::capture& c = kivhal::host::the_capture();
    std::lock_guard<std::mutex> lock(c.mutex);
    if (c.lines.size() >= kivhal::host::kCapturedLogCapacity) {
        c.lines.pop_front();
        ++c.dropped;
    }
    c.lines.push_back(kivhal::host::log_line{prio, safe_tag, std::move(text)});
    return length;
}
