#pragma once

// Host stand-in for the root of every HIDL interface.

#include <hidl/HidlSupport.h>

namespace android {
namespace hidl {
namespace base {
namespace V1_0 {

struct IBase : virtual public ::android::RefBase {
    // Objects made in this process are served in-process.
    virtual bool isRemote() const { return false; }
    virtual ~IBase() {}
};

}  // namespace V1_0
}  // namespace base
}  // namespace hidl
}  // namespace android
