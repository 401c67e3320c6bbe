#pragma once

// Names from the configuration and the core are byte strings; the tools'
// reports and JSON need to know which of them are text.

#include <cstddef>
#include <string>

namespace kivhal {
namespace tools {

// Length of the well-formed UTF-8 sequence at `text` (of `left` bytes), or 0
// when it is none: no overlong forms, surrogates or values past U+10FFFF.
inline size_t utf8_sequence_length(const unsigned char* text, size_t left) {
    const unsigned char lead = text[0];
    if (lead < 0x80) return 1;
    size_t length;
    unsigned char low = 0x80, high = 0xbf;  // bounds of the second byte
    if (lead >= 0xc2 && lead <= 0xdf) {
        length = 2;
    } else if (lead >= 0xe0 && lead <= 0xef) {
        length = 3;
        if (lead == 0xe0) low = 0xa0;
        if (lead == 0xed) high = 0x9f;
    } else if (lead >= 0xf0 && lead <= 0xf4) {
        length = 4;
        if (lead == 0xf0) low = 0x90;
        if (lead == 0xf4) high = 0x8f;
    } else {
        return 0;
    }
    if (left < length || text[1] < low || text[1] > high) return 0;
    for (size_t i = 2; i < length; ++i) {
        if ((text[i] & 0xc0) != 0x80) return 0;
    }
    return length;
}

inline bool is_utf8(const std::string& text) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    for (size_t at = 0; at < text.size();) {
        const size_t length = utf8_sequence_length(bytes + at, text.size() - at);
        if (length == 0) return false;
        at += length;
    }
    return true;
}

}  // namespace tools
}  // namespace kivhal
