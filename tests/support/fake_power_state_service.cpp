#include "fake_power_state_service.h"

#include <stdexcept>

namespace kivhal {
namespace test {

using ::android::sp;
using ::android::hardware::hidl_string;
using ::android::hardware::Return;
using ::android::hardware::Status;

Return<bool> fake_power_state_service::registerDeepSleepClient(
    const sp<IPowerStateCallback>& callback, const hidl_string& clientName) {
    std::lock_guard<std::mutex> lock(_mutex);
    ++_counts.registrations;
    _client_names.push_back(clientName);
    if (_registration_result) _callback = callback;
    _changed.notify_all();
    return _registration_result;
}

Return<void> fake_power_state_service::acquireLPMWakelock(const hidl_string& clientName) {
    return wakelock_call(&call_counts::acquires, clientName);
}

Return<void> fake_power_state_service::releaseLPMWakelock(const hidl_string& clientName) {
    return wakelock_call(&call_counts::releases, clientName);
}

Return<void> fake_power_state_service::wakelock_call(int call_counts::*counter,
                                                     const hidl_string& name) {
    std::lock_guard<std::mutex> lock(_mutex);
    ++(_counts.*counter);
    _client_names.push_back(name);
    _changed.notify_all();
    if (_wakelock_calls_fail) {
        return Status::fromExceptionCode(Status::EX_TRANSACTION_FAILED, "service died");
    }
    return ::android::hardware::Void();
}

void fake_power_state_service::set_registration_result(bool accepted) {
    std::lock_guard<std::mutex> lock(_mutex);
    _registration_result = accepted;
}

void fake_power_state_service::set_wakelock_calls_fail(bool fail) {
    std::lock_guard<std::mutex> lock(_mutex);
    _wakelock_calls_fail = fail;
}

fake_power_state_service::call_counts fake_power_state_service::counts() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _counts;
}

std::vector<std::string> fake_power_state_service::client_names() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _client_names;
}

sp<fake_power_state_service::IPowerStateCallback> fake_power_state_service::registered_callback()
    const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _callback;
}

bool fake_power_state_service::wait_for(int acquires, int releases,
                                        std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(_mutex);
    return _changed.wait_for(lock, timeout, [&] {
        return _counts.acquires >= acquires && _counts.releases >= releases;
    });
}

sp<fake_power_state_service> register_fake_power_state_service() {
    sp<fake_power_state_service> service = new fake_power_state_service();
    if (service->registerAsService("default") != ::android::OK) {
        throw std::runtime_error("registering the fake power-state service failed");
    }
    return service;
}

}  // namespace test
}  // namespace kivhal
