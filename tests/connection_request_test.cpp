// Requests as framed on the wire, responses matched to requests, the life of
// a registration and its client request id, reports delivered to the sensor
// named inside them (malformed ones dropped), the state dump and the hash of
// sensor ids.
#include <utils/SystemClock.h>

#include <atomic>
#include <cstring>

#include "connection_test_fixture.h"
#include "sns_wakelock.h"

namespace kivhal {
namespace test {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::Field;
using ::testing::StartsWith;

constexpr uint32_t kLookup = 512;
constexpr uint32_t kDisable = 10;
constexpr uint32_t kDataEvent = 1025;
constexpr int kMaxClients = 255;
const std::string kWakeLockName("KIVHAL_WAKEUP\0", 14);

sensor_uid nth_sensor(int n) {
    return {static_cast<uint64_t>(n) + 1, 0x5e};
}

// A request packet as the wire carries it: id 0x20, reserved 1, length 0.
std::vector<uint8_t> request_packet(uint8_t session, uint8_t client_id, uint8_t flag,
                                    const std::string& payload) {
    std::vector<uint8_t> packet = {0x20, 0, 1, 0, 0, 0, session, client_id, flag};
    for (int shift = 0; shift < 32; shift += 8) packet.push_back(payload.size() >> shift & 0xff);
    packet.insert(packet.end(), payload.begin(), payload.end());
    packet.resize(1013, 0);
    return packet;
}

TEST_F(connection_test, RequestsAreFramedByteForByteAndAnswersGoToTheOldestPendingRequest) {
    ASSERT_NO_FATAL_FAILURE(connect());
    ASSERT_EQ(0, register_sensor(kAccel, accel));
    ASSERT_EQ(0, register_sensor(kGyro, gyro));
    // Nothing pending: dropped. Packets are handled in order, so once the
    // report is in, so was the response.
    core->send_response({true, 1, true, 1});
    core->send_event(core_stub::make_event(kAccel, 1, "x"));
    ASSERT_TRUE(accel.wait_for(1));

    const std::string payload = request_payload(kAccel, kLookup);
    conn->send_request(kAccel, true, payload, 300);
    conn->send_request(kGyro, false, std::string(1000, 'z'), 5);
    EXPECT_THAT(
        [&] { conn->send_request(kGyro, true, std::string(1001, 'x'), 0); },
        ThrowsMessage<std::runtime_error>(StrEq("TAV_DUCTO request payload size too large")));
    for (sensor_uid suid : {kAccel, kAccel, kGyro}) send(suid, kLookup);
    ASSERT_TRUE(core->wait_for_requests(5, kWait));
    const auto requests = core->requests();
    EXPECT_EQ(request_packet(44, 1, 1, payload), requests[0].raw);  // session 300 & 0xff
    EXPECT_EQ(request_packet(5, 2, 0, std::string(1000, 'z')), requests[1].raw);

    core->send_response({true, 7, true, 70});
    core->send_response({true, 8, true, 80});
    core->send_response({false, 9, true, 90});    // client-id flag (body offset 4) clear
    core->send_response({true, 10, false, 100});  // result flag (body offset 14) clear
    core->send_response({true, 11, true, 110});
    ASSERT_TRUE(gyro.wait_responses(2));
    EXPECT_EQ((std::vector<event_recorder::response>{{70, 7}}), accel.responses());
    EXPECT_EQ((std::vector<event_recorder::response>{{80, 8}, {110, 11}}), gyro.responses());
}

TEST_F(connection_test, RegistrationEndsOnlyWhenADisableRequestIsAnswered) {
    ASSERT_NO_FATAL_FAILURE(connect());
    EXPECT_THAT(
        [&] { send(kAccel, kLookup); },
        ThrowsMessage<ducto_error>(StrEq("TAV_DUCTO_ERROR ducto_write failed : Success (0)")));
    ASSERT_EQ(0, register_sensor(kAccel, accel));
    send(kAccel, kLookup);
    core->send_response({});
    // Packets are handled in order: once the report is in, the answer's handling is done.
    core->send_event(core_stub::make_event(kAccel, 1, "x"));
    ASSERT_TRUE(accel.wait_for(1));
    EXPECT_EQ(-1, register_sensor(kAccel, gyro)) << "an ordinary answer ended the registration";

    send(kAccel, kDisable);
    ASSERT_TRUE(core->wait_for_requests(2, kWait));
    EXPECT_EQ(-1, register_sensor(kAccel, gyro)) << "ended before the answer";
    core->send_response({});
    ASSERT_TRUE(eventually([&] { return ducto()->get_clientreq_id(kAccel) == 0; }));
    EXPECT_EQ(2u, accel.responses().size());
    EXPECT_THROW(send(kAccel, kLookup), ducto_error);
    EXPECT_EQ(0, register_sensor(kAccel, gyro));
}

TEST_F(connection_test,
       FreedIdIsReusedOnlyAfterEveryNeverUsedIdAndTheTwoHundredFiftySixthIsRefused) {
    ASSERT_NO_FATAL_FAILURE(connect());
    core->set_auto_respond(true);
    auto id_of_next_request = [&](sensor_uid suid) {
        const size_t count = core->request_count() + 1;
        send(suid, kLookup);
        EXPECT_TRUE(core->wait_for_requests(count, kWait));
        return core->requests().back().client_req_id;
    };
    ASSERT_EQ(0, register_sensor(nth_sensor(0), accel));  // id 1
    ASSERT_EQ(0, register_sensor(nth_sensor(1), accel));  // id 2
    send(nth_sensor(0), kDisable);
    ASSERT_TRUE(eventually([&] { return register_sensor(nth_sensor(0), accel) == 0; }));

    EXPECT_EQ(3, id_of_next_request(nth_sensor(0)));
    for (int i = 2; i < kMaxClients - 1; ++i) ASSERT_EQ(0, register_sensor(nth_sensor(i), accel));
    EXPECT_EQ(255, id_of_next_request(nth_sensor(kMaxClients - 2)));
    ASSERT_EQ(0, register_sensor(nth_sensor(kMaxClients - 1), accel));
    EXPECT_EQ(1, id_of_next_request(nth_sensor(kMaxClients - 1)));
    EXPECT_THAT([&] { register_sensor(nth_sensor(kMaxClients), accel); },
                ThrowsMessage<std::runtime_error>(
                    StrEq("TAV_DUCTO exceeded maximum number of ducto clients")));
}

TEST_F(connection_test,
       EveryWriteHoldsTheWakeLockAndWritesAndReportsQueryTraceTagsOnlyWhenTracingIsOn) {
    for (const bool tracing : {false, true}) {
        host::set_property("persist.vendor.debug.kiv.trace", tracing ? "true" : "false");
        ASSERT_NO_FATAL_FAILURE(connect());
        ASSERT_EQ(0, register_sensor(kAccel, accel));
        const std::string locked = root.read_file("/sys/power/wake_lock");
        const std::string unlocked = root.read_file("/sys/power/wake_unlock");
        host::reset_trace_tag_queries();
        send(kAccel, kLookup);
        send(kAccel, kLookup);
        EXPECT_EQ(tracing ? 4u : 0u, host::trace_tag_queries());
        EXPECT_EQ(locked + kWakeLockName + kWakeLockName, root.read_file("/sys/power/wake_lock"));
        EXPECT_EQ(unlocked + kWakeLockName + kWakeLockName,
                  root.read_file("/sys/power/wake_unlock"));
        // A report is delivered between two queries (once the stand-in has taken this connection).
        ASSERT_TRUE(core->wait_for_requests(tracing ? 4 : 2, kWait));
        std::atomic<uint64_t> during{~0ull};
        conn->register_cb(kGyro, nullptr, nullptr, [&](const uint8_t*, uint32_t, uint64_t) {
            during = host::trace_tag_queries();
        });
        ASSERT_TRUE(core->send_packet(
            core_stub::make_report(core_stub::make_event(kGyro, kDataEvent, "r"))));
        EXPECT_TRUE(eventually(
            [&] { return during != ~0ull && host::trace_tag_queries() == (tracing ? 6u : 0u); }));
        EXPECT_EQ(tracing ? 5u : 0u, during.load());
        conn.reset();
    }
}

TEST(connection_basics, ErrorTextIsCutAndOnlyTheDuctoTypeYieldsAConnection) {
    // "Value too large for defined data type" is cut to the 29 characters that fit.
    EXPECT_STREQ("TAV_DUCTO_ERROR m : Value too large for defined d (75)",
                 ducto_error(EOVERFLOW, "m").what());
    EXPECT_EQ(nullptr, tav_interface::create(TAV_NO_CONNECTION, {kChannel}));
    EXPECT_EQ(nullptr, tav_interface::create(static_cast<tav_connection_type>(2), {kChannel}));
}

TEST_F(connection_test, ReportsReachTheNamedSensorInOrderAndMalformedOnesAreDroppedWithAnErrorLine) {
    ASSERT_NO_FATAL_FAILURE(connect());
    ASSERT_EQ(0, register_sensor(kAccel, accel));
    ASSERT_EQ(0, register_sensor(kGyro, gyro));
    const std::string small = core_stub::make_event(kGyro, kDataEvent, "sample");
    const std::string jumbo = core_stub::make_event(kAccel, kDataEvent, std::string(6000, 'j'));
    std::string full;  // fills a packet to its last byte: 10000 bytes of payload
    for (size_t n = 9900;
         (full = core_stub::make_event(kAccel, kDataEvent, std::string(n, 'f'))).size() < 10000;
         ++n) {
    }
    const std::string last = core_stub::make_event(kAccel, kDataEvent, "ok");
    const std::string sentinel = core_stub::make_event(kGyro, kDataEvent, "end");
    const auto exact_len = static_cast<uint32_t>(last.size());
    auto oversized = core_stub::make_report(last);
    oversized[4] = oversized[5] = 0xff;  // packet length beyond the reader's buffer
    const uint64_t before = static_cast<uint64_t>(android::elapsedRealtimeNano());
    for (const auto& packet :
         {// A report too short for its length field, right after one whose
          // length and payload it would reuse.
          core_stub::make_report(small), core_stub::make_packet(0x21, {1, 2, 3}),
          core_stub::make_report(jumbo, true), core_stub::make_report(full, true),
          core_stub::make_report(""),
          core_stub::make_report(core_stub::make_event({0x3333, 0xc3}, 1, "nobody")),
          core_stub::make_packet(0x23, std::vector<uint8_t>(20, 0x21)),
          core_stub::make_packet(0x7f, {0, 0, 0, 0}), core_stub::make_packet(0x24, {0, 0, 0, 0}),
          // Length fields past the bytes sent and past the packet buffer.
          core_stub::make_report_with_length(last, 9000),
          core_stub::make_report_with_length(last, 0xfffffff0),
          core_stub::make_report_with_length(last, exact_len + 1), oversized,
          core_stub::make_report_with_length(last, exact_len), core_stub::make_report(sentinel)}) {
        ASSERT_TRUE(core->send_packet(packet));
    }
    // Dispatch keeps packet order: once the sentinel is in, every packet was judged.
    ASSERT_TRUE(gyro.wait_for(2));
    const uint64_t after = static_cast<uint64_t>(android::elapsedRealtimeNano());
    using event = event_recorder::event;
    EXPECT_THAT(gyro.events(),
                ElementsAre(Field(&event::payload, small), Field(&event::payload, sentinel)));
    EXPECT_THAT(accel.events(),
                ElementsAre(Field(&event::payload, jumbo), Field(&event::payload, full),
                            Field(&event::payload, last)));
    for (const auto& e : accel.events()) {
        EXPECT_GE(e.timestamp, before);
        EXPECT_LE(e.timestamp, after);
    }
    EXPECT_EQ(5u, log_lines_containing(", dropped", ANDROID_LOG_ERROR).size());
    EXPECT_TRUE(ducto()->is_suid_already_registered(kGyro) &&
                !ducto()->is_suid_already_registered({0x3333, 0xc3}));
}

TEST_F(connection_test, ReportHoldsTheWakeLockOnlyWhileItsCallbackRuns) {
    ASSERT_NO_FATAL_FAILURE(connect());
    sns_wakelock* wakelock = sns_wakelock::get_instance();
    std::atomic<int> in_callback{-1};  // references then, 0 when the lock was not held
    ASSERT_EQ(
        0, conn->register_cb(kAccel, nullptr, nullptr, [&](const uint8_t*, uint32_t, uint64_t) {
            in_callback =
                wakelock->get_state().held ? static_cast<int>(wakelock->get_state().count) : 0;
        }));
    const std::string unlocked = root.read_file("/sys/power/wake_unlock");
    ASSERT_TRUE(
        core->send_packet(core_stub::make_report(core_stub::make_event(kAccel, kDataEvent, "r"))));
    ASSERT_TRUE(eventually([&] { return in_callback != -1; }));
    EXPECT_EQ(1, in_callback);
    // The reference is given back after the callback returns, on the reader thread.
    EXPECT_TRUE(eventually([&] { return wakelock->get_state().count == 0; }));
    EXPECT_FALSE(wakelock->get_state().held);
    EXPECT_EQ(unlocked + kWakeLockName, root.read_file("/sys/power/wake_unlock"));
}

// The state dump follows what the client and the core did.
TEST_F(connection_test, DumpShowsRegistrationsRequestsAwaitingAnswersAndSessions) {
    host::set_property("persist.vendor.kiv.ds", "true");
    ASSERT_NO_FATAL_FAILURE(connect());
    ASSERT_EQ(0, register_sensor(kAccel, accel));
    ASSERT_EQ(0, register_sensor(kGyro, gyro));
    send(kAccel, 513, 3);
    send(kGyro, kDisable);
    ASSERT_TRUE(core->wait_for_requests(2, kWait));
    ASSERT_TRUE(core->send_packet(core_stub::make_low_power_state(SNS_LOW_POWER_STATE_OFF, 3)));
    // The indication is handled on the reader thread, some time after.
    std::string before;
    ASSERT_TRUE(eventually([&] {
        before = dump_of(*conn);
        return before.find("aggregate off") != std::string::npos;
    })) << before;
    EXPECT_THAT(before, StartsWith("Connection (tav_ducto 0x"));
    EXPECT_THAT(before, HasSubstr(")\n  channel: \"sensors\", fd "));
    EXPECT_THAT(
        before,
        EndsWith(", reader thread running\n"
                 "  reconnecting: no, closing: no\n"
                 "  channel errors: 0 in a row (limit 10)\n"
                 "  registered sensors: 2 (client request ids 2 in use, 253 free)\n"
                 "    client request id 1: 00000000000000a1:0000000000001111\n"
                 "    client request id 2: 00000000000000b2:0000000000002222\n"
                 "  pending responses, oldest first: 2\n"
                 "    00000000000000a1:0000000000001111\n"
                 "    00000000000000b2:0000000000002222\n"
                 "  disable requests awaiting their response: 1\n"
                 "    00000000000000b2:0000000000002222\n"
                 "  low-power sessions: 2, aggregate off\n    session 0: on\n    session 3: off\n"
                 "  wake lock: 0 references, not held\n"
                 "    hold-off: off\n"
                 "    kernel writes: 2 lock, 2 unlock\n"
                 "  capture: off\n"));

    // Both answered: nothing waits any more and the disabled sensor is gone.
    core->send_response({});
    core->send_response({});
    ASSERT_TRUE(eventually([&] { return ducto()->get_clientreq_id(kGyro) == 0; }));
    const std::string after = dump_of(*conn);
    for (const char* text : {"  registered sensors: 1 (client request ids 1 in use, 254 free)\n",
                             "  pending responses, oldest first: 0\n",
                             "  disable requests awaiting their response: 0\n"}) {
        EXPECT_THAT(after, HasSubstr(text));
    }
}

// MurmurHash2 over a byte buffer, written from the published algorithm
// (16-byte keys only, so no tail), independently of the library's word loop.
uint32_t reference_murmur2(const sensor_uid& suid) {
    const uint32_t m = 0x5bd1e995;
    unsigned char data[sizeof(suid)];
    memcpy(data, &suid, sizeof(data));
    uint32_t h = sizeof(data);
    for (const unsigned char* p = data; p < data + sizeof(data); p += 4) {
        uint32_t k = p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24;
        k *= m;
        k ^= k >> 24;
        k *= m;
        h = (h * m) ^ k;
    }
    h ^= h >> 13;
    h *= m;
    return h ^ (h >> 15);
}

TEST(SensorUidTest, HashIsMurmur2OfTheSixteenBytesLowHalfFirst) {
    const sensor_uid ids[] = {{0, 0}, {0xabababababababab, 0xabababababababab}, {1, 0},
                              {0, 1}, {0x0123456789abcdef, 0xfedcba9876543210}, {~0ull, ~0ull}};
    for (const sensor_uid& id : ids) {
        EXPECT_EQ(sensor_uid_hash()(id), static_cast<size_t>(reference_murmur2(id)))
            << std::hex << id.high << ":" << id.low;
    }
    // Sixteen zero bytes with initial value 16.
    EXPECT_EQ(sensor_uid_hash()(sensor_uid{0, 0}), 0x2018c55bu);
}

}  // namespace
}  // namespace test
}  // namespace kivhal
