#include <algorithm>
#include <cstring>

#include "tav_ducto.h"

namespace {

// The platform's error text is produced into a buffer of this size.
constexpr size_t kErrorTextLen = 30;

// strerror_r comes in a GNU flavour (returns the text) and an XSI one
// (fills the buffer); these pick the text from either.
[[maybe_unused]] const char* error_text(int result, const char* buf) {
    return result == 0 ? buf : "Unknown error";
}
[[maybe_unused]] const char* error_text(const char* result, const char*) {
    return result;
}

}  // namespace

ducto_error::ducto_error(int code, const std::string& msg)
    : std::runtime_error(error_code_to_string(code, msg)) {}

std::string ducto_error::error_code_to_string(int code, std::string msg) {
    char buf[kErrorTextLen] = {};
    std::string text(error_text(strerror_r(code, buf, sizeof(buf)), buf));
    text.resize(std::min(text.size(), kErrorTextLen - 1));
    return "TAV_DUCTO_ERROR " + msg + " : " + text + " (" + std::to_string(code) + ")";
}
