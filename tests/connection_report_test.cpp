// Reports delivered to the sensor named inside them; malformed reports
// dropped without stopping the reader; teardown while reports arrive.
#include <utils/SystemClock.h>

#include <atomic>

#include "connection_test_fixture.h"

namespace kivhal {
namespace test {
namespace {

constexpr uint32_t kDataEvent = 1025;

TEST_F(connection_test, ReportsReachTheNamedSensorWithTheBootTimeOfArrival) {
    connect();
    callback_log accel, gyro;
    ASSERT_EQ(0, register_sensor(kAccel, accel));
    ASSERT_EQ(0, register_sensor(kGyro, gyro));

    const std::string small = core_stub::make_event(kGyro, kDataEvent, "sample");
    const std::string jumbo = core_stub::make_event(kAccel, kDataEvent, std::string(6000, 'j'));
    const uint64_t before = static_cast<uint64_t>(android::elapsedRealtimeNano());
    core->send_packet(core_stub::make_report(small));
    core->send_packet(core_stub::make_report(jumbo, true));

    ASSERT_TRUE(gyro.wait_events(1));
    ASSERT_TRUE(accel.wait_events(1));
    const uint64_t after = static_cast<uint64_t>(android::elapsedRealtimeNano());
    EXPECT_EQ(small, gyro.events()[0].data);
    EXPECT_EQ(jumbo, accel.events()[0].data);
    for (const auto& event : {gyro.events()[0], accel.events()[0]}) {
        EXPECT_GE(event.timestamp, before);
        EXPECT_LE(event.timestamp, after);
    }
}

TEST_F(connection_test, MalformedReportsAreDroppedAndTheReaderCarriesOn) {
    connect();
    callback_log accel;
    ASSERT_EQ(0, register_sensor(kAccel, accel));
    const std::string event = core_stub::make_event(kAccel, kDataEvent, "ok");

    core->send_packet(core_stub::make_report(""));
    core->send_packet(core_stub::make_report(core_stub::make_event(kGyro, kDataEvent, "x")));
    core->send_packet(core_stub::make_packet(0x23, std::vector<uint8_t>(20, 0x21)));
    core->send_packet(core_stub::make_packet(0x7f, {0, 0, 0, 0}));
    core->send_packet(core_stub::make_packet(0x24, {0, 0, 0, 0}));
    // Length fields past the bytes sent, past the packet buffer, and a
    // report too short to hold its length field.
    core->send_packet(core_stub::make_report_with_length(event, 9000));
    core->send_packet(core_stub::make_report_with_length(event, 0xfffffff0));
    core->send_packet(core_stub::make_packet(0x21, {1, 2, 3}));
    auto oversized = core_stub::make_report(event);
    oversized[4] = 0xff;  // packet length 0xffff, beyond the reader's buffer
    oversized[5] = 0xff;
    core->send_packet(oversized);
    core->send_packet(core_stub::make_report(event));

    ASSERT_TRUE(accel.wait_events(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_EQ(1u, accel.events().size());
    EXPECT_EQ(event, accel.events()[0].data);
    EXPECT_TRUE(log_contains("first level decoding suid failed"));
    EXPECT_TRUE(log_contains("Registered callback is null"));
    EXPECT_EQ(2u, log_lines_containing("invalid msg id").size());
    EXPECT_EQ(3u, log_lines_containing(", dropped").size() -
                      log_lines_containing("larger than the buffer").size());
    EXPECT_EQ(1u, log_lines_containing("larger than the buffer").size());
}

TEST_F(connection_test, NoCallbackStartsOnceTheDestructorHasBegun) {
    connect();
    std::atomic<bool> release{false};
    std::atomic<int> calls{0};
    ASSERT_EQ(0, conn->register_cb(kAccel, nullptr, nullptr,
                                   [&](const uint8_t*, uint32_t, uint64_t) {
                                       ++calls;
                                       while (!release) std::this_thread::yield();
                                   }));
    const std::string event = core_stub::make_event(kAccel, kDataEvent, "r");
    std::atomic<bool> sending{true};
    std::thread flood([&] {
        while (sending) core->send_packet(core_stub::make_report(event));
    });
    EXPECT_TRUE(eventually([&] { return calls == 1; }));

    // The reader is inside the first callback; tear down meanwhile.
    std::thread teardown([&] { conn.reset(); });
    EXPECT_TRUE(eventually([] { return log_contains("destructor"); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    release = true;
    teardown.join();
    sending = false;
    flood.join();
    EXPECT_EQ(1, calls);
}

}  // namespace
}  // namespace test
}  // namespace kivhal
