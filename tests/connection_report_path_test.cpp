#include <gtest/gtest.h>

#include <atomic>
#include <memory>

#include "allocation_count.h"
#include "core_stub.h"
#include "kiv_log.h"
#include "sns_client.pb.h"
#include "tav_interface.h"
#include "test_support.h"

// The report path: delivering a report must not touch the heap once warm.
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
    for (const char* file : {"/sys/power/wake_lock", "/sys/power/wake_unlock"})
        root.write_file(file, "");
    core_stub core(kChannel);
    std::unique_ptr<tav_interface> conn(
        tav_interface::create(TAV_DUCTO_CONNECTION, tav_conn_config{kChannel}));
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
    ASSERT_TRUE(kivhal::test::eventually([&] { return delivered.load() == total; },
                                         std::chrono::seconds(20)));
    EXPECT_EQ(at_last_counted.load() - at_first_counted.load(), 0u)
        << "heap allocations on the reader thread over " << kCountedRounds * reports.size()
        << " reports";
    conn.reset();
}

}  // namespace
