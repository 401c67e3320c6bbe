#include "kiv_dump.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace kivhal {
namespace dump {

void appendf(std::string* out, const char* format, ...) {
    va_list args;
    va_start(args, format);
    va_list measure;
    va_copy(measure, args);
    const int length = vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    if (length > 0) {
        const size_t old_size = out->size();
        out->resize(old_size + static_cast<size_t>(length) + 1);
        vsnprintf(&(*out)[old_size], static_cast<size_t>(length) + 1, format, args);
        out->resize(old_size + static_cast<size_t>(length));
    }
    va_end(args);
}

std::string suid_text(const sensor_uid& suid) {
    std::string text;
    appendf(&text, "%016llx:%016llx", static_cast<unsigned long long>(suid.high),
            static_cast<unsigned long long>(suid.low));
    return text;
}

void write_fully(int fd, const std::string& text) {
    size_t written = 0;
    while (written < text.size()) {
        const ssize_t n = write(fd, text.data() + written, text.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        written += static_cast<size_t>(n);
    }
}

}  // namespace dump
}  // namespace kivhal
