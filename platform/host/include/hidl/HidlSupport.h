#pragma once

// Host stand-in for the HIDL support types the generated interface headers
// use: strings, strong pointers and the transport's Return<>.

#include <utils/RefBase.h>
#include <utils/StrongPointer.h>

#include <string>

#include "hidl/Status.h"

namespace android {
namespace hardware {

class hidl_string {
  public:
    hidl_string() = default;
    hidl_string(const char* text) : _text(text != nullptr ? text : "") {}  // NOLINT
    hidl_string(const std::string& text) : _text(text) {}                  // NOLINT

    const char* c_str() const { return _text.c_str(); }
    size_t size() const { return _text.size(); }
    bool empty() const { return _text.empty(); }
    operator std::string() const { return _text; }  // NOLINT

    bool operator==(const hidl_string& other) const { return _text == other._text; }
    bool operator!=(const hidl_string& other) const { return !(*this == other); }

  private:
    std::string _text;
};

}  // namespace hardware
}  // namespace android
