#include "soak_client.h"

#include <chrono>
#include <thread>

#include "kiv_sensor_factory.h"
#include "sns_client.pb.h"
#include "sns_msg_ids.h"
#include "sns_suid.pb.h"
#include "tool_cli.h"

namespace kivhal {
namespace tools {

namespace {

// Any request but attributes and disable starts the simulator streaming.
constexpr uint32_t kEnableRequestMsgId = 513;
constexpr int kSession = 0;
constexpr std::chrono::seconds kAnswerWait{10};
constexpr std::chrono::milliseconds kRemovalPoll{1};

}  // namespace

soak_client::soak_client(const std::string& channel)
    : _conn(static_cast<tav_ducto*>(
          tav_interface::create(TAV_DUCTO_CONNECTION, tav_conn_config{channel.c_str()}))) {}

void soak_client::start(const std::vector<std::string>& streamed,
                        const std::vector<std::string>& replay_only) {
    std::vector<std::string> all = streamed;
    all.insert(all.end(), replay_only.begin(), replay_only.end());
    look_up(all);
    for (const std::string& type : replay_only) register_sensor(found(type), &_replayed);
    for (const std::string& type : streamed) {
        const sensor_uid suid = found(type);
        register_sensor(suid, &_delivered);
        send(suid, kEnableRequestMsgId);
        _streams.push_back(suid);
    }
}

void soak_client::cycle() {
    if (_streams.empty()) return;
    const sensor_uid suid = _streams[_next++ % _streams.size()];
    disable_and_wait(suid);
    register_sensor(suid, &_delivered);
    send(suid, kEnableRequestMsgId);
}

void soak_client::stop() {
    for (const sensor_uid& suid : _streams) disable_and_wait(suid);
}

void soak_client::look_up(const std::vector<std::string>& types) {
    _conn->register_cb(
        lookupSuid, nullptr, nullptr,
        [this](const uint8_t* data, uint32_t len, uint64_t) { on_lookup_event(data, len); });
    for (const std::string& type : types) {
        sns_suid_req request;
        request.set_datatypename(type);
        send(lookupSuid, msg::LOOKUP_REQUEST, request.SerializeAsString());
    }
    kivhal::unique_lock lock(_mutex);
    _answered.wait_for(lock.native(), kAnswerWait, [&]() REQUIRES(_mutex) {
        for (const std::string& type : types) {
            if (_found.count(type) == 0) return false;
        }
        return true;
    });
}

void soak_client::on_lookup_event(const uint8_t* data, uint32_t len) {
    sns_client_event_msg message;
    if (!message.ParseFromArray(data, static_cast<int>(len))) return;
    for (const auto& event : message.eventlist()) {
        sns_suid_event answer;
        if (event.msg_id() != msg::LOOKUP_EVENT || !answer.ParseFromString(event.payload()) ||
            answer.suids_size() == 0) {
            continue;
        }
        kivhal::lock_guard lock(_mutex);
        _found[answer.datatypename()] = {answer.suids(0).uidlow(), answer.suids(0).uidhigh()};
        _answered.notify_all();
    }
}

sensor_uid soak_client::found(const std::string& type) {
    kivhal::lock_guard lock(_mutex);
    auto it = _found.find(type);
    if (it == _found.end()) throw tool_error("the core did not look up sensor type " + type);
    return it->second;
}

void soak_client::register_sensor(sensor_uid suid, std::atomic<uint64_t>* counter) {
    const auto count = [counter](const uint8_t*, uint32_t, uint64_t) {
        counter->fetch_add(1, std::memory_order_relaxed);
    };
    if (_conn->register_cb(suid, nullptr, nullptr, count) != 0) {
        throw tool_error("a sensor was still registered after its disable was answered");
    }
}

void soak_client::send(sensor_uid suid, uint32_t msg_id, const std::string& payload) {
    sns_client_request_msg request;
    request.mutable_suid()->set_uidlow(suid.low);
    request.mutable_suid()->set_uidhigh(suid.high);
    request.set_msg_id(msg_id);
    request.mutable_request()->set_payload(payload);
    _conn->send_request(suid, true, request.SerializeAsString(), kSession);
}

// The registration goes when the disable's answer has been handled, after the
// sensor's last report.
void soak_client::disable_and_wait(sensor_uid suid) {
    send(suid, msg::DISABLE_REQUEST);
    const auto deadline = std::chrono::steady_clock::now() + kAnswerWait;
    while (_conn->get_clientreq_id(suid) != 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            throw tool_error("no answer to a disable request within 10 s");
        }
        std::this_thread::sleep_for(kRemovalPoll);
    }
}

}  // namespace tools
}  // namespace kivhal
