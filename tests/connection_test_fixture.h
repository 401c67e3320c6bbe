#pragma once

// Shared set-up of the tests that run over a live connection: a fresh root
// with wake-lock files, a core stand-in on the channel, recorders for two
// sensors, and helpers to build requests and read the dump.

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <gmock/gmock.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <functional>
#include <memory>
#include <thread>

#include "core_stub.h"
#include "event_recorder.h"
#include "kiv_log.h"
#include "kivhal/host.h"
#include "sensorstore_image.h"
#include "tav_ducto.h"
#include "test_support.h"

namespace kivhal {
namespace test {

using ::testing::HasSubstr;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

constexpr char kChannel[] = "sensors";
constexpr std::chrono::milliseconds kWait(2000);
constexpr sensor_uid kAccel{0x1111, 0xa1};
constexpr sensor_uid kGyro{0x2222, 0xb2};

// A channel hook that fails its first `failures` calls with `error`, returning
// `result`, and passes later calls to `real`; `calls` counts them all.
template <typename Result, typename... Args>
std::function<Result(Args...)> failing(Result (*real)(Args...), int error, int failures = INT_MAX,
                                       typename std::common_type<Result>::type result = -1,
                                       std::shared_ptr<std::atomic<int>> calls = nullptr) {
    if (!calls) calls = std::make_shared<std::atomic<int>>(0);
    return [=](Args... args) {
        if ((*calls)++ >= failures) return real(args...);
        errno = error;
        return result;
    };
}

// What conn.dump() writes; far below a pipe's capacity.
inline std::string dump_of(tav_interface& conn) {
    android::base::unique_fd read_end, write_end;
    std::string text;
    if (!android::base::Pipe(&read_end, &write_end)) return "no pipe";
    conn.dump(write_end.get());
    write_end.reset();
    android::base::ReadFdToString(read_end, &text);
    return text;
}

class connection_test : public ::testing::Test {
  protected:
    void SetUp() override {
        kiv_log::set_level(kiv_log::VERBOSE);
        for (const char* file : {"/sys/power/wake_lock", "/sys/power/wake_unlock"})
            root.write_file(file, "");
        core = std::make_unique<core_stub>(kChannel);
    }
    void TearDown() override {
        conn.reset();
        core.reset();
        host::clear_channel_hooks();
        host::clear_properties();
    }

    void connect() {
        conn.reset(tav_interface::create(TAV_DUCTO_CONNECTION, tav_conn_config{kChannel}));
        ASSERT_TRUE(core->wait_connected(kWait));
    }
    tav_ducto* ducto() { return static_cast<tav_ducto*>(conn.get()); }
    // Low-power messages and the sensor store switched on, over an empty partition.
    void enable_sensor_store() {
        host::set_property("persist.vendor.kiv.ds", "true");
        host::set_property("persist.vendor.kiv.ds_oda", "true");
        sensorstore_image().write(root);
    }
    int register_sensor(sensor_uid suid, event_recorder& recorder) {
        return conn->register_cb(suid, recorder.response_callback(), nullptr, recorder.callback());
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
        EXPECT_EQ(0, conn->send_request(suid, true, request_payload(suid, msg_id), session_id));
    }

    scoped_root root;  // first: the stand-in binds under it
    std::unique_ptr<core_stub> core;
    event_recorder accel, gyro;  // before the connection, which calls into them
    std::unique_ptr<tav_interface> conn;
};

}  // namespace test
}  // namespace kivhal
