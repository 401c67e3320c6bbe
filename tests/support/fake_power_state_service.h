#pragma once

// An in-process power-state service for tests: counts the calls it gets,
// keeps the registered callback and fails calls on request.

#include <vendor/zep/hardware/powerstateservice/1.0/IPowerStateService.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace kivhal {
namespace test {

class fake_power_state_service
    : public ::vendor::zep::hardware::powerstateservice::V1_0::IPowerStateService {
public:
    using IPowerStateCallback = ::vendor::zep::hardware::powerstateservice::V1_0::IPowerStateCallback;
    using hidl_string = ::android::hardware::hidl_string;
    struct call_counts {
        int registrations = 0;
        int acquires = 0;
        int releases = 0;
    };

    // Registers a fresh fake as the "default" instance.
    static ::android::sp<fake_power_state_service> register_default() {
        ::android::sp<fake_power_state_service> service = new fake_power_state_service();
        if (service->registerAsService("default") != ::android::OK) {
            throw std::runtime_error("registering the fake power-state service failed");
        }
        return service;
    }

    ::android::hardware::Return<bool> registerDeepSleepClient(
        const ::android::sp<IPowerStateCallback>& callback, const hidl_string& name) override {
        std::lock_guard<std::mutex> lock(_mutex);
        record(&call_counts::registrations, name);
        if (registration_accepted) _callback = callback;
        return registration_accepted.load();
    }
    ::android::hardware::Return<void> acquireLPMWakelock(const hidl_string& name) override {
        return wakelock_call(&call_counts::acquires, name);
    }
    ::android::hardware::Return<void> releaseLPMWakelock(const hidl_string& name) override {
        return wakelock_call(&call_counts::releases, name);
    }

    // What the next calls answer.
    std::atomic<bool> registration_accepted{true};
    std::atomic<bool> wakelock_calls_fail{false};

    call_counts counts() const {
        std::lock_guard<std::mutex> lock(_mutex);
        return _counts;
    }
    // Client names in call order, one per call of any kind.
    std::vector<std::string> client_names() const {
        std::lock_guard<std::mutex> lock(_mutex);
        return _client_names;
    }
    ::android::sp<IPowerStateCallback> registered_callback() const {
        std::lock_guard<std::mutex> lock(_mutex);
        return _callback;
    }
    // True once the acquire and release counts have reached the given values.
    bool wait_for(int acquires, int releases, std::chrono::milliseconds timeout) const {
        std::unique_lock<std::mutex> lock(_mutex);
        return _changed.wait_for(lock, timeout, [&] {
            return _counts.acquires >= acquires && _counts.releases >= releases;
        });
    }

private:
    void record(int call_counts::*counter, const hidl_string& name) {
        ++(_counts.*counter);
        _client_names.push_back(name);
        _changed.notify_all();
    }
    ::android::hardware::Return<void> wakelock_call(int call_counts::*counter, const hidl_string& name) {
        std::lock_guard<std::mutex> lock(_mutex);
        record(counter, name);
        if (!wakelock_calls_fail) return ::android::hardware::Void();
        using ::android::hardware::Status;
        return Status::fromExceptionCode(Status::EX_TRANSACTION_FAILED, "service died");
    }

    mutable std::mutex _mutex;
    mutable std::condition_variable _changed;
    call_counts _counts;
    std::vector<std::string> _client_names;
    ::android::sp<IPowerStateCallback> _callback;
};

}  // namespace test
}  // namespace kivhal
