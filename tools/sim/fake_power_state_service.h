#pragma once

// An in-process power-state service for tests: counts the calls it gets,
// keeps the registered callback and fails calls on request.

#include <vendor/zep/hardware/powerstateservice/1.0/IPowerStateService.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <string>

namespace kivhal {
namespace test {

class fake_power_state_service
    : public ::vendor::zep::hardware::powerstateservice::V1_0::IPowerStateService {
  public:
    using IPowerStateCallback =
        ::vendor::zep::hardware::powerstateservice::V1_0::IPowerStateCallback;
    using hidl_string = ::android::hardware::hidl_string;

    // Registers a fresh fake as the "default" instance.
    static ::android::sp<fake_power_state_service> register_default() {
        ::android::sp<fake_power_state_service> service = new fake_power_state_service();
        if (service->registerAsService("default") != ::android::OK)
            throw std::runtime_error("cannot register");
        return service;
    }

    ::android::hardware::Return<bool> registerDeepSleepClient(
        const ::android::sp<IPowerStateCallback>& callback, const hidl_string& name) override {
        std::lock_guard<std::mutex> lock(record(registrations, name));
        if (registration_accepted) _callback = callback;
        return registration_accepted.load();
    }
    ::android::hardware::Return<void> acquireLPMWakelock(const hidl_string& name) override {
        return wakelock_call(acquires, name);
    }
    ::android::hardware::Return<void> releaseLPMWakelock(const hidl_string& name) override {
        return wakelock_call(releases, name);
    }
    ::android::sp<IPowerStateCallback> registered_callback() const {
        std::lock_guard<std::mutex> lock(_mutex);
        return _callback;
    }
    // Client names in call order, one per call of any kind.
    std::string client_names() const {
        std::lock_guard<std::mutex> lock(_mutex);
        return _client_names;
    }

    // What the next calls answer, and the calls so far.
    std::atomic<bool> registration_accepted{true}, wakelock_calls_fail{false};
    std::atomic<int> registrations{0}, acquires{0}, releases{0};

  private:
    std::mutex& record(std::atomic<int>& counter, const hidl_string& name) {
        std::lock_guard<std::mutex> lock(_mutex);
        _client_names += std::string(name) + ";";
        ++counter;
        return _mutex;
    }
    ::android::hardware::Return<void> wakelock_call(std::atomic<int>& counter,
                                                    const hidl_string& name) {
        record(counter, name);
        if (!wakelock_calls_fail) return ::android::hardware::Void();
        using ::android::hardware::Status;
        return Status::fromExceptionCode(Status::EX_TRANSACTION_FAILED, "service died");
    }

    mutable std::mutex _mutex;
    std::string _client_names;
    ::android::sp<IPowerStateCallback> _callback;
};

}  // namespace test
}  // namespace kivhal
