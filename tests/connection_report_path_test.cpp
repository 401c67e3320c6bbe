#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "allocation_count.h"
#include "core_stub.h"
#include "report_sensor_id.h"
#include "kiv_log.h"
#include "sns_client.pb.h"
#include "tav_interface.h"
#include "test_support.h"

// The report path: the sensor id read from each report must be the one a full
// decode finds, and delivering a report must not touch the heap once warm.
// Only the reader thread's allocations are counted: the test's bookkeeping
// and the stand-in core allocate on theirs. The callback marks its thread.

namespace {

using kivhal::test::core_stub;

constexpr char kChannel[] = "alloc";
const sensor_uid kSensor{0x5151, 0xbe};
constexpr uint32_t kSampleEventMsgId = 1025;
constexpr int kWarmUpRounds = 3;
constexpr int kCountedRounds = 50;

// Reports as a streaming sensor sends them: one or several events, short and
// long payloads, a jumbo report among them.
std::vector<std::vector<uint8_t>> report_mix() {
    std::vector<std::vector<uint8_t>> reports;
    for (size_t payload_len : {8u, 48u, 600u}) {
        reports.push_back(core_stub::make_report(
            core_stub::make_event(kSensor, kSampleEventMsgId, std::string(payload_len, 'p'))));
    }
    sns_client_event_msg batch;
    batch.mutable_suid()->set_uidlow(kSensor.low);
    batch.mutable_suid()->set_uidhigh(kSensor.high);
    for (int i = 0; i < 4; i++) {
        auto* event = batch.add_eventlist();
        event->set_msg_id(kSampleEventMsgId);
        event->set_timestamp(i);
        event->set_payload(std::string(32, 'e'));
    }
    reports.push_back(core_stub::make_report(batch.SerializeAsString()));
    reports.push_back(core_stub::make_report(
        core_stub::make_event(kSensor, kSampleEventMsgId, std::string(4000, 'j')), true));
    return reports;
}

TEST(ReportDeliveryTest, SteadyStateDeliveryDoesNotAllocate) {
    kiv_log::set_level(kiv_log::INFO);
    kivhal::test::scoped_root root;
    // The delivery holds the kernel wake lock; give it its files.
    for (const char* file : {"/sys/power/wake_lock", "/sys/power/wake_unlock"}) root.write_file(file, "");
    core_stub core(kChannel);
    std::unique_ptr<tav_interface> conn(tav_interface::create(TAV_DUCTO_CONNECTION, tav_conn_config{kChannel}));
    ASSERT_TRUE(core.wait_connected(std::chrono::seconds(2)));

    // Plain atomics only: the callback itself must not allocate either.
    std::atomic<uint64_t> delivered{0};
    std::atomic<uint64_t> at_first_counted{0};
    std::atomic<uint64_t> at_last_counted{0};
    const auto reports = report_mix();
    const uint64_t warm_up = kWarmUpRounds * reports.size();
    const uint64_t total = warm_up + kCountedRounds * reports.size();
    conn->register_cb(kSensor, nullptr, nullptr, [&](const uint8_t*, uint32_t, uint64_t) {
        kivhal::test::count_allocations_on_this_thread(true);
        const uint64_t n = ++delivered;
        if (n == warm_up) at_first_counted = kivhal::test::counted_allocations();
        if (n == total) at_last_counted = kivhal::test::counted_allocations();
    });

    for (int round = 0; round < kWarmUpRounds + kCountedRounds; round++) {
        for (const auto& report : reports) ASSERT_TRUE(core.send_packet(report));
    }
    ASSERT_TRUE(kivhal::test::eventually([&] { return delivered.load() == total; }, std::chrono::seconds(20)));
    EXPECT_EQ(at_last_counted.load() - at_first_counted.load(), 0u)
        << "heap allocations on the reader thread over " << kCountedRounds * reports.size() << " reports";
    conn.reset();
}

// Wire bytes written by hand: tag, then the value in the field's wire type.
std::string tag(uint32_t field, uint32_t wire_type) { return std::string(1, static_cast<char>(field << 3 | wire_type)); }
std::string fixed64(uint64_t v) {
    std::string out(8, '\0');
    for (int i = 0; i < 8; i++) out[i] = static_cast<char>(v >> (8 * i));
    return out;
}
std::string delimited(uint32_t field, const std::string& body) {
    return tag(field, 2) + static_cast<char>(body.size()) + body;
}
std::string suid_field(const std::string& body) { return delimited(1, body); }
std::string low(uint64_t v) { return tag(1, 1) + fixed64(v); }
std::string high(uint64_t v) { return tag(2, 1) + fixed64(v); }

sensor_uid full_decode(const std::string& bytes) {
    sns_client_event_msg msg;
    msg.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()));
    return {msg.suid().uidlow(), msg.suid().uidhigh()};
}

// Every input goes through one reader, so state left over from the input
// before would show up as a wrong id.
TEST(ReportSensorIdTest, ReadsTheIdAFullDecodeReadsOnTrickyEncodings) {
    const std::string event = delimited(2, tag(1, 5) + std::string(4, '\x01') + delimited(3, "data"));
    const std::string plain = suid_field(low(0x11) + high(0x22)) + event;
    std::vector<std::pair<const char*, std::string>> inputs = {
        {"plain", plain},
        {"empty", ""},
        {"events only", event + event},
        {"id after the events", event + suid_field(low(0x33) + high(0x44))},
        {"repeated id merges", suid_field(low(1) + high(2)) + event + suid_field(low(3))},
        {"repeated field inside the id", suid_field(low(1) + low(5) + high(2) + high(6))},
        {"unknown fields around and inside", tag(9, 0) + "\x7f" + tag(10, 5) + "abcd" + tag(11, 1) + fixed64(7) +
                                                 delimited(12, "xyz") + suid_field(tag(7, 0) + "\x01" + low(8)) +
                                                 tag(13, 3) + tag(1, 0) + "\x01" + tag(13, 4)},
        {"id with the wrong wire type", tag(1, 0) + "\x05" + event},
        {"id as a fixed64", tag(1, 1) + fixed64(9)},
        {"length past the end", suid_field(low(1)) + tag(2, 2) + "\x7f" + "short"},
        {"overlong varint", suid_field(low(4)) + tag(9, 0) + std::string(11, '\xff')},
        {"tag zero", suid_field(low(4)) + std::string(1, '\0') + suid_field(low(5))},
        {"unmatched end group", suid_field(high(6)) + tag(14, 4) + suid_field(low(7))},
        {"malformed inside the id", suid_field(low(1)) + delimited(1, tag(1, 1) + "abc")},
        {"event before a broken id", event + delimited(1, high(3) + tag(2, 2))},
    };
    for (size_t cut = 0; cut < plain.size(); cut++) inputs.emplace_back("truncated", plain.substr(0, cut));

    report_sensor_id_reader reader;
    for (int pass = 0; pass < 2; pass++) {
        for (const auto& [name, bytes] : inputs) {
            EXPECT_EQ(reader.read(reinterpret_cast<const uint8_t*>(bytes.data()), static_cast<uint32_t>(bytes.size())),
                      full_decode(bytes))
                << name << " (" << bytes.size() << " bytes)";
        }
    }
}

}  // namespace
