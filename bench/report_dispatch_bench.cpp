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
// Each variant (a row of kVariants: the wake-lock hold-off off and at 20 ms,
// and the channel captured to a file)
// runs in a child process of its own, since the library reads its properties
// once per process.
//
// Counters: conn_reports_per_s, bare_reports_per_s, ratio (connection /
// bare), bare_required_reports_per_s, ratio_to_bare_required, heap
// allocations per report on each receiving thread, and
// wakelock_writes_per_report (the connection's kernel lock and unlock writes).
//
// The capture row runs a second connection, on a channel of its own, with
// capture on, in every iteration beside the first (capture off): captured_*
// are its counters, capture_ratio its reports per second against the
// uncaptured connection's, and capture_writes_per_packet the file writes the
// capture made for its burst.

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
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
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "allocation_count.h"
#include "channel_capture.h"
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
constexpr char kCapturedChannel[] = "bench_captured";
constexpr auto kFlushWait = std::chrono::seconds(5);
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
struct required_kernel_calls {
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
                            const required_kernel_calls* required = nullptr) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds) != 0) abort();
    std::thread sender([&] {
        for (int i = 0; i < kReportsPerIteration; ++i) {
            if (send(fds[0], report.data(), report.size(), MSG_NOSIGNAL) < 0) break;
        }
    });
    // Entry 0 is polled only with the required calls.
    struct pollfd poll_set[2] = {{required ? required->wakeup_fd : -1, POLLIN, 0},
                                 {fds[1], POLLIN | POLLHUP, 0}};
    struct pollfd* const first = required ? &poll_set[0] : &poll_set[1];
    const nfds_t entries = required ? 2 : 1;

    std::vector<uint8_t> buf(SNS_DUCTO_PACKET_LEN);
    // Reused, as the connection's reader reuses its own: the floor does the
    // same decode without the heap.
    sns_client_event_msg event;
    event.ParseFromArray(report.data() + SNS_DUCTO_IND_PAYLOAD_OFFSET,
                         static_cast<int>(report.size() - SNS_DUCTO_IND_PAYLOAD_OFFSET));
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
        event.ParseFromArray(buf.data() + SNS_DUCTO_IND_PAYLOAD_OFFSET, static_cast<int>(len));
        bare_callback(sensor_uid{event.suid().uidlow(), event.suid().uidhigh()}, &received);
        if (required != nullptr) required->take_and_give_back_wakelock();
    }
    const auto end = clock_type::now();
    const uint64_t used = kivhal::test::counted_allocations() - allocations;
    kivhal::test::count_allocations_on_this_thread(false);
    sender.join();
    close(fds[0]);
    close(fds[1]);
    return {std::chrono::duration<double>(end - start).count(), used};
}

// What one iteration measured in the child.
struct iteration_result {
    double conn_seconds;
    double bare_seconds;
    double bare_required_seconds;
    uint64_t conn_allocations;
    uint64_t bare_allocations;
    uint64_t wakelock_writes;  // kernel lock and unlock writes, the window's end included
    // The captured connection's batch, when there is one.
    double captured_seconds;
    uint64_t captured_allocations;
    uint64_t capture_writes;          // file writes until its burst was in the file
    uint64_t capture_dropped;         // records the full ring dropped
    uint64_t captured_kernel_writes;  // its wake-lock writes, not counted above
};

// Everything one variant's child measures with: a root whose wake-lock files
// are /dev/null, the core stand-in, a connection with a counting callback,
// and the bare loops' descriptors.
class dispatch_rig {
  public:
    // Empty on success, else what failed. With `capture_path`, a second
    // connection is captured there.
    std::string set_up(const std::string& capture_path) {
        // Wake-lock writes go to /dev/null: the kernel's cost is not ours to measure.
        std::filesystem::create_directories(_root.host_path("/sys/power"));
        for (const char* file : {"/sys/power/wake_lock", "/sys/power/wake_unlock"}) {
            std::filesystem::create_symlink("/dev/null", _root.host_path(file));
        }
        _core = std::make_unique<kivhal::test::core_stub>(kChannel);
        _conn.reset(tav_interface::create(TAV_DUCTO_CONNECTION, tav_conn_config{kChannel}));
        if (!_core->wait_connected(std::chrono::seconds(2))) {
            return "the connection did not reach the stand-in";
        }
        _conn->register_cb(kSensor, nullptr, nullptr, [this](const uint8_t*, uint32_t, uint64_t) {
            kivhal::test::count_allocations_on_this_thread(true);
            _counter.count();
        });
        int wakeup_pipe[2];
        if (pipe2(wakeup_pipe, O_CLOEXEC) != 0) return "no pipe for the bare loop";
        _wakeup_read.reset(wakeup_pipe[0]);
        _wakeup_write.reset(wakeup_pipe[1]);
        _lock_fd.reset(open(_root.host_path("/sys/power/wake_lock").c_str(), O_WRONLY | O_CLOEXEC));
        _unlock_fd.reset(
            open(_root.host_path("/sys/power/wake_unlock").c_str(), O_WRONLY | O_CLOEXEC));
        if (_lock_fd < 0 || _unlock_fd < 0) return "the wake-lock files did not open";
        // One batch first, so the reader's decoder has grown to its steady state.
        run_connection_batch(*_core, _counter, _report);
        return capture_path.empty() ? "" : set_up_captured(capture_path);
    }

    iteration_result run_iteration() {
        const required_kernel_calls required{_wakeup_read.get(), _lock_fd.get(), _unlock_fd.get()};
        // The captured batch goes first every other iteration, so neither
        // connection always follows the same work.
        iteration_result result = {};
        if (_captured_conn && (++_iterations % 2) == 0) run_captured(&result);
        const uint64_t writes = kernel_writes();
        const batch_result via_connection = run_connection_batch(*_core, _counter, _report);
        if (_captured_conn && (_iterations % 2) == 1) run_captured(&result);
        const batch_result bare = run_bare_batch(_report);
        const batch_result bare_required = run_bare_batch(_report, &required);
        result.conn_seconds = via_connection.seconds;
        result.bare_seconds = bare.seconds;
        result.bare_required_seconds = bare_required.seconds;
        result.conn_allocations = via_connection.allocations;
        result.bare_allocations = bare.allocations;
        // A hold-off's release falls within the bare batches, which outlast it.
        // Less the captured batch's, when it ran inside this window.
        const bool captured_after = _captured_conn && (_iterations % 2) == 1;
        result.wakelock_writes =
            kernel_writes() - writes - (captured_after ? result.captured_kernel_writes : 0);
        return result;
    }

  private:
    // The captured connection's batch, until its burst is in the file.
    void run_captured(iteration_result* result) {
        const auto before = _probe->get_status();
        const uint64_t writes = kernel_writes();
        const batch_result captured =
            run_connection_batch(*_captured_core, _captured_counter, _report);
        result->captured_kernel_writes = kernel_writes() - writes;
        const auto deadline = clock_type::now() + kFlushWait;
        while (_probe->get_status().pending_bytes > 0 && clock_type::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        const auto after = _probe->get_status();
        result->captured_seconds = captured.seconds;
        result->captured_allocations = captured.allocations;
        result->capture_writes = after.file_writes - before.file_writes;
        result->capture_dropped = after.all_dropped - before.all_dropped;
    }

    // A second connection, captured, and a handle on the same file that
    // reads the sink's counters.
    std::string set_up_captured(const std::string& path) {
        kivhal::host::set_property(kivhal::connection::kCaptureProperty, path);
        _captured_core = std::make_unique<kivhal::test::core_stub>(kCapturedChannel);
        _captured_conn.reset(
            tav_interface::create(TAV_DUCTO_CONNECTION, tav_conn_config{kCapturedChannel}));
        if (!_captured_core->wait_connected(std::chrono::seconds(2))) {
            return "the captured connection did not reach its stand-in";
        }
        _captured_conn->register_cb(kSensor, nullptr, nullptr,
                                    [this](const uint8_t*, uint32_t, uint64_t) {
                                        kivhal::test::count_allocations_on_this_thread(true);
                                        _captured_counter.count();
                                    });
        _probe = kivhal::connection::channel_capture::open(path, "probe");
        if (!_probe) return "the capture did not start";
        run_connection_batch(*_captured_core, _captured_counter, _report);
        return "";
    }

    static uint64_t kernel_writes() {
        const sns_wakelock::state state = sns_wakelock::get_instance()->get_state();
        return state.lock_writes + state.unlock_writes;
    }

    kivhal::test::scoped_root _root;
    std::unique_ptr<kivhal::test::core_stub> _core, _captured_core;
    delivery_counter _counter, _captured_counter;  // before the connections, which call into them
    std::unique_ptr<tav_interface> _conn, _captured_conn;
    std::unique_ptr<kivhal::connection::channel_capture> _probe;
    uint64_t _iterations = 0;
    const std::vector<uint8_t> _report = sample_report();
    android::base::unique_fd _wakeup_read, _wakeup_write, _lock_fd, _unlock_fd;
};

// The library reads its properties once per process, as on the device, so
// each variant runs in a child forked before the library is first used.
// Add a row to measure another setting.
struct variant {
    const char* name;
    std::vector<std::pair<const char*, const char*>> properties;
    bool capture = false;  // the channel captured to a file of the child's own
};
const std::vector<variant> kVariants = {
    {"holdoff_0ms", {}},
    {"holdoff_20ms", {{"persist.vendor.kiv.wakelock_holdoff_ms", "20"}}},
    {"holdoff_0ms_capture", {}, true},
};

constexpr char kRunIteration = 'i';
constexpr size_t kErrorTextLen = 120;

struct child_status {
    char error[kErrorTextLen];  // empty when the rig is up
};

template <typename T>
bool read_record(int fd, T* record) {
    return android::base::ReadFully(fd, record, sizeof(*record));
}
template <typename T>
bool write_record(int fd, const T& record) {
    return android::base::WriteFully(fd, &record, sizeof(record));
}

// Serves one iteration per command byte until the parent closes the pipe.
[[noreturn]] void serve_variant(const variant& v, int commands, int results) {
    {
        kiv_log::set_level(kiv_log::INFO);
        for (const auto& [name, value] : v.properties) kivhal::host::set_property(name, value);
        TemporaryDir capture_dir;
        dispatch_rig rig;
        child_status status = {};
        const std::string capture_path =
            v.capture ? std::string(capture_dir.path) + "/channel.pcapng" : "";
        strncpy(status.error, rig.set_up(capture_path).c_str(), sizeof(status.error) - 1);
        bool serving = write_record(results, status) && status.error[0] == '\0';
        char command = 0;
        while (serving && read_record(commands, &command) && command == kRunIteration) {
            serving = write_record(results, rig.run_iteration());
        }
    }
    // The parent's exit handlers are not the child's to run.
    _exit(0);
}

// A child running one variant, stopped and reaped on destruction.
class variant_child {
  public:
    // Empty on success, else what failed.
    std::string start(const variant& v) {
        android::base::unique_fd command_read, result_write;
        if (!android::base::Pipe(&command_read, &_commands) ||
            !android::base::Pipe(&_results, &result_write)) {
            return "no pipes to the child";
        }
        _pid = fork();
        if (_pid < 0) return "fork failed";
        if (_pid == 0) {
            _commands.reset();
            _results.reset();
            serve_variant(v, command_read.get(), result_write.get());
        }
        child_status status;
        if (!read_record(_results.get(), &status)) return "the child died while setting up";
        return std::string(status.error, strnlen(status.error, sizeof(status.error)));
    }
    bool run_iteration(iteration_result* result) {
        return write_record(_commands.get(), kRunIteration) && read_record(_results.get(), result);
    }
    ~variant_child() {
        _commands.reset();  // end of commands: the child tears down and exits
        if (_pid > 0) waitpid(_pid, nullptr, 0);
    }

  private:
    pid_t _pid = -1;
    android::base::unique_fd _commands, _results;
};

void BM_ReportDispatch(benchmark::State& state, const variant* v) {
    variant_child child;
    const std::string error = child.start(*v);
    if (!error.empty()) {
        state.SkipWithError(error.c_str());
        return;
    }
    double conn_seconds = 0, bare_seconds = 0, bare_required_seconds = 0, captured_seconds = 0;
    uint64_t conn_allocations = 0, bare_allocations = 0, wakelock_writes = 0, batches = 0;
    uint64_t captured_allocations = 0, capture_writes = 0, capture_dropped = 0;
    for (auto _ : state) {
        iteration_result r;
        if (!child.run_iteration(&r)) {
            state.SkipWithError("the child died");
            break;
        }
        state.SetIterationTime(r.conn_seconds);
        conn_seconds += r.conn_seconds;
        bare_seconds += r.bare_seconds;
        bare_required_seconds += r.bare_required_seconds;
        conn_allocations += r.conn_allocations;
        bare_allocations += r.bare_allocations;
        wakelock_writes += r.wakelock_writes;
        captured_seconds += r.captured_seconds;
        captured_allocations += r.captured_allocations;
        capture_writes += r.capture_writes;
        capture_dropped += r.capture_dropped;
        ++batches;
    }
    if (batches == 0) return;
    const double reports = static_cast<double>(batches) * kReportsPerIteration;
    state.counters["conn_reports_per_s"] = reports / conn_seconds;
    state.counters["bare_reports_per_s"] = reports / bare_seconds;
    state.counters["ratio"] = bare_seconds / conn_seconds;
    state.counters["bare_required_reports_per_s"] = reports / bare_required_seconds;
    state.counters["ratio_to_bare_required"] = bare_required_seconds / conn_seconds;
    state.counters["conn_allocs_per_report"] = static_cast<double>(conn_allocations) / reports;
    state.counters["bare_allocs_per_report"] = static_cast<double>(bare_allocations) / reports;
    state.counters["wakelock_writes_per_report"] = static_cast<double>(wakelock_writes) / reports;
    if (v->capture) {
        const double captured = reports - static_cast<double>(capture_dropped);
        state.counters["captured_reports_per_s"] = reports / captured_seconds;
        state.counters["capture_ratio"] = conn_seconds / captured_seconds;
        state.counters["captured_allocs_per_report"] =
            static_cast<double>(captured_allocations) / reports;
        state.counters["capture_writes_per_packet"] = static_cast<double>(capture_writes) / captured;
        state.counters["capture_dropped_per_report"] =
            static_cast<double>(capture_dropped) / reports;
    }
    state.SetItemsProcessed(static_cast<int64_t>(reports));
}

}  // namespace

int main(int argc, char** argv) {
    for (const variant& v : kVariants) {
        benchmark::RegisterBenchmark((std::string("BM_ReportDispatch/") + v.name).c_str(),
                                     BM_ReportDispatch, &v)
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond)
            ->MinTime(2.0);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
