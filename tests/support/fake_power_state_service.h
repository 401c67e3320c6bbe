#pragma once

// An in-process power-state service for tests: counts the calls it gets,
// keeps the registered callback and fails calls on request.

#include <vendor/zep/hardware/powerstateservice/1.0/IPowerStateService.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace kivhal {
namespace test {

class fake_power_state_service
    : public ::vendor::zep::hardware::powerstateservice::V1_0::IPowerStateService {
public:
    using IPowerStateCallback = ::vendor::zep::hardware::powerstateservice::V1_0::IPowerStateCallback;

    struct call_counts {
        int registrations = 0;
        int acquires = 0;
        int releases = 0;
    };

    ::android::hardware::Return<bool> registerDeepSleepClient(
        const ::android::sp<IPowerStateCallback>& callback,
        const ::android::hardware::hidl_string& clientName) override;
    ::android::hardware::Return<void> acquireLPMWakelock(
        const ::android::hardware::hidl_string& clientName) override;
    ::android::hardware::Return<void> releaseLPMWakelock(
        const ::android::hardware::hidl_string& clientName) override;

    // What the next calls answer.
    void set_registration_result(bool accepted);
    void set_wakelock_calls_fail(bool fail);

    call_counts counts() const;
    // Client names in call order, one per call of any kind.
    std::vector<std::string> client_names() const;
    ::android::sp<IPowerStateCallback> registered_callback() const;
    // True once the acquire and release counts have reached the given values.
    bool wait_for(int acquires, int releases, std::chrono::milliseconds timeout) const;

private:
    ::android::hardware::Return<void> wakelock_call(int call_counts::*counter,
                                                    const ::android::hardware::hidl_string& name);

    mutable std::mutex _mutex;
    mutable std::condition_variable _changed;
    call_counts _counts;
    std::vector<std::string> _client_names;
    ::android::sp<IPowerStateCallback> _callback;
    bool _registration_result = true;
    bool _wakelock_calls_fail = false;
};

// Registers a fresh fake as the "default" instance and returns it.
::android::sp<fake_power_state_service> register_fake_power_state_service();

}  // namespace test
}  // namespace kivhal
