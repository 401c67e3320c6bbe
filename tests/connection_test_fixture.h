#pragma once

// Shared set-up of the connection tests: a fresh root with wake-lock files, a
// core stand-in on the channel and helpers to observe callbacks.

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core_stub.h"
#include "kiv_log.h"
#include "kivhal/host.h"
#include "tav_ducto.h"
#include "test_support.h"

namespace kivhal {
namespace test {

constexpr char kChannel[] = "sensors";
constexpr std::chrono::milliseconds kWait(2000);
constexpr sensor_uid kAccel{0x1111, 0xa1};
constexpr sensor_uid kGyro{0x2222, 0xb2};

// Polls `condition` until it holds or `timeout` passes.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds timeout = kWait) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// What a sensor's callbacks received, in order. The callbacks share the
// record, so they stay valid if the connection outlives this object.
class callback_log {
public:
    struct event {
        std::string data;
        uint64_t timestamp;
    };

    tav_resp_cb response_cb() {
        std::shared_ptr<state> s = _state;
        return [s](uint32_t result, uint64_t client_id) {
            std::lock_guard<std::mutex> lock(s->mutex);
            s->responses.emplace_back(result, client_id);
            s->changed.notify_all();
        };
    }
    tav_event_cb event_cb() {
        std::shared_ptr<state> s = _state;
        return [s](const uint8_t* data, uint32_t len, uint64_t timestamp) {
            std::lock_guard<std::mutex> lock(s->mutex);
            s->events.push_back({std::string(reinterpret_cast<const char*>(data), len), timestamp});
            s->changed.notify_all();
        };
    }
    bool wait_events(size_t count) {
        std::unique_lock<std::mutex> lock(_state->mutex);
        return _state->changed.wait_for(lock, kWait, [&] { return _state->events.size() >= count; });
    }
    bool wait_responses(size_t count) {
        std::unique_lock<std::mutex> lock(_state->mutex);
        return _state->changed.wait_for(lock, kWait,
                                        [&] { return _state->responses.size() >= count; });
    }
    std::vector<event> events() {
        std::lock_guard<std::mutex> lock(_state->mutex);
        return _state->events;
    }
    std::vector<std::pair<uint32_t, uint64_t>> responses() {
        std::lock_guard<std::mutex> lock(_state->mutex);
        return _state->responses;
    }

private:
    struct state {
        std::mutex mutex;
        std::condition_variable changed;
        std::vector<event> events;
        std::vector<std::pair<uint32_t, uint64_t>> responses;
    };
    std::shared_ptr<state> _state = std::make_shared<state>();
};

class connection_test : public ::testing::Test {
protected:
    void SetUp() override {
        host::clear_captured_log();
        root.write_file("/sys/power/wake_lock", "");
        root.write_file("/sys/power/wake_unlock", "");
        core = std::make_unique<core_stub>(kChannel);
    }
    void TearDown() override {
        conn.reset();
        core.reset();
        host::clear_channel_hooks();
    }

    void connect() {
        conn.reset(tav_interface::create(TAV_DUCTO_CONNECTION, tav_conn_config{kChannel}));
        ASSERT_TRUE(core->wait_connected(kWait));
    }
    tav_ducto* ducto() { return static_cast<tav_ducto*>(conn.get()); }

    int register_sensor(sensor_uid suid, callback_log& log) {
        return conn->register_cb(suid, log.response_cb(), nullptr, log.event_cb());
    }
    // An encoded request envelope for `suid` with message id `msg_id`.
    static std::string request_payload(sensor_uid suid, uint32_t msg_id) {
        sns_client_request_msg request;
        request.mutable_suid()->set_uidlow(suid.low);
        request.mutable_suid()->set_uidhigh(suid.high);
        request.set_msg_id(msg_id);
        request.mutable_request()->set_payload("body");
        return request.SerializeAsString();
    }
    void send(sensor_uid suid, uint32_t msg_id, int session_id = 0) {
        conn->send_request(suid, true, request_payload(suid, msg_id), session_id);
    }

    scoped_root root;  // first: the stand-in binds under it
    std::unique_ptr<core_stub> core;
    std::unique_ptr<tav_interface> conn;
};

}  // namespace test
}  // namespace kivhal
