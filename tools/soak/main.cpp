// kivhal-soak: the library's client in a soak against kivhal-coresim (see
// scripts/soak.sh): streams reports for a while, re-registering sensors in
// turn, with the wake-lock files played by counting FIFOs, then prints one
// line of counts for the script to judge.

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "fake_power_state_service.h"
#include "kiv_log.h"
#include "kivhal/host.h"
#include "kivhal/platform.h"
#include "sns_wakelock.h"
#include "soak_client.h"
#include "tool_cli.h"
#include "wake_lock_fifo.h"

namespace {

using namespace kivhal::tools;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr char kTool[] = "kivhal-soak";
constexpr uint64_t kMaxSeconds = 7 * 24 * 3600;
constexpr uint64_t kMaxMs = 3600 * 1000;
constexpr char kHoldoffProperty[] = "persist.vendor.kiv.wakelock_holdoff_ms";
constexpr uint64_t kMaxHoldoffMs = 10000;
constexpr seconds kMaxWarmUp{10};
constexpr milliseconds kTick{100};
// The first sensors of kivhal-coresim, whose records a write-info replays.
const std::vector<std::string> kReplayOnly = {"registry", "health", "health_async_announce"};
const std::vector<std::string> kStreamed = {"heart_rate", "step_counter", "speed",
                                            "skin_temperature"};

constexpr char kUsage[] = R"(Usage: kivhal-soak --root DIR [OPTION]...
The library's client in a soak against kivhal-coresim serving DIR (see
scripts/soak.sh). Makes the wake-lock files counting FIFOs, turns the
low-power and sensor-store properties on, looks sensors up, streams four of
them and every few seconds disables one, waits until its registration is gone
and enables it again. At the end it disables every stream, waits for the
answers and prints one line of key=value counts: reports delivered, reports
replayed by write-infos, RSS after the warm-up and at the end (KiB), open
descriptors before connecting and after disconnecting, kernel lock and unlock
writes, whether the wake lock was released, library error lines.

  --root DIR        device root kivhal-coresim serves
  --channel NAME    channel name (default: sensors)
  --seconds S       how long to stream (default: 60)
  --holdoff MS      wake-lock hold-off property (default: 0)
  --cycle-ms MS     re-register one sensor this often (default: 3000)
  --help            show this help
)";

struct soak_options {
    std::string root;
    std::string channel = "sensors";
    seconds duration{60};
    uint64_t holdoff_ms = 0;
    milliseconds cycle{3000};
};

soak_options parse(int argc, char** argv) {
    soak_options options;
    arg_reader args(argc, argv);
    while (!args.done()) {
        const std::string arg = args.next();
        if (arg == "--help") {
            fputs(kUsage, stdout);
            exit(0);
        } else if (arg == "--root") {
            options.root = args.value();
        } else if (arg == "--channel") {
            options.channel = args.value();
        } else if (arg == "--seconds") {
            options.duration = seconds(parse_number(arg, args.value(), kMaxSeconds));
        } else if (arg == "--holdoff") {
            options.holdoff_ms = parse_number(arg, args.value(), kMaxHoldoffMs);
        } else if (arg == "--cycle-ms") {
            options.cycle = milliseconds(parse_number(arg, args.value(), kMaxMs));
        } else {
            throw usage_error("unknown argument " + arg);
        }
    }
    if (options.root.empty() || !std::filesystem::is_directory(options.root)) {
        throw usage_error("pass --root DIR, the directory kivhal-coresim serves");
    }
    return options;
}

uint64_t rss_kib() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return strtoull(line.c_str() + 6, nullptr, 10);
    }
    return 0;
}

size_t open_descriptors() {
    size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        (void)entry;
        ++count;
    }
    return count;
}

// Error lines since the last call. Emptying the capture keeps its ring from
// passing for a leak.
size_t take_logged_errors() {
    const size_t lines = kivhal::host::captured_log().size();
    kivhal::host::clear_captured_log();
    return lines;
}

struct soak_result {
    uint64_t rss_start = 0, rss_end = 0;
    size_t log_errors = 0;
};

// Streams for the whole duration, re-registering a sensor every cycle.
soak_result stream(kivhal::tools::soak_client& client, const soak_options& options) {
    soak_result result;
    const seconds warm_up = std::min(kMaxWarmUp, options.duration / 6);
    const auto start = steady_clock::now();
    auto next_cycle = start + options.cycle;
    bool warm = false;
    while (steady_clock::now() - start < options.duration) {
        std::this_thread::sleep_for(kTick);
        if (!warm && steady_clock::now() - start >= warm_up) {
            warm = true;
            result.rss_start = rss_kib();
        }
        if (options.cycle.count() > 0 && steady_clock::now() >= next_cycle) {
            client.cycle();
            next_cycle += options.cycle;
        }
        result.log_errors += take_logged_errors();
    }
    client.stop();
    result.rss_end = rss_kib();
    if (!warm) result.rss_start = result.rss_end;
    return result;
}

int run(int argc, char** argv) {
    const soak_options options = parse(argc, argv);
    setenv("KIVHAL_ROOT", options.root.c_str(), 1);
    const auto host = [](const char* path) { return kivhal::platform::resolve_path(path); };
    std::filesystem::create_directories(host("/sys/power"));
    wake_lock_fifo locks(host("/sys/power/wake_lock"));
    wake_lock_fifo unlocks(host("/sys/power/wake_unlock"));

    kiv_log::set_level(kiv_log::ERROR);
    kivhal::host::set_property("persist.vendor.kiv.ds", "true");
    kivhal::host::set_property("persist.vendor.kiv.ds_oda", "true");
    kivhal::host::set_property(kHoldoffProperty, std::to_string(options.holdoff_ms));
    const auto power_service = kivhal::test::fake_power_state_service::register_default();
    sns_wakelock* wakelock = sns_wakelock::get_instance();

    const size_t fds_start = open_descriptors();
    kivhal::tools::soak_client client(options.channel);
    client.start(kStreamed, kReplayOnly);
    const soak_result result = stream(client, options);
    client.disconnect();
    const size_t fds_end = open_descriptors();
    // The hold-off outlives the last connection: its window ends in its own
    // time, and only a window that never ends leaves the lock held.
    const auto window_end = std::chrono::steady_clock::now() +
                            std::chrono::milliseconds(options.holdoff_ms) + std::chrono::seconds(1);
    while (wakelock->get_state().release_pending && std::chrono::steady_clock::now() < window_end)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));

    locks.drain();
    unlocks.drain();
    const sns_wakelock::state state = wakelock->get_state();
    const bool counts_agree = state.lock_writes == locks.writes() &&
                              state.unlock_writes == unlocks.writes() && locks.whole() &&
                              unlocks.whole();
    const bool released = !state.held && state.count == 0 && locks.writes() == unlocks.writes();
    printf("delivered=%" PRIu64 " replayed=%" PRIu64 " rss_start_kib=%" PRIu64
           " rss_end_kib=%" PRIu64 " fds_start=%zu fds_end=%zu lock_writes=%" PRIu64
           " unlock_writes=%" PRIu64 " released=%s log_errors=%zu\n",
           client.delivered(), client.replayed(), result.rss_start, result.rss_end, fds_start,
           fds_end, locks.writes(), unlocks.writes(), released ? "yes" : "no",
           result.log_errors + take_logged_errors());
    if (!counts_agree) {
        fprintf(stderr,
                "%s: the wake lock counted %" PRIu64 " lock and %" PRIu64
                " unlock writes, the FIFOs saw otherwise\n",
                kTool, state.lock_writes, state.unlock_writes);
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    return run_tool(kTool, [&] { return run(argc, argv); });
}
