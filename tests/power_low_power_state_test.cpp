// Low-power-state indications over a live connection: the session table, the
// aggregate and the power-state service's wake lock.

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>

#include "core_stub.h"
#include "fake_power_state_service.h"
#include "kiv_log.h"
#include "kivhal/power_state_service_registry.h"
#include "sns_client.pb.h"
#include "tav_ducto.h"
#include "test_support.h"

namespace {

using kivhal::test::core_stub;
using kivhal::test::log_contains;
using kivhal::test::log_lines_containing;
using namespace std::chrono_literals;

constexpr char kChannel[] = "lps";
constexpr sensor_uid kSensor = {0x1111, 0x2222};
constexpr auto kWait = 5s;

bool wait_for_log(const std::string& needle, size_t count = 1) {
    const auto deadline = std::chrono::steady_clock::now() + kWait;
    while (log_lines_containing(needle).size() < count) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

sns_aon_client_low_pwr_state_ind_msg_v01 state_msg(uint8_t msg_id, uint8_t session_id) {
    sns_aon_client_low_pwr_state_ind_msg_v01 msg = {};
    msg.lps_msg_id = msg_id;
    msg.lps_session_id = session_id;
    return msg;
}

class LowPowerStateTest : public ::testing::Test {
protected:
    void SetUp() override {
        kiv_log::set_level(kiv_log::VERBOSE);
        kivhal::host::set_property("persist.vendor.kiv.ds", "true");
        _core = std::make_unique<core_stub>(kChannel);
    }

    void TearDown() override {
        _conn.reset();
        _core.reset();
        kivhal::host::clear_power_state_services();
        kivhal::host::clear_properties();
    }

    // A connection whose table holds sessions 3 and 5.
    void connect_with_sessions() {
        _conn = std::make_unique<tav_ducto>(tav_ducto_config{kChannel});
        ASSERT_EQ(_conn->register_cb(kSensor, nullptr, nullptr, nullptr), 0);
        sns_client_request_msg request;
        request.mutable_suid()->set_uidlow(kSensor.low);
        request.mutable_suid()->set_uidhigh(kSensor.high);
        request.set_msg_id(513);
        _conn->send_request(kSensor, false, request.SerializeAsString(), 3);
        _conn->send_request(kSensor, false, request.SerializeAsString(), 5);
        ASSERT_TRUE(_core->wait_for_requests(2, kWait));
        kivhal::host::clear_captured_log();
    }

    void handle(uint8_t msg_id, uint8_t session_id) {
        auto msg = state_msg(msg_id, session_id);
        _conn->tav_handle_low_power_state_msg(&msg);
    }

    kivhal::test::scoped_root _root;
    std::unique_ptr<core_stub> _core;
    std::unique_ptr<tav_ducto> _conn;
};

TEST_F(LowPowerStateTest, SessionLeavingLowPowerHoldsTheWakeLockUntilItReturns) {
    auto service = kivhal::test::register_fake_power_state_service();
    connect_with_sessions();

    ASSERT_TRUE(_core->send_packet(core_stub::make_low_power_state(SNS_LOW_POWER_STATE_OFF, 5)));
    ASSERT_TRUE(service->wait_for(1, 0, kWait));
    EXPECT_TRUE(log_contains("SNS_LOW_PWR_STATE_MSG lps_msg_id(0), lps_session_id(5)"));
    EXPECT_TRUE(log_contains("SNS_LOW_PWR_STATE_MSG aggregate lps(0)"));

    ASSERT_TRUE(_core->send_packet(core_stub::make_low_power_state(SNS_LOW_POWER_STATE_ON, 5)));
    ASSERT_TRUE(service->wait_for(1, 1, kWait));
    EXPECT_TRUE(log_contains("SNS_LOW_PWR_STATE_MSG aggregate lps(1)"));
    EXPECT_EQ(service->counts().registrations, 1);
    EXPECT_EQ(service->counts().acquires, 1);
}

TEST_F(LowPowerStateTest, OneSessionOffKeepsTheAggregateOff) {
    auto service = kivhal::test::register_fake_power_state_service();
    connect_with_sessions();

    handle(SNS_LOW_POWER_STATE_OFF, 3);
    handle(SNS_LOW_POWER_STATE_OFF, 5);
    handle(SNS_LOW_POWER_STATE_ON, 5);  // 3 still needs the processor
    EXPECT_EQ(log_lines_containing("aggregate lps(0)").size(), 3u);
    EXPECT_EQ(service->counts().releases, 0);
    // Repeated acquires reach the client; only the first reaches the service.
    EXPECT_EQ(log_lines_containing("acquire_wakelock _s_is_wakeock_acquired").size(), 3u);
    EXPECT_EQ(service->counts().acquires, 1);

    handle(SNS_LOW_POWER_STATE_ON, 3);
    EXPECT_EQ(service->counts().releases, 1);
}

TEST_F(LowPowerStateTest, UnknownSessionChangesNothing) {
    auto service = kivhal::test::register_fake_power_state_service();
    connect_with_sessions();

    handle(SNS_LOW_POWER_STATE_OFF, 9);
    const auto errors = log_lines_containing("SNS_LOW_PWR_STATE_MSG invalid lps_session_id");
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].priority, ANDROID_LOG_ERROR);
    EXPECT_FALSE(log_contains("aggregate lps"));
    EXPECT_EQ(service->counts().acquires, 0);

    // Session 9 was not added: all known sessions are still in low power.
    handle(SNS_LOW_POWER_STATE_ON, 3);
    EXPECT_TRUE(log_contains("aggregate lps(1)"));
}

TEST_F(LowPowerStateTest, UnknownMessageIdIsOnlyLogged) {
    auto service = kivhal::test::register_fake_power_state_service();
    connect_with_sessions();

    handle(3, 5);
    const auto lines = log_lines_containing("SNS_LOW_PWR_STATE_MSG invalid message id(3)");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, ANDROID_LOG_DEBUG);
    EXPECT_FALSE(log_contains("aggregate lps"));
    EXPECT_EQ(service->counts().acquires + service->counts().releases, 0);
}

TEST_F(LowPowerStateTest, SensorStoreSwitchedOffDropsEveryMessage) {
    kivhal::host::set_property("persist.vendor.kiv.ds", "false");
    auto service = kivhal::test::register_fake_power_state_service();
    connect_with_sessions();

    for (uint8_t id : {0, 1, 2}) handle(id, 5);
    const auto errors = log_lines_containing("TAV_DUCTO_int DS is not supported");
    ASSERT_EQ(errors.size(), 3u);
    EXPECT_EQ(errors[0].priority, ANDROID_LOG_ERROR);
    EXPECT_FALSE(log_contains("lps_msg_id"));
    EXPECT_EQ(service->counts().registrations, 0);
    EXPECT_EQ(service->counts().acquires, 0);
}

TEST_F(LowPowerStateTest, MissingServiceIsRetriedOnTheNextMessage) {
    connect_with_sessions();

    ASSERT_TRUE(_core->send_packet(core_stub::make_low_power_state(SNS_LOW_POWER_STATE_OFF, 5)));
    ASSERT_TRUE(wait_for_log("SNS_LOW_PWR_STATE_MSG aggregate lps(0)"));
    EXPECT_TRUE(log_contains("SNS_LOW_PWR_STATE_MSG: getService FAILED: received null"));
    EXPECT_FALSE(log_contains("acquire_wakelock"));

    auto service = kivhal::test::register_fake_power_state_service();
    ASSERT_TRUE(_core->send_packet(core_stub::make_low_power_state(SNS_LOW_POWER_STATE_OFF, 5)));
    ASSERT_TRUE(service->wait_for(1, 0, kWait));
    EXPECT_EQ(service->counts().registrations, 1);
    EXPECT_EQ(log_lines_containing("getService FAILED").size(), 1u);
}

TEST_F(LowPowerStateTest, WriteInfoWithoutOnDeviceAnalysisOnlyLogsTheCounts) {
    connect_with_sessions();

    auto msg = state_msg(SNS_LOW_POWER_WRITE_INFO, 0);
    msg.write_info.total_byte_count = 108;
    msg.write_info.shmem_byte_count = 8;
    _conn->tav_handle_low_power_state_msg(&msg);
    EXPECT_TRUE(log_contains("SNS_LOW_PWR_STATE_MSG received SNS_LOW_POWER_WRITE_INFO"));
    EXPECT_TRUE(log_contains("total_byte_count=108 shmem_byte_count=8"));
    EXPECT_FALSE(log_contains("TAV_SENSORSTORE"));
}

}  // namespace
