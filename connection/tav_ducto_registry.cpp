// Client registrations, the client-request-id pool and request framing.
#include <utils/SystemClock.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "kiv_log.h"
#include "sns_client.pb.h"
#include "sns_msg_ids.h"
#include "tav_ducto.h"
#include "tav_ducto_internal.h"

using kivhal::connection::conn_id;

namespace {

constexpr uint8_t kFirstClientReqId = 1;
constexpr uint8_t kLastClientReqId = 255;
constexpr uint8_t kNoClientReqId = 0;
constexpr uint16_t kRequestConstant = 1;
constexpr int64_t kSlowWriteNs = 2000000000;
constexpr double kNsPerSecond = 1000000000.0;
constexpr int kSessionIdMask = 0xff;

tav_register_cb* find_record(const std::map<tav_register_cb*, sensor_uid>& map, sensor_uid suid) {
    for (const auto& entry : map) {
        if (entry.second == suid) return entry.first;
    }
    return nullptr;
}

uint8_t find_client_req_id(const std::map<uint8_t, sensor_uid>& map, sensor_uid suid) {
    for (const auto& entry : map) {
        if (entry.second == suid) return entry.first;
    }
    return kNoClientReqId;
}

// Removes the newest entry for `suid`: the one this sender just added.
void remove_newest(std::vector<sensor_uid>& list, sensor_uid suid) {
    auto it = std::find(list.rbegin(), list.rend(), suid);
    if (it != list.rend()) list.erase(std::next(it).base());
}

}  // namespace

void tav_ducto::initialize_client_req_id_db() {
    kivhal::lock_guard lock(_s_mutex);
    for (int id = kFirstClientReqId; id <= kLastClientReqId; ++id) {
        _free_client_req_ids.push_back(static_cast<uint8_t>(id));
    }
    KIV_LOGI("TAV_DUCTO conn = 0x%llx clinet reqid db initialized size %d", conn_id(this),
             static_cast<int>(_free_client_req_ids.size()));
}

uint8_t tav_ducto::allocate_client_req_id() {
    uint8_t id;
    {
        kivhal::lock_guard lock(_s_mutex);
        KIV_LOGI("TAV_DUCTO conn = 0x%llx clinet allocate_client_req_id size %d", conn_id(this),
                 static_cast<int>(_free_client_req_ids.size()));
        if (_free_client_req_ids.empty()) {
            throw std::runtime_error("TAV_DUCTO exceeded maximum number of ducto clients");
        }
        id = _free_client_req_ids.front();
        _free_client_req_ids.erase(_free_client_req_ids.begin());
        _used_client_req_ids.push_back(id);
    }
    KIV_LOGI("TAV_DUCTO conn = 0x%llx allocated _client_req_id = %d", conn_id(this), id);
    return id;
}

void tav_ducto::free_client_req_id(uint8_t id) {
    KIV_LOGD("TAV_DUCTO conn = 0x%llx releasing _client_req_id = %d, waiting for _s_mutex",
             conn_id(this), id);
    kivhal::lock_guard lock(_s_mutex);
    auto it = std::find(_used_client_req_ids.begin(), _used_client_req_ids.end(), id);
    if (it == _used_client_req_ids.end()) {
        // A second disable answer for the same sensor finds no id; handing
        // out an id twice (or 0 at all) would be worse than dropping it.
        KIV_LOGE("TAV_DUCTO conn = 0x%llx _client_req_id = %d is not in use", conn_id(this), id);
        return;
    }
    _used_client_req_ids.erase(it);
    _free_client_req_ids.push_back(id);
}

tav_register_cb* tav_ducto::get_register_cb(sensor_uid suid) {
    kivhal::lock_guard lock(_cb_map_mutex);
    return find_record(_cb_suid_map, suid);
}

uint8_t tav_ducto::get_clientreq_id(sensor_uid suid) {
    kivhal::lock_guard lock(_cb_map_mutex);
    return find_client_req_id(_clientreq_suid_map, suid);
}

bool tav_ducto::is_suid_already_registered(sensor_uid suid) {
    return get_register_cb(suid) != nullptr;
}

void tav_ducto::update_suid_map_table(sensor_uid suid) {
    kivhal::lock_guard lock(_suid_map_mutex);
    auto pending_disable = std::find(_registered_suids.begin(), _registered_suids.end(), suid);
    if (pending_disable == _registered_suids.end()) return;

    tav_register_cb* record;
    uint8_t id;
    {
        kivhal::lock_guard map_lock(_cb_map_mutex);
        record = find_record(_cb_suid_map, suid);
        _cb_suid_map.erase(record);
        id = find_client_req_id(_clientreq_suid_map, suid);
        _clientreq_suid_map.erase(id);
    }
    free_client_req_id(id);
    delete record;
    KIV_LOGD("TAV_DUCTO_int registered callback successfully deleted for clientreq_id %d", id);
    _registered_suids.erase(pending_disable);
}

int tav_ducto::register_cb(sensor_uid suid, tav_resp_cb resp_cb, tav_error_cb error_cb,
                           tav_event_cb event_cb) {
    KIV_LOGV("TAV_DUCTO_int %s start ", __func__);
    auto record = std::make_unique<tav_register_cb>(std::move(resp_cb), std::move(error_cb),
                                                    std::move(event_cb));
    {
        kivhal::lock_guard lock(_cb_map_mutex);
        if (find_record(_cb_suid_map, suid) != nullptr) {
            KIV_LOGE("TAV_DUCTO_int This suid is alread registered ");
            return -1;
        }
        _cb_suid_map.emplace(record.release(), suid);
    }
    // Throws when all ids are in use; the record then stays without an id.
    const uint8_t id = allocate_client_req_id();
    kivhal::lock_guard lock(_cb_map_mutex);
    _clientreq_suid_map.emplace(id, suid);
    return 0;
}

int tav_ducto::send_request(sensor_uid suid, bool flag, std::string payload, int session_id) {
    sns_ducto_packet packet;
    memset(&packet, 0, sizeof(packet));
    sns_client_request_msg request;

    const uint8_t client_req_id = get_clientreq_id(suid);
    if (client_req_id == kNoClientReqId) {
        KIV_LOGE(
            "TAV_DUCTO clientid for suid.high %llx suid.low %llx  is not found in lookup "
            "table",
            static_cast<unsigned long long>(suid.high), static_cast<unsigned long long>(suid.low));
        throw ducto_error(0, "ducto_write failed");
    }
    if (_is_reconnecting) {
        KIV_LOGE("TAV_DUCTO_int conn = 0x%llx is reconnecting, cannot send request", conn_id(this));
        return 0;
    }
    KIV_LOGD("TAV_DUCTO_int conn = 0x%llx is sending request", conn_id(this));
    if (payload.size() > SNS_DUCTO_REQ_MAX_PAYLOAD_LEN) {
        KIV_LOGE("TAV_DUCTO_int conn = 0x%llx request payload size is too large", conn_id(this));
        throw std::runtime_error("TAV_DUCTO request payload size too large");
    }
    request.ParseFromString(payload);

    const uint8_t session = static_cast<uint8_t>(session_id & kSessionIdMask);
    {
        // A session the core already reported on keeps its state.
        kivhal::lock_guard lock(_lps_db_mutex);
        if (_lps_db.emplace(session, 1).second) {
            KIV_LOGD("TAV_DUCTO added _session_id(%d) to _lps_db", session);
        } else {
            KIV_LOGV("TAV_DUCTO _session_id(%d) is already present in _lps_db", session);
        }
    }
    KIV_LOGD(
        "TAV_DUCTO_int conn = 0x%llx new session_id = %d client_req_id %d low.suid %llx "
        "msgid = %d ",
        conn_id(this), session, client_req_id, static_cast<unsigned long long>(suid.low),
        request.msg_id());

    packet.msg_id = SNS_AON_CLIENT_REQ_V01;
    packet.reserved = kRequestConstant;
    auto* head = reinterpret_cast<sns_aon_client_req_msg_v01*>(packet.body);
    head->session_id = session;
    head->client_req_id = client_req_id;
    head->flag = flag ? 1 : 0;
    head->payload_len = static_cast<uint32_t>(payload.size());
    static_assert(SNS_DUCTO_REQ_MAX_PAYLOAD_LEN <= sizeof(head->payload), "payload room");
    memcpy(head->payload, payload.data(), payload.size());

    const bool is_disable = request.msg_id() == kivhal::msg::DISABLE_REQUEST;
    // Recorded before the write, so that a fast response finds them.
    if (is_disable) {
        kivhal::lock_guard lock(_suid_map_mutex);
        _registered_suids.push_back(suid);
    }
    {
        kivhal::lock_guard lock(_s_mutex);
        _pending_resp_suids.push_back(suid);
    }

    const int64_t start = android::elapsedRealtimeNano();
    const int result =
        ducto_write(_s_chnl_fd, reinterpret_cast<uint8_t*>(&packet), SNS_DUCTO_REQ_PACKET_LEN);
    const int64_t elapsed = android::elapsedRealtimeNano() - start;

    if (result < 0) {
        KIV_LOGE("TAV_DUCTO_int conn = 0x%llx ducto_write has failed", conn_id(this));
        if (is_disable) {
            kivhal::lock_guard lock(_suid_map_mutex);
            remove_newest(_registered_suids, suid);
        }
        {
            kivhal::lock_guard lock(_s_mutex);
            remove_newest(_pending_resp_suids, suid);
        }
        ducto_error_handler(result);
        throw ducto_error(result, "ducto_write failed");
    }
    if (elapsed > kSlowWriteNs) {
        KIV_LOGI("TAV_DUCTO_int conn = 0x%llx time taken to complete ducto_write is %lf secs",
                 conn_id(this), static_cast<double>(elapsed) / kNsPerSecond);
    }
    return 0;
}
