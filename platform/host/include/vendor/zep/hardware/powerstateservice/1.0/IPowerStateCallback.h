#pragma once

// Host stand-in for the interface header generated from
// interfaces/powerstateservice/1.0/IPowerStateCallback.hal.

#include <android/hidl/base/1.0/IBase.h>
#include <hidl/HidlSupport.h>

#include <cstdint>

namespace vendor {
namespace zep {
namespace hardware {
namespace powerstateservice {
namespace V1_0 {

struct IPowerStateCallback : public ::android::hidl::base::V1_0::IBase {
    static constexpr const char* descriptor =
        "vendor.zep.hardware.powerstateservice@1.0::IPowerStateCallback";

    bool isRemote() const override { return false; }

    virtual ::android::hardware::Return<void> notifyDeepSleepEvent(int32_t state) = 0;
    virtual ::android::hardware::Return<void> notifyHibernateEvent(int32_t state) = 0;
};

}  // namespace V1_0
}  // namespace powerstateservice
}  // namespace hardware
}  // namespace zep
}  // namespace vendor
