// Request framing, registration bookkeeping visible in packets, and what a
// send does around the write (trace-tag queries, wake lock).
#include "connection_test_fixture.h"

namespace kivhal {
namespace test {
namespace {

constexpr size_t kHeadEnd = 13;  // payload offset in a request packet

TEST_F(connection_test, RequestPacketIsFramedByteForByte) {
    connect();
    callback_log accel, gyro;
    ASSERT_EQ(0, register_sensor(kAccel, accel));
    ASSERT_EQ(0, register_sensor(kGyro, gyro));

    const std::string payload = request_payload(kAccel, 512);
    conn->send_request(kAccel, true, payload, 300);
    conn->send_request(kGyro, false, request_payload(kGyro, 1), 5);
    ASSERT_TRUE(core->wait_for_requests(2, kWait));

    const auto requests = core->requests();
    const recorded_request& first = requests[0];
    EXPECT_EQ(0x20, first.msg_id);
    EXPECT_EQ(1, first.reserved);
    EXPECT_EQ(0, first.pkt_len);
    EXPECT_EQ(44, first.session_id);  // 300 & 0xff
    EXPECT_EQ(1, first.client_req_id);
    EXPECT_EQ(1, first.flag);
    EXPECT_EQ(payload.size(), first.payload_len);
    ASSERT_EQ(1013u, first.raw.size());
    EXPECT_EQ(payload, std::string(first.raw.begin() + kHeadEnd,
                                   first.raw.begin() + kHeadEnd + payload.size()));
    for (size_t i = kHeadEnd + payload.size(); i < first.raw.size(); ++i) {
        ASSERT_EQ(0, first.raw[i]) << "byte " << i;
    }
    ASSERT_TRUE(first.decoded);
    EXPECT_EQ(512u, first.request.msg_id());
    EXPECT_TRUE(first.suid() == kAccel);

    EXPECT_EQ(5, requests[1].session_id);
    EXPECT_EQ(2, requests[1].client_req_id);
    EXPECT_EQ(0, requests[1].flag);
    EXPECT_EQ(1013u, requests[1].raw.size());
}

TEST_F(connection_test, PayloadOfThousandBytesIsSentAndLongerIsRefused) {
    connect();
    callback_log accel;
    ASSERT_EQ(0, register_sensor(kAccel, accel));

    conn->send_request(kAccel, true, std::string(1000, '\x5a'), 0);
    try {
        conn->send_request(kAccel, true, std::string(1001, '\x5a'), 0);
        FAIL() << "a 1001-byte payload was accepted";
    } catch (const ducto_error&) {
        FAIL() << "wrong exception type";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ("TAV_DUCTO request payload size too large", e.what());
    }
    conn->send_request(kAccel, false, "x", 0);
    ASSERT_TRUE(core->wait_for_requests(2, kWait));

    const auto requests = core->requests();
    ASSERT_EQ(2u, requests.size());
    EXPECT_EQ(1000u, requests[0].payload_len);
    EXPECT_EQ(std::string(1000, '\x5a'), requests[0].payload);
    EXPECT_EQ(1013u, requests[0].raw.size());
    EXPECT_EQ(0, requests[0].raw[4]);
    EXPECT_EQ(0, requests[0].raw[5]);
    EXPECT_EQ(1u, requests[1].payload_len);
    EXPECT_TRUE(log_contains("request payload size is too large"));
}

TEST_F(connection_test, RequestForUnregisteredSensorThrowsWithoutSending) {
    connect();
    try {
        send(kGyro, 512);
        FAIL() << "request for an unregistered sensor was sent";
    } catch (const ducto_error& e) {
        EXPECT_STREQ("TAV_DUCTO_ERROR ducto_write failed : Success (0)", e.what());
    }
    EXPECT_TRUE(log_contains("clientid for suid.high b2 suid.low 2222  is not found in lookup table"));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(0u, core->request_count());
}

TEST_F(connection_test, RegisteringTheSameSensorTwiceFails) {
    connect();
    callback_log first, second;
    EXPECT_EQ(0, register_sensor(kAccel, first));
    EXPECT_EQ(-1, register_sensor(kAccel, second));
    EXPECT_TRUE(log_contains("This suid is alread registered"));
}

TEST(connection_error_text, CodeIsRenderedWithTheSystemTextCutToTwentyNineCharacters) {
    EXPECT_STREQ("TAV_DUCTO_ERROR TAV_DUCTO_int open failed : Unknown error -110 (-110)",
                 ducto_error(-110, "TAV_DUCTO_int open failed").what());
    // "Value too large for defined data type" does not fit the 30-byte buffer.
    EXPECT_STREQ("TAV_DUCTO_ERROR m : Value too large for defined d (75)",
                 ducto_error(EOVERFLOW, "m").what());
}

TEST(connection_factory, OnlyTheDuctoTypeYieldsAConnection) {
    EXPECT_EQ(nullptr, tav_interface::create(TAV_NO_CONNECTION, tav_conn_config{kChannel}));
    EXPECT_EQ(nullptr,
              tav_interface::create(static_cast<tav_connection_type>(2), tav_conn_config{kChannel}));
}

TEST_F(connection_test, TraceTagsAreQueriedAroundEveryWriteWhenTracingIsOn) {
    host::set_property("persist.vendor.debug.kiv.trace", "true");
    connect();
    callback_log accel;
    ASSERT_EQ(0, register_sensor(kAccel, accel));

    host::reset_trace_tag_queries();
    send(kAccel, 512);
    EXPECT_EQ(2u, host::trace_tag_queries());
    send(kAccel, 512);
    EXPECT_EQ(4u, host::trace_tag_queries());
}

TEST_F(connection_test, TraceTagsAreNotQueriedWhenTracingIsOff) {
    connect();
    callback_log accel;
    ASSERT_EQ(0, register_sensor(kAccel, accel));
    host::reset_trace_tag_queries();
    send(kAccel, 512);
    EXPECT_EQ(0u, host::trace_tag_queries());
}

TEST_F(connection_test, WakeLockIsHeldAcrossTheWrite) {
    connect();
    callback_log accel;
    ASSERT_EQ(0, register_sensor(kAccel, accel));
    const std::string name("KIVHAL_WAKEUP\0", 14);

    send(kAccel, 512);
    EXPECT_EQ(name, root.read_file("/sys/power/wake_lock"));
    EXPECT_EQ(name, root.read_file("/sys/power/wake_unlock"));
    send(kAccel, 512);
    EXPECT_EQ(name + name, root.read_file("/sys/power/wake_lock"));
    EXPECT_EQ(name + name, root.read_file("/sys/power/wake_unlock"));
}

}  // namespace
}  // namespace test
}  // namespace kivhal
