// Responses matched to requests, and the life of a registration and its
// client request id.
#include "connection_test_fixture.h"

namespace kivhal {
namespace test {
namespace {

constexpr uint32_t kLookup = 512;
constexpr uint32_t kDisable = 10;
constexpr int kMaxClients = 255;

sensor_uid nth_sensor(int n) { return {static_cast<uint64_t>(n) + 1, 0x5e}; }

uint8_t client_id_of_last_request(core_stub& core, size_t expected_count) {
    EXPECT_TRUE(core.wait_for_requests(expected_count, kWait));
    return core.requests().back().client_req_id;
}

TEST_F(connection_test, ResponsesGoToTheOldestPendingRequestsSensor) {
    connect();
    callback_log accel, gyro;
    ASSERT_EQ(0, register_sensor(kAccel, accel));
    ASSERT_EQ(0, register_sensor(kGyro, gyro));

    send(kAccel, kLookup);
    send(kGyro, kLookup);
    send(kAccel, kLookup);
    ASSERT_TRUE(core->wait_for_requests(3, kWait));
    core->send_response({true, 7, true, 70});
    core->send_response({true, 8, true, 80});
    core->send_response({true, 9, true, 90});

    ASSERT_TRUE(accel.wait_responses(2));
    ASSERT_TRUE(gyro.wait_responses(1));
    using pair = std::pair<uint32_t, uint64_t>;
    EXPECT_EQ((std::vector<pair>{{70, 7}, {90, 9}}), accel.responses());
    EXPECT_EQ((std::vector<pair>{{80, 8}}), gyro.responses());
}

TEST_F(connection_test, ResponseWithAFlagClearedConsumesTheRequestSilently) {
    connect();
    callback_log accel, gyro;
    ASSERT_EQ(0, register_sensor(kAccel, accel));
    ASSERT_EQ(0, register_sensor(kGyro, gyro));

    send(kAccel, kLookup);  // client-id flag (body offset 4) clear
    send(kAccel, kLookup);  // result flag (body offset 14) clear
    send(kGyro, kLookup);
    ASSERT_TRUE(core->wait_for_requests(3, kWait));
    core->send_response({false, 1, true, 1});
    core->send_response({true, 2, false, 2});
    core->send_response({true, 3, true, 3});

    ASSERT_TRUE(gyro.wait_responses(1));
    EXPECT_EQ(3u, gyro.responses()[0].second);
    EXPECT_TRUE(accel.responses().empty());
}

TEST_F(connection_test, ResponseWithNothingPendingChangesNothing) {
    connect();
    callback_log accel;
    ASSERT_EQ(0, register_sensor(kAccel, accel));

    core->send_response({true, 1, true, 1});
    // Packets are handled in order: once the report is in, so was the response.
    core->send_event(core_stub::make_event(kAccel, 1, "x"));
    ASSERT_TRUE(accel.wait_events(1));
    send(kAccel, kLookup);
    ASSERT_TRUE(core->wait_for_requests(1, kWait));
    core->send_response({true, 2, true, 2});

    ASSERT_TRUE(accel.wait_responses(1));
    EXPECT_EQ(2u, accel.responses()[0].second);
    EXPECT_EQ(1u, accel.responses().size());
}

TEST_F(connection_test, RegistrationEndsOnlyWhenADisableRequestIsAnswered) {
    connect();
    callback_log accel, again;
    ASSERT_EQ(0, register_sensor(kAccel, accel));

    send(kAccel, kLookup);
    core->send_response({});
    // The answer is fully handled once a later report is delivered.
    core->send_event(core_stub::make_event(kAccel, 1, "x"));
    ASSERT_TRUE(accel.wait_events(1));
    EXPECT_EQ(1u, accel.responses().size());
    EXPECT_EQ(-1, register_sensor(kAccel, again)) << "an ordinary answer ended the registration";

    send(kAccel, kDisable);
    ASSERT_TRUE(core->wait_for_requests(2, kWait));
    EXPECT_EQ(-1, register_sensor(kAccel, again)) << "ended before the answer";
    core->send_response({});
    ASSERT_TRUE(accel.wait_responses(2));

    ASSERT_TRUE(eventually([&] { return ducto()->get_clientreq_id(kAccel) == 0; }));
    EXPECT_THROW(send(kAccel, kLookup), ducto_error);
    EXPECT_EQ(0, register_sensor(kAccel, again));
}

TEST_F(connection_test, TheTwoHundredFiftySixthRegistrationIsRefused) {
    connect();
    callback_log log;
    for (int i = 0; i < kMaxClients; ++i) ASSERT_EQ(0, register_sensor(nth_sensor(i), log));
    try {
        register_sensor(nth_sensor(kMaxClients), log);
        FAIL() << "256 sensors registered";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ("TAV_DUCTO exceeded maximum number of ducto clients", e.what());
    }
}

TEST_F(connection_test, FreedIdIsReusedOnlyAfterEveryNeverUsedId) {
    connect();
    core->set_auto_respond(true);
    callback_log log;
    ASSERT_EQ(0, register_sensor(nth_sensor(0), log));  // id 1
    ASSERT_EQ(0, register_sensor(nth_sensor(1), log));  // id 2
    send(nth_sensor(0), kDisable);
    ASSERT_TRUE(log.wait_responses(1));
    ASSERT_TRUE(eventually([&] { return register_sensor(nth_sensor(0), log) == 0; }));

    // The re-registered sensor got id 3, the next never-used one.
    send(nth_sensor(0), kLookup);
    EXPECT_EQ(3, client_id_of_last_request(*core, 2));
    for (int i = 2; i < kMaxClients - 1; ++i) ASSERT_EQ(0, register_sensor(nth_sensor(i), log));
    send(nth_sensor(kMaxClients - 2), kLookup);
    EXPECT_EQ(255, client_id_of_last_request(*core, 3));

    ASSERT_EQ(0, register_sensor(nth_sensor(kMaxClients - 1), log));
    send(nth_sensor(kMaxClients - 1), kLookup);
    EXPECT_EQ(1, client_id_of_last_request(*core, 4));
}

}  // namespace
}  // namespace test
}  // namespace kivhal
