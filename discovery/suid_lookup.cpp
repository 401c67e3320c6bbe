#include <pthread.h>

#include <climits>

#include "discovery_util.h"
#include "kiv_log.h"
#include "kiv_sensor_factory.h"
#include "mandatory_list.h"
#include "sns_client.pb.h"
#include "sns_msg_ids.h"
#include "sns_suid.pb.h"

using kivhal::discovery::steady_now_ns;

namespace {

constexpr int kSessionId = 0;
constexpr const char* kRegistrySensorType = "registry";

sensor_uid to_sensor_uid(const sns_std_suid& suid) {
    return sensor_uid{suid.uidlow(), suid.uidhigh()};
}

// The connection hands over whole messages; a length protobuf cannot take is
// not one of them. Logged for the handler `op`.
bool parse_event_msg(const uint8_t* data, uint32_t length, sns_client_event_msg& msg,
                     kiv_log_op op) {
    if (length > static_cast<uint32_t>(INT_MAX) || (data == nullptr && length != 0)) {
        KIV_LOGE_FOR(op, "dropping event message of length %u", length);
        return false;
    }
    msg.ParseFromArray(data, static_cast<int>(length));
    return true;
}

}  // namespace

void kiv_sensor_factory::request_suid(std::string datatype, bool disable, bool lookupOption) {
    KIV_LOGV("requesting suid for %s", datatype.c_str());

    sns_suid_req lookup;
    lookup.set_datatypename(datatype);
    lookup.set_streamupdates(true);
    lookup.set_lookupoption(lookupOption);
    std::string lookup_payload;
    lookup.SerializeToString(&lookup_payload);

    sns_client_request_msg envelope;
    envelope.set_msg_id(disable ? kivhal::msg::DISABLE_REQUEST : kivhal::msg::LOOKUP_REQUEST);
    envelope.mutable_request()->set_payload(lookup_payload);
    envelope.mutable_suid()->set_uidlow(lookupSuid.low);
    envelope.mutable_suid()->set_uidhigh(lookupSuid.high);
    envelope.mutable_suspendconfig()->set_processorkind(kivhal::msg::PROCESSOR_KIND);
    envelope.mutable_suspendconfig()->set_deliverymode(kivhal::msg::DELIVERY_MODE);
    std::string encoded;
    envelope.SerializeToString(&encoded);

    tavInterface->send_request(lookupSuid, true, encoded, kSessionId);
}

void kiv_sensor_factory::registry_lookup_callback(const uint8_t* data, uint32_t length,
                                                  uint64_t /*timestamp*/) {
    kivhal::pthread_lock(&registryMutex);
    sns_client_event_msg msg;
    if (parse_event_msg(data, length, msg, KIV_LOG_OP)) {
        for (const auto& event : msg.eventlist()) {
            if (event.msg_id() != kivhal::msg::LOOKUP_EVENT) {
                KIV_LOGE("invalid event msg_id=%d", event.msg_id());
                continue;
            }
            sns_suid_event lookup;
            lookup.ParseFromString(event.payload());
            KIV_LOGV("suid_event for %s, num_suids=%d", lookup.datatypename().c_str(),
                     lookup.suids_size());
            if (lookup.suids_size() >= 1 && lookup.datatypename() == kRegistrySensorType) {
                registryUp = true;
            }
        }
    }
    // Every message wakes the waiter, whatever it held.
    pthread_cond_signal(&registryWait);
    kivhal::pthread_unlock(&registryMutex);
}

void kiv_sensor_factory::default_suids_lookup_callback(const uint8_t* data, uint32_t length,
                                                       uint64_t /*timestamp*/) {
    sns_client_event_msg msg;
    if (!parse_event_msg(data, length, msg, KIV_LOG_OP) || msg.eventlist_size() == 0) {
        return;
    }
    for (const auto& event : msg.eventlist()) {
        if (event.msg_id() != kivhal::msg::LOOKUP_EVENT) {
            KIV_LOGE("invalid event msg_id=%d", event.msg_id());
            continue;
        }
        sns_suid_event lookup;
        lookup.ParseFromString(event.payload());
        KIV_LOGV("suid_event for %s, num_suids=%d", lookup.datatypename().c_str(),
                 lookup.suids_size());
        std::vector<sensor_uid> suids;
        suids.reserve(lookup.suids_size());
        for (const sns_std_suid& suid : lookup.suids()) {
            suids.push_back(to_sensor_uid(suid));
        }
        handle_suids_lookup_callback(lookup.datatypename(), suids);
    }
}

void kiv_sensor_factory::handle_suids_lookup_callback(const std::string& datatype,
                                                      const std::vector<sensor_uid>& suids) {
    if (suids.empty()) {
        return;
    }
    kivhal::lock_guard lock(discoveryMutex);
    suidMap[datatype] = suids;
    update_mandatory_list_database(datatype);
    if (laterBoot) {
        kivhal::discovery::mark_mandatory_found(datatype);
    }
    lastSuidTime = steady_now_ns();
    KIV_LOGV("received suid for dt=%s", datatype.c_str());
}

sensor_uid kiv_sensor_factory::get_suids(const std::string& datatype) const {
    kivhal::lock_guard lock(discoveryMutex);
    auto it = suidMap.find(datatype);
    if (it == suidMap.end() || it->second.empty()) {
        return sensor_uid{0, 0};
    }
    return it->second.front();
}
