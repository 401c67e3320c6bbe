// The reader thread and the dispatch of inbound packets.
#include <cutils/trace.h>
#include <unistd.h>
#include <utils/SystemClock.h>

#include <cstring>

#include "kiv_feature_flags.h"
#include "kiv_log.h"
#include "kivhal/platform.h"
#include "sns_client.pb.h"
#include "sns_wakelock.h"
#include "tav_ducto.h"
#include "tav_ducto_internal.h"

using kivhal::connection::conn_id;
using kivhal::connection::query_trace_tags;

namespace {

constexpr char kThreadStopByte = 'd';
constexpr int kPollForever = -1;
constexpr size_t kPipeEntry = 0;
constexpr size_t kChannelEntry = 1;

uint32_t report_payload_len(const sns_ducto_packet& packet) {
    uint32_t len;
    memcpy(&len, reinterpret_cast<const uint8_t*>(&packet) + SNS_DUCTO_IND_PAYLOAD_LEN_OFFSET,
           sizeof(len));
    return len;
}

// A report must hold its length field and the whole payload it announces.
kivhal::connection::capture_reason report_bounds(const sns_ducto_packet& packet, int bytes_read) {
    using kivhal::connection::capture_reason;
    if (static_cast<size_t>(bytes_read) < SNS_DUCTO_IND_PAYLOAD_OFFSET) {
        return capture_reason::short_report;
    }
    return report_payload_len(packet) > bytes_read - SNS_DUCTO_IND_PAYLOAD_OFFSET
               ? capture_reason::payload_past_read
               : capture_reason::none;
}

bool report_within_read(const sns_ducto_packet& packet, int bytes_read, kiv_log_op op) {
    using kivhal::connection::capture_reason;
    switch (report_bounds(packet, bytes_read)) {
        case capture_reason::short_report:
            KIV_LOGE_FOR(op, "TAV_DUCTO_int report of %d bytes is too short, dropped", bytes_read);
            return false;
        case capture_reason::payload_past_read:
            KIV_LOGE_FOR(op,
                         "TAV_DUCTO_int report payload len %u runs past the %d bytes read, dropped",
                         report_payload_len(packet), bytes_read);
            return false;
        default:
            return true;
    }
}

// Why dispatch will drop the packet, for the capture; the log line is
// dispatch's.
kivhal::connection::capture_reason drop_reason(const sns_ducto_packet& packet, int bytes_read) {
    using kivhal::connection::capture_reason;
    switch (packet.msg_id) {
        case SNS_AON_CLIENT_RESP_V01:
        case SNS_AON_CLIENT_INFO_RESP_V01:
        case SNS_AON_CLIENT_LOW_PWR_STATE_IND_V01:
            return capture_reason::none;
        case SNS_AON_CLIENT_REPORT_IND_V01:
        case SNS_AON_CLIENT_JUMBO_REPORT_IND_V01:
            return report_bounds(packet, bytes_read);
        default:
            return capture_reason::unknown_msg_id;
    }
}

// One inbound packet, on the reader thread's behalf (`op`).
void dispatch(tav_ducto* conn, sns_ducto_packet& packet, int bytes_read, kiv_log_op op) {
    const uint16_t msg_id = packet.msg_id;
    KIV_LOGD_FOR(op, "TAV_DUCTO_int msg_id %d", msg_id);
    switch (msg_id) {
        case SNS_AON_CLIENT_RESP_V01:
            KIV_LOGD_FOR(op, "TAV_DUCTO_int received SNS_AON_CLIENT_RESP_V01");
            conn->ducto_response_handler(
                reinterpret_cast<sns_aon_client_resp_msg_v01*>(packet.body));
            break;
        case SNS_AON_CLIENT_REPORT_IND_V01:
            KIV_LOGD_FOR(op, "TAV_DUCTO_int received SNS_AON_CLIENT_REPORT_IND_V01");
            if (report_within_read(packet, bytes_read, op))
                conn->ducto_indication_handler(msg_id, packet);
            break;
        case SNS_AON_CLIENT_JUMBO_REPORT_IND_V01:
            KIV_LOGD_FOR(op, "TAV_DUCTO_int received SNS_AON_CLIENT_JUMBO_REPORT_IND_V01");
            if (report_within_read(packet, bytes_read, op))
                conn->ducto_indication_handler(msg_id, packet);
            break;
        case SNS_AON_CLIENT_INFO_RESP_V01:
            KIV_LOGD_FOR(op, "TAV_DUCTO_int SNS_AON_CLIENT_INFO_RESP_V01 is received");
            break;
        case SNS_AON_CLIENT_LOW_PWR_STATE_IND_V01:
            KIV_LOGD_FOR(op, "TAV_DUCTO SNS_AON_CLIENT_LOW_PWR_STATE_IND_V01 is received");
            conn->tav_handle_low_power_state_msg(
                reinterpret_cast<sns_aon_client_low_pwr_state_ind_msg_v01*>(packet.body));
            break;
        default:
            KIV_LOGE_FOR(op, "TAV_DUCTO_int invalid msg id");
            break;
    }
}

}  // namespace

void tav_ducto::ducto_thread_routine(tav_ducto* conn) {
    // Zeroed once: bytes past a short packet keep what earlier packets left.
    sns_ducto_packet packet;
    memset(&packet, 0, sizeof(packet));
    uint8_t* const buf = reinterpret_cast<uint8_t*>(&packet);

    for (;;) {
        const int chnl_fd = conn->_s_chnl_fd;
        struct pollfd fds[2] = {{conn->_wakeup_pipe[0], POLLIN, 0}, {chnl_fd, POLLIN | POLLHUP, 0}};
        KIV_LOGD("TAV_DUCTO waiting on poll wakeup_pipe %d ducto_fd %d", fds[kPipeEntry].fd,
                 chnl_fd);
        const int result = kivhal::platform::poll_nodes(fds, 2, kPollForever);
        if (result < 0) {
            KIV_LOGE("TAV_DUCTO_int poll failed with errno = %d, g_ducto_err_cnt = %d", errno,
                     conn->g_ducto_err_cnt.load());
            conn->ducto_error_handler(result);
            continue;
        }
        if (result == 0) {
            KIV_LOGE("TAV_DUCTO_int poll time-out");
        } else if (fds[kPipeEntry].revents & POLLIN) {
            char byte = 0;
            if (read(fds[kPipeEntry].fd, &byte, sizeof(byte)) == sizeof(byte) &&
                byte == kThreadStopByte) {
                KIV_LOGD("TAV_DUCTO explicitly requested thread close");
                conn->g_ducto_err_cnt = 0;
                break;
            }
        } else if (fds[kChannelEntry].revents & POLLIN) {
            KIV_LOGD("TAV_DUCTO_int received POLLIN event");
            const int n = conn->ducto_read(chnl_fd, buf, sizeof(packet));
            if (n <= 0) {
                KIV_LOGE("TAV_DUCTO_int read has failed with errno = %d, g_ducto_err_cnt = %d", n,
                         conn->g_ducto_err_cnt.load());
                if (n < 0) {
                    conn->ducto_error_handler(n);
                    continue;
                }
            } else {
                if (conn->_capture) {
                    conn->_capture->inbound(buf, static_cast<size_t>(n), drop_reason(packet, n));
                }
                dispatch(conn, packet, n, KIV_LOG_OP);
            }
        } else if (fds[kChannelEntry].revents & POLLHUP) {
            KIV_LOGE("TAV_DUCTO_int POLLHUP event is received, AON CLIENT SSR occured");
            conn->ducto_error_handler(POLLHUP);
        } else {
            KIV_LOGE("TAV_DUCTO_int received unregistered pollevent = %d",
                     fds[kChannelEntry].revents);
        }
        // Only consecutive failing passes count.
        if (conn->g_ducto_err_cnt.load(std::memory_order_relaxed) != 0) conn->g_ducto_err_cnt = 0;
    }
    KIV_LOGD("TAV_DUCTO thread exit");
}

void tav_ducto::ducto_response_handler(sns_aon_client_resp_msg_v01* msg) {
    KIV_LOGD("TAV_DUCTO_int %s start", __func__);
    if (_is_closing) {
        KIV_LOGI("TAV_DUCTO_int response is coming while connection is being closed");
        return;
    }
    sensor_uid suid;
    {
        kivhal::unique_lock lock(_s_mutex);
        if (_pending_resp_suids.empty()) {
            lock.unlock();
            update_suid_map_table(sensor_uid{0, 0});
            return;
        }
        suid = _pending_resp_suids.front();
    }

    const tav_register_cb* record = get_register_cb(suid);
    if (record == nullptr) {
        KIV_LOGE("TAV_DUCTO_int Registered callback returned null");
        return;
    }
    if (record->resp_cb && msg->client_id_valid != 0 && msg->result_valid != 0) {
        KIV_LOGD("TAV_DUCTO_int sending response to the client");
        record->resp_cb(msg->result, msg->client_id);
    }
    {
        kivhal::lock_guard lock(_s_mutex);
        _pending_resp_suids.erase(_pending_resp_suids.begin());
    }
    update_suid_map_table(suid);
}

void tav_ducto::ducto_indication_handler(uint32_t msg_id, const sns_ducto_packet& packet) {
    KIV_LOGD("TAV_DUCTO_int conn = 0x%llx received indication", conn_id(this));
    if (_is_closing) {
        KIV_LOGD(
            "TAV_DUCTO_int conn = 0x%llx indication is coming while connection is being "
            "closed",
            conn_id(this));
        return;
    }
    const uint64_t timestamp = static_cast<uint64_t>(android::elapsedRealtimeNano());
    KIV_LOGV("TAV_DUCTO_int msg_id %d ", msg_id);
    if (msg_id != SNS_AON_CLIENT_REPORT_IND_V01 && msg_id != SNS_AON_CLIENT_JUMBO_REPORT_IND_V01) {
        KIV_LOGE("TAV_DUCTO_int not a valid report indication msg_id");
        return;
    }
    const uint32_t payload_len = report_payload_len(packet);
    if (payload_len > SNS_DUCTO_IND_MAX_PAYLOAD_LEN) {
        KIV_LOGE("TAV_DUCTO_int payload len %u runs past the packet buffer, dropped", payload_len);
        return;
    }
    _ind_payload = reinterpret_cast<const uint8_t*>(&packet) + SNS_DUCTO_IND_PAYLOAD_OFFSET;
    _ind_payload_len = payload_len;

    sensor_uid suid{0, 0};
    if (update_suid(0, suid) != 0) {
        KIV_LOGE("TAV_DUCTO_int first level decoding suid failed");
        _ind_payload = nullptr;
        _ind_payload_len = 0;
        return;
    }
    const tav_register_cb* record = get_register_cb(suid);
    if (record == nullptr) {
        KIV_LOGE("Registered callback is null");
        _ind_payload = nullptr;
        _ind_payload_len = 0;
        return;
    }

    query_trace_tags();
    if (_wakelock != nullptr) {
        KIV_LOGD("acquiring wakelock");
        _wakelock->get_n_locks(1);
    }
    const int result = trigger_event_cb(0, record->event_cb, timestamp);
    KIV_LOGV("TAV_DUCTO_int triggered event callback, got value %d", result);
    _ind_payload = nullptr;
    _ind_payload_len = 0;
    if (_wakelock != nullptr) {
        KIV_LOGD("releasing wakelock");
        _wakelock->put_n_locks(1);
    }
    query_trace_tags();
}

int tav_ducto::update_suid(uint32_t, sensor_uid& suid) {
    if (_ind_payload_len == 0) {
        KIV_LOGI("TAV_DUCTO_int payload len is 0");
        return -1;
    }
    suid = _report_ids.read(_ind_payload, _ind_payload_len);
    KIV_LOGV("TAV_DUCTO_int Done parsing message");
    return 0;
}

int tav_ducto::trigger_event_cb(uint32_t, const tav_event_cb& cb, uint64_t timestamp) {
    if (_ind_payload_len == 0) {
        KIV_LOGE("TAV_DUCTO_int buffer len is 0");
        return -1;
    }
    cb(_ind_payload, _ind_payload_len, timestamp);
    return 0;
}
