#include "fake_tav_interface.h"

#include <algorithm>
#include <stdexcept>

#include "kiv_sensor_factory.h"
#include "kiv_types.h"

namespace kivhal {
namespace test {

namespace {

sns_std_suid to_std_suid(sensor_uid suid) {
    sns_std_suid out;
    out.set_uidlow(suid.low);
    out.set_uidhigh(suid.high);
    return out;
}

}  // namespace

bool fake_request::to_lookup_service() const {
    return suid == fake_tav_interface::lookup_suid();
}

fake_tav_interface::fake_tav_interface() : _thread([this] { run(); }) {}

fake_tav_interface::~fake_tav_interface() {
    stop();
}

void fake_tav_interface::stop() {
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _stopping = true;
        _queue.clear();
    }
    _wake.notify_all();
    _idle.notify_all();
    if (_thread.joinable()) _thread.join();
}

int fake_tav_interface::register_cb(sensor_uid suid, tav_resp_cb resp_cb, tav_error_cb error_cb,
                                    tav_event_cb event_cb) {
    std::lock_guard<std::mutex> lock(_mutex);
    fake_registration record{suid, 0, static_cast<bool>(resp_cb), static_cast<bool>(error_cb),
                             static_cast<bool>(event_cb)};
    auto known = std::find_if(_callbacks.begin(), _callbacks.end(),
                              [&](const auto& entry) { return entry.first == suid; });
    if (known != _callbacks.end()) {
        record.result = -1;
    } else {
        _callbacks.emplace_back(suid, tav_register_cb(std::move(resp_cb), std::move(error_cb),
                                                      std::move(event_cb)));
    }
    _registrations.push_back(record);
    return record.result;
}

int fake_tav_interface::send_request(sensor_uid suid, bool flag, std::string payload,
                                     int session_id) {
    fake_request request;
    request.suid = suid;
    request.flag = flag;
    request.session_id = session_id;
    request.sent = std::chrono::steady_clock::now();
    if (!request.envelope.ParseFromString(payload)) {
        throw std::runtime_error("fake core: undecodable request envelope");
    }
    if (request.to_lookup_service()) {
        request.lookup.ParseFromString(request.envelope.request().payload());
    } else {
        request.attr.ParseFromString(request.envelope.request().payload());
    }
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _requests.push_back(request);
        if (_throw_on != 0 && _requests.size() == _throw_on) {
            throw std::runtime_error("fake core: channel write failed");
        }
    }
    answer(request);
    return 0;
}

void fake_tav_interface::answer(const fake_request& request) {
    const uint32_t msg_id = request.msg_id();
    if (msg_id == kDisableRequestMsgId) {
        schedule({{}, 0, request.suid, {}, true});
        return;
    }
    if (request.to_lookup_service() && msg_id == kLookupRequestMsgId) {
        std::lock_guard<std::mutex> lock(_mutex);
        auto type = _sensor_types.find(request.lookup.datatypename());
        if (type == _sensor_types.end()) return;
        const bool early = ++type->second.lookups < type->second.answer_from;
        if (early && !type->second.empty_before) return;
        delivery item{std::chrono::steady_clock::now() + type->second.delay, 0, request.suid,
                      make_lookup_event(type->first, early ? std::vector<sensor_uid>{}
                                                           : type->second.suids),
                      false};
        item.sequence = _next_sequence++;
        _queue.push_back(std::move(item));
        _wake.notify_all();
        return;
    }
    if (!request.to_lookup_service() && msg_id == kAttributeRequestMsgId) {
        std::string encoded;
        {
            std::lock_guard<std::mutex> lock(_mutex);
            auto entry = std::find_if(_attributes.begin(), _attributes.end(),
                                      [&](const auto& e) { return e.first == request.suid; });
            if (entry == _attributes.end()) return;
            encoded = make_event_msg(request.suid,
                                     {{kAttributeEventMsgId, entry->second.SerializeAsString()}});
        }
        schedule({{}, 0, request.suid, std::move(encoded), false});
    }
}

void fake_tav_interface::add_sensor_type(const std::string& data_type,
                                         std::vector<sensor_uid> suids, int answer_from,
                                         std::chrono::milliseconds delay, bool empty_before) {
    std::lock_guard<std::mutex> lock(_mutex);
    sensor_type& type = _sensor_types[data_type];
    type.empty_before = empty_before;
    type.suids = std::move(suids);
    type.answer_from = answer_from;
    type.delay = delay;
}

void fake_tav_interface::set_attributes(sensor_uid suid, const sns_std_attr_event& attributes) {
    std::lock_guard<std::mutex> lock(_mutex);
    _attributes.emplace_back(suid, attributes);
}

void fake_tav_interface::throw_on_request(size_t n) {
    std::lock_guard<std::mutex> lock(_mutex);
    _throw_on = n;
}

void fake_tav_interface::deliver(sensor_uid suid, std::string encoded_event,
                                 std::chrono::milliseconds delay) {
    schedule({std::chrono::steady_clock::now() + delay, 0, suid, std::move(encoded_event), false});
}

void fake_tav_interface::schedule(delivery item) {
    std::lock_guard<std::mutex> lock(_mutex);
    if (item.due == std::chrono::steady_clock::time_point{}) {
        item.due = std::chrono::steady_clock::now();
    }
    item.sequence = _next_sequence++;
    _queue.push_back(std::move(item));
    _wake.notify_all();
}

std::vector<fake_request> fake_tav_interface::requests() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _requests;
}

std::vector<fake_registration> fake_tav_interface::registrations() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _registrations;
}

bool fake_tav_interface::is_registered(sensor_uid suid) const {
    std::lock_guard<std::mutex> lock(_mutex);
    return std::any_of(_callbacks.begin(), _callbacks.end(),
                       [&](const auto& entry) { return entry.first == suid; });
}

void fake_tav_interface::wait_idle() {
    std::unique_lock<std::mutex> lock(_mutex);
    _idle.wait(lock, [this] { return _stopping || (_queue.empty() && !_busy); });
}

void fake_tav_interface::run() {
    std::unique_lock<std::mutex> lock(_mutex);
    while (!_stopping) {
        if (_queue.empty()) {
            _idle.notify_all();
            _wake.wait(lock);
            continue;
        }
        auto next = std::min_element(_queue.begin(), _queue.end(), [](const auto& a, const auto& b) {
            return a.due != b.due ? a.due < b.due : a.sequence < b.sequence;
        });
        if (next->due > std::chrono::steady_clock::now()) {
            const auto due = next->due;  // the queue may grow while waiting
            _wake.wait_until(lock, due);
            continue;
        }
        delivery item = std::move(*next);
        _queue.erase(next);
        _busy = true;
        lock.unlock();
        perform(item);
        lock.lock();
        _busy = false;
    }
    _idle.notify_all();
}

void fake_tav_interface::perform(const delivery& item) {
    tav_event_cb callback;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        auto entry = std::find_if(_callbacks.begin(), _callbacks.end(),
                                  [&](const auto& e) { return e.first == item.suid; });
        if (entry == _callbacks.end()) return;
        if (item.unregister) {
            _callbacks.erase(entry);
            return;
        }
        callback = entry->second.event_cb;
    }
    if (callback) {
        callback(reinterpret_cast<const uint8_t*>(item.encoded_event.data()),
                 static_cast<uint32_t>(item.encoded_event.size()), 0);
    }
}

std::string fake_tav_interface::make_lookup_event(const std::string& data_type,
                                                  const std::vector<sensor_uid>& suids,
                                                  uint32_t msg_id) {
    sns_suid_event lookup;
    lookup.set_datatypename(data_type);
    for (const sensor_uid& suid : suids) *lookup.add_suids() = to_std_suid(suid);
    return make_event_msg(lookup_suid(), {{msg_id, lookup.SerializeAsString()}});
}

std::string fake_tav_interface::make_event_msg(
    sensor_uid suid, const std::vector<std::pair<uint32_t, std::string>>& events) {
    sns_client_event_msg msg;
    *msg.mutable_suid() = to_std_suid(suid);
    for (const auto& [msg_id, payload] : events) {
        auto* event = msg.add_eventlist();
        event->set_msg_id(msg_id);
        event->set_payload(payload);
    }
    return msg.SerializeAsString();
}

void reset_discovery_state() {
    std::lock_guard<std::mutex> lock(discoveryMutex);
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
