// Low-power-state indications: the session table, the aggregate and the
// power-state service's wake lock, over a live connection and at the client.
#include "connection_test_fixture.h"
#include "fake_power_state_service.h"
#include "kivhal/power_state_service_registry.h"
#include "sns_low_power_state_handler.h"

namespace kivhal {
namespace test {
namespace {

using handler = sns_low_power_state_handler;
constexpr auto kOff = SNS_LOW_POWER_STATE_OFF;
constexpr auto kOn = SNS_LOW_POWER_STATE_ON;

class low_power_test : public connection_test {
protected:
    void SetUp() override {
        connection_test::SetUp();
        host::set_property("persist.vendor.kiv.ds", "true");
    }
    void TearDown() override {
        connection_test::TearDown();
        host::clear_power_state_services();
    }
    // A connection whose table holds sessions 3 and 5.
    void connect_with_sessions() {
        ASSERT_NO_FATAL_FAILURE(connect());
        ASSERT_EQ(0, register_sensor(kAccel, accel));
        send(kAccel, 513, 3);
        send(kAccel, 513, 5);
        ASSERT_TRUE(core->wait_for_requests(2, kWait));
    }
    void handle(uint8_t msg_id, uint8_t session_id) {
        sns_aon_client_low_pwr_state_ind_msg_v01 msg = {};
        msg.lps_msg_id = msg_id;
        msg.lps_session_id = session_id;
        ducto()->tav_handle_low_power_state_msg(&msg);
    }
    std::string sessions() {
        const std::string dump = dump_of(*conn);
        const size_t at = dump.find("  low-power sessions:");
        return dump.substr(at, dump.find("  wake lock") - at);
    }
};

TEST_F(low_power_test, MissingServiceIsRetriedAndASessionLeavingLowPowerHoldsTheWakeLock) {
    ASSERT_NO_FATAL_FAILURE(connect_with_sessions());
    ASSERT_TRUE(core->send_packet(core_stub::make_low_power_state(kOff, 5)));
    ASSERT_TRUE(eventually([&] { return sessions().find("session 5: off") != std::string::npos; }));

    auto service = fake_power_state_service::register_default();
    ASSERT_TRUE(core->send_packet(core_stub::make_low_power_state(kOff, 5)));
    ASSERT_TRUE(eventually([&] { return service->acquires == 1; }));
    ASSERT_TRUE(core->send_packet(core_stub::make_low_power_state(kOn, 5)));
    ASSERT_TRUE(eventually([&] { return service->releases == 1; }));
    EXPECT_EQ("  low-power sessions: 2, aggregate on\n    session 3: on\n    session 5: on\n", sessions());
    EXPECT_EQ(1, service->registrations);
    EXPECT_EQ(1, service->acquires);
}

TEST_F(low_power_test, AggregateIsOffWhileAnyKnownSessionIsOffAndOtherMessagesChangeNothing) {
    auto service = fake_power_state_service::register_default();
    ASSERT_NO_FATAL_FAILURE(connect_with_sessions());
    handle(kOff, 9);  // unknown session: not added, nothing else happens
    EXPECT_EQ(1u, log_lines_containing("SNS_LOW_PWR_STATE_MSG invalid lps_session_id", ANDROID_LOG_ERROR).size());
    handle(3, 5);  // unknown message id
    EXPECT_THAT(sessions(), HasSubstr("sessions: 2, aggregate on\n"));
    EXPECT_EQ(0, service->acquires);

    handle(kOff, 3);
    handle(kOff, 5);
    handle(kOn, 5);  // 3 still needs the processor
    EXPECT_THAT(sessions(), HasSubstr("aggregate off\n"));
    EXPECT_EQ(1, service->acquires);
    EXPECT_EQ(0, service->releases);
    handle(kOn, 3);
    EXPECT_THAT(sessions(), HasSubstr("aggregate on\n"));
    EXPECT_EQ(1, service->releases);
}

TEST_F(low_power_test, SensorStoreSwitchedOffDropsEveryMessage) {
    host::set_property("persist.vendor.kiv.ds", "false");
    auto service = fake_power_state_service::register_default();
    ASSERT_NO_FATAL_FAILURE(connect_with_sessions());
    for (uint8_t id : {0, 1, 2}) handle(id, 5);
    EXPECT_EQ(3u, log_lines_containing("TAV_DUCTO_int DS is not supported", ANDROID_LOG_ERROR).size());
    EXPECT_THAT(sessions(), HasSubstr("session 5: on\n"));
    EXPECT_EQ(0, service->registrations);
}

TEST_F(low_power_test, ClientRegistersUntilAcceptedAndSendsEachWakeLockChangeOnceItSucceeds) {
    auto service = fake_power_state_service::register_default();
    service->registration_accepted = false;
    EXPECT_EQ(nullptr, handler::get_sns_low_power_state_handler());
    service->registration_accepted = true;
    handler* instance = handler::get_sns_low_power_state_handler();
    ASSERT_NE(nullptr, instance);
    EXPECT_EQ(instance, handler::get_sns_low_power_state_handler());
    EXPECT_EQ(2, service->registrations);
    // The service keeps the callback; it ignores every event.
    auto callback = service->registered_callback();
    ASSERT_NE(nullptr, callback);
    EXPECT_TRUE(callback->notifyDeepSleepEvent(1).isOk());
    EXPECT_TRUE(callback->notifyHibernateEvent(0).isOk());

    handler::release_wakelock();  // nothing held: nothing sent
    EXPECT_TRUE(handler::acquire_wakelock());
    EXPECT_TRUE(handler::acquire_wakelock());
    handler::release_wakelock();
    handler::release_wakelock();
    EXPECT_EQ(1, service->acquires);
    EXPECT_EQ(1, service->releases);
    EXPECT_EQ("MRSENSORS_KIV;MRSENSORS_KIV;MRSENSORS_KIV;MRSENSORS_KIV;", service->client_names());

    // A failed call leaves the client's flag as it was, so the next is sent again.
    service->wakelock_calls_fail = true;
    EXPECT_FALSE(handler::acquire_wakelock());
    service->wakelock_calls_fail = false;
    EXPECT_TRUE(handler::acquire_wakelock());
    EXPECT_EQ(3, service->acquires);
    service->wakelock_calls_fail = true;
    handler::release_wakelock();
    service->wakelock_calls_fail = false;
    handler::release_wakelock();
    handler::release_wakelock();
    EXPECT_EQ(3, service->releases);
}

}  // namespace
}  // namespace test
}  // namespace kivhal
