// Report dispatch through a live connection against a bare receive loop on
// the same kind of socket. A core stand-in thread sends the reports; the
// connection's reader decodes each one's sensor id and calls the registered
// callback. The bare loop polls, reads, decodes the sensor id and calls a
// function, nothing more. All run in every iteration so their ratios are
// measured under the same machine load.
//
// A second bare loop also makes the kernel calls the connection must make
// for every report: its poll watches the wake-up pipe as well, and each
// delivery writes the wake-lock and wake-unlock files (to /dev/null here, as
// the connection's do). It separates what those calls cost from the
// library's own work.
//
// Counters: conn_reports_per_s, bare_reports_per_s, ratio (connection /
// bare), bare_specified_reports_per_s, ratio_to_bare_specified, and heap
// allocations per report on each receiving thread.

#include <android-base/unique_fd.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

#include "allocation_count.h"
#include "core_stub.h"
#include "kiv_log.h"
#include "sns_client.pb.h"
#include "sns_ducto_packet.h"
#include "sns_wakelock.h"
#include "tav_ducto.h"
#include "test_support.h"

// Heap allocations of the receiving threads are counted: the connection's
// reader thread (marked by the callback) and the bare loop's. The senders and
// the harness are not.

namespace {

using clock_type = std::chrono::steady_clock;

constexpr char kChannel[] = "bench";
constexpr int kReportsPerIteration = 20000;
constexpr sensor_uid kSensor{0x5151, 0xbe};
constexpr uint32_t kSampleEventMsgId = 1025;
constexpr size_t kSamplePayloadLen = 48;  // a few floats and a time stamp

std::vector<uint8_t> sample_report() {
    const std::string event = kivhal::test::core_stub::make_event(
        kSensor, kSampleEventMsgId, std::string(kSamplePayloadLen, '\x42'));
    return kivhal::test::core_stub::make_report(event);
}

// Counts deliveries and wakes the measuring thread when a batch is complete.
class delivery_counter {
public:
    void arm(uint64_t target) {
        std::lock_guard<std::mutex> lock(_mutex);
        _target = target;
    }
    void count() {
        if (_count.fetch_add(1, std::memory_order_relaxed) + 1 == _target.load()) {
            std::lock_guard<std::mutex> lock(_mutex);
            _done.notify_all();
        }
    }
    void wait() {
        std::unique_lock<std::mutex> lock(_mutex);
        _done.wait(lock, [this] { return _count.load() >= _target.load(); });
    }
    uint64_t value() const { return _count.load(); }

private:
    std::atomic<uint64_t> _count{0};
    std::atomic<uint64_t> _target{0};
    std::mutex _mutex;
    std::condition_variable _done;
};

struct batch_result {
    double seconds;
    uint64_t allocations;
};

batch_result run_connection_batch(kivhal::test::core_stub& core, delivery_counter& counter,
                                  const std::vector<uint8_t>& report) {
    counter.arm(counter.value() + kReportsPerIteration);
    const uint64_t allocations = kivhal::test::counted_allocations();
    const auto start = clock_type::now();
    std::thread sender([&] {
        for (int i = 0; i < kReportsPerIteration; ++i) core.send_packet(report);
    });
    counter.wait();
    const auto end = clock_type::now();
    const uint64_t used = kivhal::test::counted_allocations() - allocations;
    sender.join();
    return {std::chrono::duration<double>(end - start).count(), used};
}

// The function the bare loop calls per report, kept out of line.
__attribute__((noinline)) void bare_callback(const sensor_uid& suid, uint64_t* count) {
    benchmark::DoNotOptimize(suid);
    ++*count;
}

// The kernel calls the connection must make for each report beyond the bare
// loop's: its poll also watches the reader's wake-up pipe, and the delivery
// takes and gives back the kernel wake lock (the lock's name with its NUL,
// once to each file).
struct specified_kernel_calls {
    int wakeup_fd;
    int lock_fd;
    int unlock_fd;
    void take_and_give_back_wakelock() const {
        const size_t len = strlen(KIV_WACKLOCK_NAME) + 1;
        if (write(lock_fd, KIV_WACKLOCK_NAME, len) < 0) abort();
        if (write(unlock_fd, KIV_WACKLOCK_NAME, len) < 0) abort();
    }
};

batch_result run_bare_batch(const std::vector<uint8_t>& report,
                            const specified_kernel_calls* specified = nullptr) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds) != 0) abort();
    std::thread sender([&] {
        for (int i = 0; i < kReportsPerIteration; ++i) {
            if (send(fds[0], report.data(), report.size(), MSG_NOSIGNAL) < 0) break;
        }
    });
    // Entry 0 is polled only with the specified calls.
    struct pollfd poll_set[2] = {{specified ? specified->wakeup_fd : -1, POLLIN, 0},
                                 {fds[1], POLLIN | POLLHUP, 0}};
    struct pollfd* const first = specified ? &poll_set[0] : &poll_set[1];
    const nfds_t entries = specified ? 2 : 1;

    std::vector<uint8_t> buf(SNS_DUCTO_PACKET_LEN);
    uint64_t received = 0;
    kivhal::test::count_allocations_on_this_thread(true);
    const uint64_t allocations = kivhal::test::counted_allocations();
    const auto start = clock_type::now();
    while (received < static_cast<uint64_t>(kReportsPerIteration)) {
        if (poll(first, entries, -1) <= 0) continue;
        const ssize_t n = read(fds[1], buf.data(), buf.size());
        if (n < static_cast<ssize_t>(SNS_DUCTO_IND_PAYLOAD_OFFSET)) continue;
        uint32_t len;
        memcpy(&len, buf.data() + SNS_DUCTO_IND_PAYLOAD_LEN_OFFSET, sizeof(len));
        sns_client_event_msg event;
        event.ParseFromArray(buf.data() + SNS_DUCTO_IND_PAYLOAD_OFFSET, static_cast<int>(len));
        bare_callback(sensor_uid{event.suid().uidlow(), event.suid().uidhigh()}, &received);
        if (specified != nullptr) specified->take_and_give_back_wakelock();
    }
    const auto end = clock_type::now();
    const uint64_t used = kivhal::test::counted_allocations() - allocations;
    kivhal::test::count_allocations_on_this_thread(false);
    sender.join();
    close(fds[0]);
    close(fds[1]);
    return {std::chrono::duration<double>(end - start).count(), used};
}

void BM_ReportDispatch(benchmark::State& state) {
    kiv_log::set_level(kiv_log::INFO);
    kivhal::test::scoped_root root;
    // Wake-lock writes go to /dev/null: the kernel's cost is not ours to measure.
    std::filesystem::create_directories(root.host_path("/sys/power"));
    std::filesystem::create_symlink("/dev/null", root.host_path("/sys/power/wake_lock"));
    std::filesystem::create_symlink("/dev/null", root.host_path("/sys/power/wake_unlock"));

    kivhal::test::core_stub core(kChannel);
    std::unique_ptr<tav_interface> conn(
        tav_interface::create(TAV_DUCTO_CONNECTION, tav_conn_config{kChannel}));
    if (!core.wait_connected(std::chrono::seconds(2))) {
        state.SkipWithError("the connection did not reach the stand-in");
        return;
    }
    delivery_counter counter;
    conn->register_cb(kSensor, nullptr, nullptr,
                      [&counter](const uint8_t*, uint32_t, uint64_t) {
                          kivhal::test::count_allocations_on_this_thread(true);
                          counter.count();
                      });
    const std::vector<uint8_t> report = sample_report();
    int wakeup_pipe[2];
    if (pipe2(wakeup_pipe, O_CLOEXEC) != 0) {
        state.SkipWithError("no pipe for the bare loop");
        return;
    }
    const android::base::unique_fd wakeup_read(wakeup_pipe[0]), wakeup_write(wakeup_pipe[1]);
    const android::base::unique_fd lock_fd(
        open(root.host_path("/sys/power/wake_lock").c_str(), O_WRONLY | O_CLOEXEC));
    const android::base::unique_fd unlock_fd(
        open(root.host_path("/sys/power/wake_unlock").c_str(), O_WRONLY | O_CLOEXEC));
    if (lock_fd < 0 || unlock_fd < 0) {
        state.SkipWithError("the wake-lock files did not open");
        return;
    }
    const specified_kernel_calls specified{wakeup_read.get(), lock_fd.get(), unlock_fd.get()};

    // One batch first, so the reader's decoder has grown to its steady state.
    run_connection_batch(core, counter, report);

    double conn_seconds = 0, bare_seconds = 0, bare_specified_seconds = 0;
    uint64_t conn_allocations = 0, bare_allocations = 0, batches = 0;
    for (auto _ : state) {
        const batch_result via_connection = run_connection_batch(core, counter, report);
        const batch_result bare = run_bare_batch(report);
        const batch_result bare_specified = run_bare_batch(report, &specified);
        state.SetIterationTime(via_connection.seconds);
        conn_seconds += via_connection.seconds;
        bare_seconds += bare.seconds;
        bare_specified_seconds += bare_specified.seconds;
        conn_allocations += via_connection.allocations;
        bare_allocations += bare.allocations;
        ++batches;
    }
    const double reports = static_cast<double>(batches) * kReportsPerIteration;
    state.counters["conn_reports_per_s"] = reports / conn_seconds;
    state.counters["bare_reports_per_s"] = reports / bare_seconds;
    state.counters["ratio"] = bare_seconds / conn_seconds;
    state.counters["bare_specified_reports_per_s"] = reports / bare_specified_seconds;
    state.counters["ratio_to_bare_specified"] = bare_specified_seconds / conn_seconds;
    state.counters["conn_allocs_per_report"] = static_cast<double>(conn_allocations) / reports;
    state.counters["bare_allocs_per_report"] = static_cast<double>(bare_allocations) / reports;
    state.SetItemsProcessed(static_cast<int64_t>(reports));
}
BENCHMARK(BM_ReportDispatch)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(2.0);

}  // namespace

BENCHMARK_MAIN();
