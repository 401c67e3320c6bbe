#include "sns_low_power_state_handler.h"

#include "kiv_log.h"

using ::android::sp;
using ::android::hardware::Return;
using ::android::hardware::Void;

namespace {
// The name the power-state service knows this client by.
constexpr char kLpsClientName[] = "MRSENSORS_KIV";
constexpr char kPowerStateServiceInstance[] = "default";
}  // namespace

sns_low_power_state_handler* sns_low_power_state_handler::_s_lps_handle = nullptr;
sp<sns_low_power_state_handler::IPowerStateService> sns_low_power_state_handler::_s_power_state_service;
bool sns_low_power_state_handler::_s_is_wakeock_acquired = false;
kivhal::mutex sns_low_power_state_handler::_s_handler_mutex;

sns_low_power_state_handler::power_state_callback_impl::power_state_callback_impl() {
    KIV_LOGD("SNS_LOW_PWR_STATE_MSG: power_state_callback_impl entry");
}

sns_low_power_state_handler::power_state_callback_impl::~power_state_callback_impl() = default;

Return<void> sns_low_power_state_handler::power_state_callback_impl::notifyDeepSleepEvent(
    int32_t state) {
    return on_power_event(state);
}

Return<void> sns_low_power_state_handler::power_state_callback_impl::notifyHibernateEvent(
    int32_t state) {
    return on_power_event(state);
}

Return<void> sns_low_power_state_handler::power_state_callback_impl::on_power_event(
    int32_t /*state*/) {
    return Void();
}

sns_low_power_state_handler* sns_low_power_state_handler::get_sns_low_power_state_handler() {
    KIV_LOGD("SNS_LOW_PWR_STATE_MSG get_sns_low_power_state_handler entry");
    kivhal::lock_guard lock(_s_handler_mutex);
    if (_s_lps_handle != nullptr) return _s_lps_handle;

    KIV_LOGD("SNS_LOW_PWR_STATE_MSG creating new low_power_state");
    _s_lps_handle = new sns_low_power_state_handler();

    _s_power_state_service = IPowerStateService::getService(kPowerStateServiceInstance);
    if (_s_power_state_service == nullptr) {
        delete _s_lps_handle;
        _s_lps_handle = nullptr;
        KIV_LOGE("SNS_LOW_PWR_STATE_MSG: getService FAILED: received null");
        return nullptr;
    }

    sp<IPowerStateCallback> callback = new power_state_callback_impl();
    // A transport failure here is fatal: reading the value of a failed call
    // aborts, as on the device.
    const bool registered =
        _s_power_state_service->registerDeepSleepClient(callback, kLpsClientName);
    if (!registered) {
        delete _s_lps_handle;
        _s_lps_handle = nullptr;
        KIV_LOGE("SNS_LOW_PWR_STATE_MSG IPowerStateService FAILED to registerDeepSleepClient");
    }
    return _s_lps_handle;
}

bool sns_low_power_state_handler::acquire_wakelock() {
    kivhal::lock_guard lock(_s_handler_mutex);
    KIV_LOGD("SNS_LOW_PWR_STATE_MSG acquire_wakelock _s_is_wakeock_acquired(%d)",
             _s_is_wakeock_acquired);
    if (_s_is_wakeock_acquired) return true;
    if (_s_power_state_service == nullptr) {
        KIV_LOGE("SNS_LOW_PWR_STATE_MSG invalid power_state_service");
        return false;
    }

    KIV_LOGV("SNS_LOW_PWR_STATE_MSG acquireLPMWakelock");
    const Return<void> result = _s_power_state_service->acquireLPMWakelock(kLpsClientName);
    if (!result.isOk()) {
        KIV_LOGE("SNS_LOW_PWR_STATE_MSG unable to acquireLPMWakelock. Exception : %s",
                 result.description().c_str());
    } else {
        _s_is_wakeock_acquired = true;
    }
    return _s_is_wakeock_acquired;
}

void sns_low_power_state_handler::release_wakelock() {
    kivhal::lock_guard lock(_s_handler_mutex);
    KIV_LOGD("SNS_LOW_PWR_STATE_MSG release_wakelock _s_is_wakeock_acquired(%d)",
             _s_is_wakeock_acquired);
    if (!_s_is_wakeock_acquired) return;
    if (_s_power_state_service == nullptr) {
        KIV_LOGE("SNS_LOW_PWR_STATE_MSG invalid power_state_service");
        return;
    }

    KIV_LOGV("SNS_LOW_PWR_STATE_MSG releaseLPMWakelock");
    const Return<void> result = _s_power_state_service->releaseLPMWakelock(kLpsClientName);
    if (!result.isOk()) {
        KIV_LOGE("SNS_LOW_PWR_STATE_MSG unable to releaseLPMWakelock. Exception : %s",
                 result.description().c_str());
        return;
    }
    _s_is_wakeock_acquired = false;
}
