// The report path: delivering a report must not touch the heap once warm.
// Only the reader thread's allocations are counted: the test's bookkeeping
// and the stand-in core allocate on theirs. The callback marks its thread.
#include "allocation_count.h"
#include "connection_test_fixture.h"

namespace kivhal {
namespace test {
namespace {

constexpr uint32_t kSample = 1025;
constexpr int kWarmUpRounds = 3;
constexpr int kCountedRounds = 50;

TEST_F(connection_test, SteadyStateReportDeliveryDoesNotAllocate) {
    kiv_log::set_level(kiv_log::INFO);
    ASSERT_NO_FATAL_FAILURE(connect());
    // As a streaming sensor sends them: short and long payloads, a batch of
    // four events, a jumbo report.
    std::vector<std::vector<uint8_t>> reports;
    for (size_t len : {8u, 48u, 600u})
        reports.push_back(
            core_stub::make_report(core_stub::make_event(kAccel, kSample, std::string(len, 'p'))));
    sns_client_event_msg batch;
    batch.mutable_suid()->set_uidlow(kAccel.low);
    batch.mutable_suid()->set_uidhigh(kAccel.high);
    for (int i = 0; i < 4; i++) {
        auto* event = batch.add_eventlist();
        event->set_msg_id(kSample);
        event->set_timestamp(i);
        event->set_payload(std::string(32, 'e'));
    }
    reports.push_back(core_stub::make_report(batch.SerializeAsString()));
    reports.push_back(core_stub::make_report(
        core_stub::make_event(kAccel, kSample, std::string(4000, 'j')), true));

    // Plain atomics only: the callback itself must not allocate either.
    std::atomic<uint64_t> delivered{0}, at_first_counted{0}, at_last_counted{0};
    const uint64_t warm_up = kWarmUpRounds * reports.size();
    const uint64_t total = warm_up + kCountedRounds * reports.size();
    conn->register_cb(kAccel, nullptr, nullptr, [&](const uint8_t*, uint32_t, uint64_t) {
        count_allocations_on_this_thread(true);
        const uint64_t n = ++delivered;
        if (n == warm_up) at_first_counted = counted_allocations();
        if (n == total) at_last_counted = counted_allocations();
    });
    for (int round = 0; round < kWarmUpRounds + kCountedRounds; round++) {
        for (const auto& report : reports) ASSERT_TRUE(core->send_packet(report));
    }
    ASSERT_TRUE(eventually([&] { return delivered.load() == total; }, std::chrono::seconds(20)));
    EXPECT_EQ(0u, at_last_counted.load() - at_first_counted.load())
        << "heap allocations on the reader thread over " << kCountedRounds * reports.size()
        << " reports";
}

}  // namespace
}  // namespace test
}  // namespace kivhal
