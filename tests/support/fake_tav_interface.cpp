#include "fake_tav_interface.h"

#include <stdexcept>

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

void fake_tav_interface::stop() {
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _stopping = true;
        _queue.clear();
    }
    _wake.notify_all();
    if (_thread.joinable()) _thread.join();
}

int fake_tav_interface::register_cb(sensor_uid suid, tav_resp_cb, tav_error_cb, tav_event_cb event_cb) {
    std::lock_guard<std::mutex> lock(_mutex);
    _callbacks[suid] = std::move(event_cb);
    return 0;
}

int fake_tav_interface::send_request(sensor_uid suid, bool flag, std::string payload, int session_id) {
    fake_request request{suid, flag, session_id, {}, {}, {}};
    const std::string* inner = request.envelope.ParseFromString(payload)
                                   ? &request.envelope.request().payload()
                                   : nullptr;
    const bool decoded = inner && (suid == kLookupSuid ? request.lookup.ParseFromString(*inner)
                                                       : request.attr.ParseFromString(*inner));
    if (!decoded) throw std::runtime_error("fake core: undecodable request");
    std::lock_guard<std::mutex> lock(_mutex);
    _requests.push_back(request);
    auto callback = _callbacks.find(suid);
    if (callback == _callbacks.end() || !callback->second) return 0;
    std::string event = answer(request);
    if (request.msg_id() == kDisableRequestMsgId) {
        _callbacks.erase(callback);
    } else if (!event.empty() && _holding && request.msg_id() == kAttributeRequestMsgId) {
        _held.emplace_back(callback->second, std::move(event));
    } else if (!event.empty()) {
        _queue.emplace_back(callback->second, std::move(event));
        _wake.notify_all();
    }
    return 0;
}

std::string fake_tav_interface::answer(const fake_request& request) const {
    if (request.suid == kLookupSuid && request.msg_id() == kLookupRequestMsgId) {
        auto type = _sensor_types.find(request.lookup.datatypename());
        return type == _sensor_types.end() ? "" : make_lookup_event(type->first, type->second);
    }
    if (request.msg_id() != kAttributeRequestMsgId || !_with_attributes.count(request.suid)) return "";
    return make_event_msg(request.suid, {{kAttributeEventMsgId, sns_std_attr_event().SerializeAsString()}});
}

void fake_tav_interface::add_sensor_type(const std::string& data_type, std::vector<sensor_uid> suids,
                                         bool attributes) {
    std::lock_guard<std::mutex> lock(_mutex);
    if (attributes) _with_attributes.insert(suids.begin(), suids.end());
    _sensor_types[data_type] = std::move(suids);
}

std::vector<fake_request> fake_tav_interface::requests() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _requests;
}

void fake_tav_interface::hold_attribute_answers() {
    std::lock_guard<std::mutex> lock(_mutex);
    _holding = true;
}

void fake_tav_interface::deliver_held_answers() {
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _holding = false;
        for (auto& answer : _held) _queue.push_back(std::move(answer));
        _held.clear();
    }
    _wake.notify_all();
}

void fake_tav_interface::run() {
    std::unique_lock<std::mutex> lock(_mutex);
    while (true) {
        _wake.wait(lock, [this] { return _stopping || !_queue.empty(); });
        if (_stopping) return;
        auto [callback, event] = std::move(_queue.front());
        _queue.pop_front();
        _delivering = true;
        lock.unlock();
        callback(reinterpret_cast<const uint8_t*>(event.data()), static_cast<uint32_t>(event.size()), 0);
        lock.lock();
        _delivering = false;
        _wake.notify_all();
    }
}

void fake_tav_interface::wait_idle(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(_mutex);
    _wake.wait_for(lock, timeout, [this] { return _stopping || (_queue.empty() && !_delivering); });
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
