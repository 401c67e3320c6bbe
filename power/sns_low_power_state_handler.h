#pragma once

#include <vendor/zep/hardware/powerstateservice/1.0/IPowerStateCallback.h>
#include <vendor/zep/hardware/powerstateservice/1.0/IPowerStateService.h>

#include <cstdint>
#include <mutex>

#include "kiv_thread_annotations.h"

// Client of the vendor power-state service: registers as a deep-sleep client
// and holds the service's low-power-mode wake lock while any session of the
// sensor core needs the application processor. Everything is static; the
// instance only marks that registration succeeded.
class sns_low_power_state_handler {
  public:
    using IPowerStateCallback =
        ::vendor::zep::hardware::powerstateservice::V1_0::IPowerStateCallback;
    using IPowerStateService = ::vendor::zep::hardware::powerstateservice::V1_0::IPowerStateService;

    // The service only needs the registration; deep-sleep and hibernate
    // events change nothing here.
    class power_state_callback_impl : public IPowerStateCallback {
      public:
        power_state_callback_impl();
        ~power_state_callback_impl() override;

        ::android::hardware::Return<void> notifyDeepSleepEvent(int32_t state) override;
        ::android::hardware::Return<void> notifyHibernateEvent(int32_t state) override;

        bool isRemote() const override { return false; }

      private:
        ::android::hardware::Return<void> on_power_event(int32_t state);
    };

    // Null while the service cannot be reached or refuses the registration;
    // the next call tries again.
    static sns_low_power_state_handler* get_sns_low_power_state_handler() EXCLUDES(_s_handler_mutex);
    // Returns whether the wake lock is held afterwards.
    static bool acquire_wakelock() EXCLUDES(_s_handler_mutex);
    static void release_wakelock() EXCLUDES(_s_handler_mutex);

    sns_low_power_state_handler(const sns_low_power_state_handler&) = delete;
    sns_low_power_state_handler& operator=(const sns_low_power_state_handler&) = delete;

  private:
    sns_low_power_state_handler() = default;
    ~sns_low_power_state_handler() = default;

    // Connections each have a reader thread; this serialises them. Held
    // across the calls into the power-state service, which never call back
    // into this handler on the calling thread.
    static kivhal::mutex _s_handler_mutex;
    static sns_low_power_state_handler* _s_lps_handle GUARDED_BY(_s_handler_mutex);
    static ::android::sp<IPowerStateService> _s_power_state_service GUARDED_BY(_s_handler_mutex);
    static bool _s_is_wakeock_acquired GUARDED_BY(_s_handler_mutex);
};
