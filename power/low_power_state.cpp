// Low-power-state indications of the sensor core: per-session states, the
// power-state service's wake lock that follows their aggregate, and the
// hand-off of write-info records to the sensor store.

#include "kiv_feature_flags.h"
#include "kiv_log.h"
#include "sns_low_power_state_handler.h"
#include "tav_ducto.h"
#include "tav_ducto_internal.h"

using kivhal::connection::aggregate_low_power_state;

namespace {

enum class session_update {
    updated,
    unknown_session,
};

}  // namespace

void tav_ducto::tav_handle_low_power_state_msg(sns_aon_client_low_pwr_state_ind_msg_v01* msg) {
    if (!is_ds_supported()) {
        KIV_LOGE("TAV_DUCTO_int DS is not supported");
        return;
    }

    sns_low_power_state_handler* handler =
        sns_low_power_state_handler::get_sns_low_power_state_handler();
    const uint8_t msg_id = msg->lps_msg_id;
    const uint8_t session_id = msg->lps_session_id;
    KIV_LOGD("SNS_LOW_PWR_STATE_MSG lps_msg_id(%d), lps_session_id(%d)", msg_id, session_id);

    switch (msg_id) {
        case SNS_LOW_POWER_STATE_OFF:
        case SNS_LOW_POWER_STATE_ON: {
            session_update update = session_update::unknown_session;
            uint8_t aggregate = SNS_LOW_POWER_STATE_ON;
            {
                kivhal::lock_guard lock(_lps_db_mutex);
                auto session = _lps_db.find(session_id);
                if (session != _lps_db.end()) {
                    session->second = msg_id;
                    aggregate = aggregate_low_power_state(_lps_db);
                    update = session_update::updated;
                }
            }
            if (update == session_update::unknown_session) {
                KIV_LOGE("SNS_LOW_PWR_STATE_MSG invalid lps_session_id");
                return;
            }
            KIV_LOGD("SNS_LOW_PWR_STATE_MSG aggregate lps(%d)", aggregate);
            if (handler == nullptr) return;
            if (aggregate == SNS_LOW_POWER_STATE_ON) {
                sns_low_power_state_handler::release_wakelock();
            } else {
                sns_low_power_state_handler::acquire_wakelock();
            }
            return;
        }
        case SNS_LOW_POWER_WRITE_INFO:
            KIV_LOGD("SNS_LOW_PWR_STATE_MSG received SNS_LOW_POWER_WRITE_INFO");
            if (!is_oda_supported()) {
                KIV_LOGD("total_byte_count=%d shmem_byte_count=%d",
                         msg->write_info.total_byte_count, msg->write_info.shmem_byte_count);
                return;
            }
            tav_process_low_power_sensor_store_write_info(&msg->write_info);
            return;
        default:
            KIV_LOGD("SNS_LOW_PWR_STATE_MSG invalid message id(%d)", msg_id);
            return;
    }
}
