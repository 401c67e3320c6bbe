#pragma once

// Host stand-in for the interface header generated from
// interfaces/powerstateservice/1.0/IPowerStateService.hal. getService()
// answers from an in-process registry that tests and tools fill with
// registerAsService() (see kivhal/power_state_service_registry.h).

#include <android/hidl/base/1.0/IBase.h>
#include <hidl/HidlSupport.h>
#include <utils/Errors.h>

#include <string>

#include "vendor/zep/hardware/powerstateservice/1.0/IPowerStateCallback.h"

namespace vendor {
namespace zep {
namespace hardware {
namespace powerstateservice {
namespace V1_0 {

struct IPowerStateService : public ::android::hidl::base::V1_0::IBase {
    static constexpr const char* descriptor =
        "vendor.zep.hardware.powerstateservice@1.0::IPowerStateService";

    bool isRemote() const override { return false; }

    virtual ::android::hardware::Return<bool> registerDeepSleepClient(
        const ::android::sp<IPowerStateCallback>& callback,
        const ::android::hardware::hidl_string& clientName) = 0;
    virtual ::android::hardware::Return<void> acquireLPMWakelock(
        const ::android::hardware::hidl_string& clientName) = 0;
    virtual ::android::hardware::Return<void> releaseLPMWakelock(
        const ::android::hardware::hidl_string& clientName) = 0;

    // Null when no service of that name is registered.
    static ::android::sp<IPowerStateService> getService(const std::string& serviceName = "default",
                                                        bool getStub = false);
    __attribute__((warn_unused_result)) ::android::status_t registerAsService(
        const std::string& serviceName = "default");
};

}  // namespace V1_0
}  // namespace powerstateservice
}  // namespace hardware
}  // namespace zep
}  // namespace vendor
