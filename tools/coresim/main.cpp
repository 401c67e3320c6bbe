// kivhal-coresim: plays the sensor core on a host, so the library and
// kivhal-info can run without a device.

#include <android-base/unique_fd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "capture_replay.h"
#include "kivhal/platform.h"
#include "sensorstore_partition.h"
#include "simulated_core.h"
#include "tool_cli.h"

namespace {

using namespace kivhal::tools;

constexpr char kTool[] = "kivhal-coresim";
constexpr uint64_t kMaxMs = 3600 * 1000;
constexpr uint64_t kMaxSession = 255;
constexpr char kDevNodePrefix[] = "/dev/ductopkt_vorla_";
// The build puts the example configuration beside the program.
constexpr char kDefaultConfigName[] = "oem_config.xml";

constexpr char kUsage[] = R"(Usage: kivhal-coresim [OPTION]...
Serves $KIVHAL_ROOT/dev/ductopkt_vorla_<channel> like the sensor core until
SIGINT or SIGTERM (refused when another simulator serves it already): answers lookups, attribute and disable requests (one
response per request, in order) and streams reports for every sensor that got
any other request until it is disabled. It offers "registry", "health",
"health_async_announce" and one sensor per sensor type of the configuration.

  --root DIR            device root to serve under (default: $KIVHAL_ROOT)
  --channel NAME        channel name (default: sensors)
  --config FILE         OEM configuration (default: oem_config.xml beside this
                        program, the build's copy of examples/oem_config.xml)
  --delay-ms MS         send every answer MS milliseconds late
  --silent TYPE         never answer lookups for TYPE (repeatable)
  --no-registry         never answer lookups for "registry"
  --restart-after S     close the channel S seconds after each connection
  --low-power LIST      low-power indications after each connection:
                        MS:on|off[:SESSION],... (session 0 by default)
  --write-info MS       write a sensorstore image under the root and send a
                        write-info message MS milliseconds after each connection
  --report-ms MS        period of streamed reports (default: 200; 0: as fast
                        as the channel takes them)
  --repeat-ms MS        send the --low-power and --write-info messages again
                        every MS milliseconds while a client is connected
  --replay FILE         serve a capture of the library (written with
                        persist.vendor.debug.kiv.capture) as the recorded core
                        did: the recorded answers, reports and indications in
                        order, each request checked against the recorded one.
                        The channel is the capture's unless --channel is given.
                        Exit 0 when the library closed the channel after the
                        last packet as recorded, 1 at the first difference
                        (printed with the packet and the field)
  --fast                with --replay: no recorded spacing between packets
  --verbose             print one line per request handled
  --help                show this help
)";

std::vector<low_power_event> parse_low_power(const std::string& list) {
    std::vector<low_power_event> events;
    std::stringstream items(list);
    std::string item;
    while (std::getline(items, item, ',')) {
        std::stringstream fields(item);
        std::string ms, state, session;
        std::getline(fields, ms, ':');
        std::getline(fields, state, ':');
        std::getline(fields, session, ':');
        if (state != "on" && state != "off") {
            throw usage_error("option --low-power: '" + item + "' is not MS:on|off[:SESSION]");
        }
        low_power_event event;
        event.after = std::chrono::milliseconds(parse_number("--low-power", ms, kMaxMs));
        event.msg_id = state == "on" ? 1 : 0;
        if (!session.empty()) {
            event.session = static_cast<uint8_t>(parse_number("--low-power", session, kMaxSession));
        }
        events.push_back(event);
    }
    return events;
}

// Relative to the program, not the working directory, so that it runs from
// anywhere.
std::string default_config() {
    std::error_code error;
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
    const std::filesystem::path beside = program.parent_path() / kDefaultConfigName;
    if (error || !std::filesystem::is_regular_file(beside, error)) {
        throw usage_error("no configuration: pass --config FILE (e.g. examples/oem_config.xml)");
    }
    return beside.string();
}

// A socket that accepts a connection belongs to a live simulator: binding a
// new one over it would orphan that simulator and its clients. A socket left
// by one that died refuses the connection and is replaced.
bool is_served(const std::string& socket_path) {
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (socket_path.size() >= sizeof(addr.sun_path)) return false;
    strcpy(addr.sun_path, socket_path.c_str());
    android::base::unique_fd probe(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    return probe.ok() &&
           connect(probe.get(), reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) == 0;
}

// Signals are taken by sigwait or sigtimedwait, never by the worker threads.
sigset_t block_stop_signals() {
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
    return stop_signals;
}

std::string socket_path_of(const std::string& channel) {
    const std::string socket_path = kivhal::platform::resolve_path(kDevNodePrefix + channel);
    if (is_served(socket_path)) {
        throw tool_error(socket_path +
                         " is served by a running kivhal-coresim already; stop it "
                         "first or pass another --root or --channel");
    }
    return socket_path;
}

int replay(replay_options options, std::string channel) {
    const capture recorded = read_capture(options.file);
    if (channel.empty()) channel = recorded.channel.empty() ? "sensors" : recorded.channel;
    socket_path_of(channel);
    options.partition_path = kivhal::platform::resolve_path(SNS_SENSORSTORE_PARTITION);
    prepare_partition(options.partition_path);
    const size_t requests = static_cast<size_t>(std::count_if(
        recorded.records.begin(), recorded.records.end(), [&](const capture_record& r) {
            return r.outbound && !r.sensorstore && r.channel == recorded.channel;
        }));
    const sigset_t stop_signals = block_stop_signals();
    kivhal::test::core_stub core(channel);
    printf("%s: replaying %s on %s: %zu packets, %zu requests to check%s\n", kTool,
           options.file.c_str(), core.socket_path().c_str(), recorded.records.size(), requests,
           recorded.cut_short ? " (the capture is cut short: replaying what it holds)" : "");
    fflush(stdout);
    const int status = replay_capture(recorded, core, options, stop_signals);
    fflush(stdout);
    return status;
}

int run(int argc, char** argv) {
    coresim_options options;
    replay_options replay_opts;
    std::string root = getenv("KIVHAL_ROOT") ? getenv("KIVHAL_ROOT") : "";
    std::string config;
    std::string channel;
    bool simulation_only = false;  // an option that a replay cannot honour
    arg_reader args(argc, argv);
    while (!args.done()) {
        const std::string arg = args.next();
        if (arg != "--root" && arg != "--channel" && arg != "--verbose" && arg != "--replay" &&
            arg != "--fast") {
            simulation_only = true;
        }
        if (arg == "--help") {
            fputs(kUsage, stdout);
            return 0;
        } else if (arg == "--root") {
            root = args.value();
        } else if (arg == "--channel") {
            channel = args.value();
            if (channel.empty()) throw usage_error("option --channel needs a name");
            options.channel = channel;
        } else if (arg == "--replay") {
            replay_opts.file = args.value();
        } else if (arg == "--fast") {
            replay_opts.fast = true;
        } else if (arg == "--config") {
            config = args.value();
        } else if (arg == "--delay-ms") {
            options.delay = std::chrono::milliseconds(parse_number(arg, args.value(), kMaxMs));
        } else if (arg == "--silent") {
            options.silent_types.insert(args.value());
        } else if (arg == "--no-registry") {
            options.registry_down = true;
        } else if (arg == "--restart-after") {
            options.restart_after = std::chrono::seconds(parse_number(arg, args.value(), kMaxMs));
        } else if (arg == "--low-power") {
            for (const auto& event : parse_low_power(args.value()))
                options.low_power.push_back(event);
        } else if (arg == "--write-info") {
            options.write_info = true;
            options.write_info_after =
                std::chrono::milliseconds(parse_number(arg, args.value(), kMaxMs));
        } else if (arg == "--report-ms") {
            options.report_period =
                std::chrono::milliseconds(parse_number(arg, args.value(), kMaxMs));
        } else if (arg == "--repeat-ms") {
            options.repeat_every =
                std::chrono::milliseconds(parse_number(arg, args.value(), kMaxMs));
        } else if (arg == "--verbose") {
            options.verbose = true;
            replay_opts.verbose = true;
        } else {
            throw usage_error("unknown argument " + arg);
        }
    }
    struct stat st;
    if (root.empty()) throw usage_error("no root: pass --root DIR or set KIVHAL_ROOT");
    if (stat(root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        throw usage_error("root " + root + " is not a directory");
    }
    setenv("KIVHAL_ROOT", root.c_str(), 1);
    if (!replay_opts.file.empty()) {
        if (simulation_only) {
            throw usage_error("--replay takes only --root, --channel, --fast and --verbose");
        }
        return replay(replay_opts, channel);
    }
    if (replay_opts.fast) throw usage_error("option --fast needs --replay FILE");
    if (config.empty()) config = default_config();
    socket_path_of(options.channel);

    options.sensor_types = {"registry", "health", "health_async_announce"};
    for (const auto& type : sensor_types_of_config(config)) options.sensor_types.push_back(type);
    options.partition_path = kivhal::platform::resolve_path(SNS_SENSORSTORE_PARTITION);

    const sigset_t stop_signals = block_stop_signals();

    simulated_core core(options);
    printf("%s: serving %s with %zu sensors from %s\n", kTool, core.socket_path().c_str(),
           core.sensor_count(), config.c_str());
    fflush(stdout);
    int signal_number = 0;
    sigwait(&stop_signals, &signal_number);
    printf("%s: stopped by signal %d\n", kTool, signal_number);
    printf("%s: %" PRIu64 " reports sent\n", kTool, core.reports_sent());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    return run_tool(kTool, [&] { return run(argc, argv); });
}
