// Requests as framed on the wire, responses matched to requests, the life of
// a registration and its client request id, reports delivered to the sensor
// named inside them (malformed ones dropped), the state dump and the hash of
// sensor ids.
#include <utils/SystemClock.h>

#include <atomic>

#include "connection_test_fixture.h"
#include "sns_wakelock.h"

namespace kivhal {
namespace test {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
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

// A registration ends only when a disable request is answered; its id goes
// back to the pool, to be handed out again after every never-used id.
TEST_F(connection_test, RegistrationEndsWhenADisableIsAnsweredAndItsIdComesBackLast) {
    ASSERT_NO_FATAL_FAILURE(connect());
    const sensor_uid first = nth_sensor(0);
    EXPECT_THAT(
        [&] { send(first, kLookup); },
        ThrowsMessage<ducto_error>(StrEq("TAV_DUCTO_ERROR ducto_write failed : Success (0)")));
    ASSERT_EQ(0, register_sensor(first, accel));          // id 1
    ASSERT_EQ(0, register_sensor(nth_sensor(1), accel));  // id 2
    send(first, kLookup);
    core->send_response({});
    // Packets are handled in order: once the report is in, the answer's handling is done.
    core->send_event(core_stub::make_event(first, 1, "x"));
    ASSERT_TRUE(accel.wait_for(1));
    EXPECT_EQ(-1, register_sensor(first, gyro)) << "an ordinary answer ended the registration";
    send(first, kDisable);
    ASSERT_TRUE(core->wait_for_requests(2, kWait));
    EXPECT_EQ(-1, register_sensor(first, gyro)) << "ended before the answer";
    core->send_response({});
    ASSERT_TRUE(eventually([&] { return ducto()->get_clientreq_id(first) == 0; }));
    EXPECT_EQ(2u, accel.responses().size());
    EXPECT_THROW(send(first, kLookup), ducto_error);
    ASSERT_EQ(0, register_sensor(first, accel));

    core->set_auto_respond(true);
    auto id_of_next_request = [&](sensor_uid suid) {
        const size_t count = core->request_count() + 1;
        send(suid, kLookup);
        EXPECT_TRUE(core->wait_for_requests(count, kWait));
        return core->requests().back().client_req_id;
    };
    EXPECT_EQ(3, id_of_next_request(first));
    for (int i = 2; i < kMaxClients - 1; ++i) ASSERT_EQ(0, register_sensor(nth_sensor(i), accel));
    EXPECT_EQ(255, id_of_next_request(nth_sensor(kMaxClients - 2)));
    ASSERT_EQ(0, register_sensor(nth_sensor(kMaxClients - 1), accel));
    EXPECT_EQ(1, id_of_next_request(nth_sensor(kMaxClients - 1)));
    EXPECT_THAT([&] { register_sensor(nth_sensor(kMaxClients), accel); },
                ThrowsMessage<std::runtime_error>(
                    StrEq("TAV_DUCTO exceeded maximum number of ducto clients")));
}

TEST_F(connection_test, EveryWriteAndReportHoldsTheWakeLockAndQueriesTraceTagsOnlyWhenTracingIsOn) {
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
        // A report is delivered between two queries (once the stand-in has
        // taken this connection), holding one wake-lock reference given back
        // after its callback returns.
        ASSERT_TRUE(core->wait_for_requests(tracing ? 4 : 2, kWait));
        std::atomic<uint64_t> during{~0ull};
        std::atomic<int> references{-1};  // 0 when the lock was not held
        conn->register_cb(kGyro, nullptr, nullptr, [&](const uint8_t*, uint32_t, uint64_t) {
            const auto lock = sns_wakelock::get_instance()->get_state();
            references = lock.held ? static_cast<int>(lock.count) : 0;
            during = host::trace_tag_queries();
        });
        ASSERT_TRUE(core->send_packet(
            core_stub::make_report(core_stub::make_event(kGyro, kDataEvent, "r"))));
        EXPECT_TRUE(eventually([&] {
            return during != ~0ull && host::trace_tag_queries() == (tracing ? 6u : 0u) &&
                   sns_wakelock::get_instance()->get_state().count == 0;
        }));
        EXPECT_EQ(tracing ? 5u : 0u, during.load());
        EXPECT_EQ(1, references.load());
        EXPECT_FALSE(sns_wakelock::get_instance()->get_state().held);
        EXPECT_EQ(unlocked + kWakeLockName + kWakeLockName + kWakeLockName,
                  root.read_file("/sys/power/wake_unlock"));
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
    EXPECT_THAT(gyro.payloads(), ElementsAre(small, sentinel));
    EXPECT_THAT(accel.payloads(), ElementsAre(jumbo, full, last));
    for (const auto& e : accel.events()) {
        EXPECT_GE(e.timestamp, before);
        EXPECT_LE(e.timestamp, after);
    }
    EXPECT_EQ(5u, log_lines_containing(", dropped", ANDROID_LOG_ERROR).size());
    EXPECT_TRUE(ducto()->is_suid_already_registered(kGyro) &&
                !ducto()->is_suid_already_registered({0x3333, 0xc3}));
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

// MurmurHash2 of the sixteen bytes, low half first, initial value 16.
TEST(SensorUidTest, HashIsMurmur2OfTheSixteenBytesLowHalfFirst) {
    const struct {
        sensor_uid id;
        uint32_t hash;
    } cases[] = {{{0, 0}, 0x2018c55b},
                 {{1, 0}, 0x8ec533f8},
                 {{0, 1}, 0x2bfd45cb},
                 {{0x0123456789abcdef, 0xfedcba9876543210}, 0x0419463d},
                 {{~0ull, ~0ull}, 0xeb2ab9ce}};
    for (const auto& c : cases) EXPECT_EQ(size_t(c.hash), sensor_uid_hash()(c.id)) << c.id.low;
}

}  // namespace
}  // namespace test
}  // namespace kivhal
