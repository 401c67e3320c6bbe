#include "fake_tav_interface.h"

#include <stdexcept>
#include <utility>

#include "kiv_sensor_factory.h"
#include "kiv_types.h"

namespace kivhal {
namespace test {

namespace {

constexpr uint32_t kLookupRequestMsgId = 512;
constexpr uint32_t kAttributeRequestMsgId = 1;
constexpr uint32_t kDisableRequestMsgId = 10;
constexpr uint32_t kLookupEventMsgId = 768;
constexpr uint32_t kAttributeEventMsgId = 128;

}  // namespace

int fake_tav_interface::register_cb(sensor_uid suid, tav_resp_cb, tav_error_cb,
                                    tav_event_cb event_cb) {
    _callbacks[suid] = std::move(event_cb);
    return 0;
}

int fake_tav_interface::send_request(sensor_uid suid, bool flag, std::string payload,
                                     int session_id) {
    fake_request request{suid, flag, session_id, {}, {}, {}};
    const std::string* inner =
        request.envelope.ParseFromString(payload) ? &request.envelope.request().payload() : nullptr;
    const bool decoded = inner && (suid == kLookupSuid ? request.lookup.ParseFromString(*inner)
                                                       : request.attr.ParseFromString(*inner));
    if (!decoded) throw std::runtime_error("fake core: undecodable request");
    _requests.push_back(request);
    auto callback = _callbacks.find(suid);
    if (callback == _callbacks.end() || !callback->second) return 0;
    std::string answer;
    if (request.msg_id() == kDisableRequestMsgId) {
        _callbacks.erase(callback);
    } else if (suid == kLookupSuid && request.msg_id() == kLookupRequestMsgId) {
        auto type = _sensor_types.find(request.lookup.datatypename());
        if (type != _sensor_types.end()) answer = make_lookup_event(type->first, type->second);
    } else if (request.msg_id() == kAttributeRequestMsgId && _with_attributes.count(suid)) {
        answer = make_event_msg(suid,
                                {{kAttributeEventMsgId, sns_std_attr_event().SerializeAsString()}});
    }
    if (!answer.empty()) {
        _held.emplace_back(callback->second, answer);  // the callback may register anew
        if (!hold_answers) deliver_held();
    }
    return 0;
}

void fake_tav_interface::deliver_held() {
    for (const auto& [deliver, answer] : std::exchange(_held, {})) {
        deliver(reinterpret_cast<const uint8_t*>(answer.data()),
                static_cast<uint32_t>(answer.size()), 0);
    }
}

void fake_tav_interface::add_sensor_type(const std::string& data_type,
                                         std::vector<sensor_uid> suids, bool attributes) {
    if (attributes) _with_attributes.insert(suids.begin(), suids.end());
    _sensor_types[data_type] = std::move(suids);
}

std::string fake_tav_interface::make_lookup_event(const std::string& data_type,
                                                  const std::vector<sensor_uid>& suids) {
    sns_suid_event lookup;
    lookup.set_datatypename(data_type);
    for (const sensor_uid& suid : suids) {
        sns_std_suid* out = lookup.add_suids();
        out->set_uidlow(suid.low);
        out->set_uidhigh(suid.high);
    }
    return make_event_msg(kLookupSuid, {{kLookupEventMsgId, lookup.SerializeAsString()}});
}

std::string fake_tav_interface::make_event_msg(
    sensor_uid suid, const std::vector<std::pair<uint32_t, std::string>>& events) {
    sns_client_event_msg msg;
    msg.mutable_suid()->set_uidlow(suid.low);
    msg.mutable_suid()->set_uidhigh(suid.high);
    for (const auto& [msg_id, payload] : events) {
        auto* event = msg.add_eventlist();
        event->set_msg_id(msg_id);
        event->set_payload(payload);
    }
    return msg.SerializeAsString();
}

void reset_discovery_state() {
    kivhal::lock_guard lock(discoveryMutex);
    kiv_sensor_factory::tavInterface = nullptr;
    mandatorySensors.clear();
    mandatoryFound.clear();
    num_mandatory_sns = 0;
    allMandatoryFound = false;
    vendor::zep::hardware::kiv_types::dataTypeMap.clear();
    vendor::zep::hardware::kiv_types::exerTypeMap.clear();
}

}  // namespace test
}  // namespace kivhal
