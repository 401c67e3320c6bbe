// kivhal-info: plays the HAL service once. Connects to the sensor core, runs
// discovery and prints what the core and the OEM configuration offer.

#include <dirent.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <vector>

#include "discovery_monitor.h"
#include "discovery_report.h"
#include "input_file.h"
#include "kiv_sensor_factory.h"
#include "tav_interface.h"
#include "tool_cli.h"

#ifndef __ANDROID__
#include "config_linter.h"
#include "kivhal/host.h"
#include "kivhal/platform.h"
#endif

namespace {

using namespace kivhal::tools;

constexpr char kTool[] = "kivhal-info";
constexpr int kExitNothingFound = 1;
constexpr char kDevDir[] = "/dev";
constexpr char kDevNodeName[] = "ductopkt_vorla_";
constexpr char kDevNodePrefix[] = "/dev/ductopkt_vorla_";
constexpr char kPartitionPath[] = "/dev/block/bootdevice/by-name/sensorstore";
constexpr uint32_t kPartitionHeaderLen = 8;
constexpr char kConfigPath[] = "/vendor/etc/sensors/oem_config.xml";
constexpr char kListPath[] = "/mnt/vendor/persist/sensors/kiv_sensors_list.txt";
constexpr const char* kWakeLockFiles[] = {"/sys/power/wake_lock", "/sys/power/wake_unlock"};

constexpr char kUsage[] = R"(Usage: kivhal-info [OPTION]...
Connects to the sensor core like the HAL service, runs discovery and prints
every sensor type with its SUIDs and attributes, then the answer of every
capability query. Progress goes to standard error while discovery waits.
Exit status: 0 when discovery found at least one sensor, 1 when it found
none, 2 on bad arguments, when the channel cannot be opened or when the
parser would reject the configuration.

  --channel NAME     channel name, /dev/ductopkt_vorla_NAME (default: sensors)
  --json             print JSON instead of tables
  --dump             print the state dumps of the connection (taken before it
                     closes) and of the factory instead of the report
  --log-level LEVEL  print the library's log lines at LEVEL and above:
                     silent, error, info, debug, verbose (default: error)
  --quiet            no progress lines
  --force            run even while another process (the HAL service) has the
                     channel open; discovery then writes the service's
                     persisted sensor list and marks the sensor store consumed
Host only (the device has its own filesystem and properties):
  --root DIR         device root (sets KIVHAL_ROOT); it gets the persist and
                     sysfs paths the library expects if they are missing
  --config FILE      copy FILE to <root>/vendor/etc/sensors/oem_config.xml;
                     without it the file already there is read. A file the
                     parser rejects (or hangs on) stops the run before
                     discovery: check it with kivhal-lint FILE
  --first-boot       remove the persisted sensor list first
  --property N=V     set a system property (repeatable); low-power messages
                     need persist.vendor.kiv.ds=true, the sensor store also
                     persist.vendor.kiv.ds_oda=true
  --help             show this help
)";

struct info_options {
    std::string channel = "sensors";
    bool json = false;
    bool dump = false;
    bool progress = true;
    bool force = false;
    kiv_log::log_level log_level = kiv_log::ERROR;
    std::string root, config;
    bool first_boot = false;
    std::vector<std::pair<std::string, std::string>> properties;
};

kiv_log::log_level parse_level(const std::string& text) {
    const std::pair<const char*, kiv_log::log_level> levels[] = {{"silent", kiv_log::SILENT},
                                                                 {"error", kiv_log::ERROR},
                                                                 {"info", kiv_log::INFO},
                                                                 {"debug", kiv_log::DEBUG},
                                                                 {"verbose", kiv_log::VERBOSE}};
    for (const auto& [name, level] : levels) {
        if (text == name) return level;
    }
    throw usage_error("option --log-level: unknown level '" + text + "'");
}

info_options parse_options(int argc, char** argv, bool& help) {
    info_options options;
    arg_reader args(argc, argv);
    while (!args.done()) {
        const std::string arg = args.next();
        if (arg == "--help") {
            help = true;
        } else if (arg == "--channel") {
            options.channel = args.value();
            if (options.channel.empty()) throw usage_error("option --channel needs a name");
        } else if (arg == "--json") {
            options.json = true;
        } else if (arg == "--dump") {
            options.dump = true;
        } else if (arg == "--quiet") {
            options.progress = false;
        } else if (arg == "--force") {
            options.force = true;
        } else if (arg == "--log-level") {
            options.log_level = parse_level(args.value());
        } else if (arg == "--root") {
            options.root = args.value();
        } else if (arg == "--config") {
            options.config = args.value();
        } else if (arg == "--first-boot") {
            options.first_boot = true;
        } else if (arg == "--property") {
            const std::string value = args.value();
            const size_t equals = value.find('=');
            if (equals == 0 || equals == std::string::npos) {
                throw usage_error("option --property: '" + value + "' is not NAME=VALUE");
            }
            options.properties.emplace_back(value.substr(0, equals), value.substr(equals + 1));
        } else {
            throw usage_error("unknown argument " + arg);
        }
    }
    return options;
}

// Without a configuration, discovery stops after creating an empty persisted
// list, and the next run would take that for a later boot's list.
void require_config(const std::string& path, const std::string& fix) {
    try {
        check_input_file(path, input_kind::regular_file, kMaxConfigFileSize);
    } catch (const usage_error& e) {
        throw tool_error(std::string(e.what()) + fix);
    }
}

#ifndef __ANDROID__
// A file the parser rejects would make discovery skip every lookup and end in
// a "nothing found" report that hides the cause; one it hangs on, never end.
void refuse_rejected_config(const std::string& path) {
    for (const lint_finding& finding : lint_config(path)) {
        if (!finding.fatal) continue;
        throw tool_error("configuration " + path + " rejected (line " +
                         std::to_string(finding.line) + ": " + finding.message +
                         "); run kivhal-lint " + path + " for every problem");
    }
}

// Makes the root look like the device's filesystem where the library expects
// files it never creates itself.
void prepare_host_root(const info_options& options) {
    namespace fs = std::filesystem;
    if (!options.root.empty()) {
        if (!fs::is_directory(options.root))
            throw usage_error("root " + options.root + " is not a directory");
        setenv("KIVHAL_ROOT", options.root.c_str(), 1);
    }
    if (getenv("KIVHAL_ROOT") == nullptr || *getenv("KIVHAL_ROOT") == '\0') {
        throw usage_error("no root: pass --root DIR or set KIVHAL_ROOT");
    }
    auto host = [](const char* path) { return fs::path(kivhal::platform::resolve_path(path)); };
    std::error_code error;
    if (!options.config.empty()) {
        // A pipe or device named by mistake is refused before it is read.
        check_input_file(options.config, input_kind::regular_file, kMaxConfigFileSize);
        refuse_rejected_config(options.config);
        fs::create_directories(host(kConfigPath).parent_path());
        fs::copy_file(options.config, host(kConfigPath), fs::copy_options::overwrite_existing,
                      error);
        if (error) throw usage_error("cannot copy " + options.config + ": " + error.message());
    }
    if (options.config.empty()) {
        const std::string config = host(kConfigPath).string();
        require_config(config, "; pass --config FILE");
        refuse_rejected_config(config);
    }
    fs::create_directories(host(kListPath).parent_path());
    if (options.first_boot) fs::remove(host(kListPath));
    for (const char* file : kWakeLockFiles) {
        fs::create_directories(host(file).parent_path());
        if (!fs::exists(host(file))) std::ofstream(host(file)).flush();
    }
    for (const auto& [name, value] : options.properties) kivhal::host::set_property(name, value);
}
#endif

// The code at the end of the connection's error text, "... (<code>)": the
// negated errno of the failed open.
int error_code_of(const std::string& text) {
    const size_t open = text.rfind(" (");
    if (open == std::string::npos || text.back() != ')') return 0;
    return atoi(text.c_str() + open + 2);
}

std::string likely_fix(int error) {
#ifdef __ANDROID__
    if (error == ENOENT) return "; is the sensor core's channel driver loaded?";
    if (error == EACCES || error == EPERM) return "; check the node's owner and SELinux label";
#else
    if (error == ENOENT || error == ECONNREFUSED) return "; is kivhal-coresim serving this root?";
    if (error == EACCES || error == EPERM) return "; check the node's permissions";
#endif
    return "";
}

// The device node the connection opens; on a host, under the root.
std::string node_path(const std::string& channel) {
#ifdef __ANDROID__
    return kDevNodePrefix + channel;
#else
    return kivhal::platform::resolve_path(kDevNodePrefix + channel);
#endif
}

std::string device_path(const std::string& path) {
#ifdef __ANDROID__
    return path;
#else
    return kivhal::platform::resolve_path(path);
#endif
}

// The channels that do exist beside the one asked for, as "a", "b".
std::string existing_channels() {
    std::vector<std::string> names;
    if (DIR* dir = opendir(device_path(kDevDir).c_str())) {
        // readdir64: a 32-bit process's readdir fails with EOVERFLOW on a file
        // system whose directory offsets need 64 bits.
        while (const dirent64* entry = readdir64(dir)) {
            const std::string name = entry->d_name;
            if (name.rfind(kDevNodeName, 0) == 0 && name.size() > strlen(kDevNodeName)) {
                names.push_back("\"" + name.substr(strlen(kDevNodeName)) + "\"");
            }
        }
        closedir(dir);
    }
    std::sort(names.begin(), names.end());
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
    return text;
}

// The connection reports the node as written and its errno negated; say
// which node was really tried, the system's text for the error and what
// usually fixes it.
tool_error channel_failure(const std::string& channel, const std::exception& e) {
    const std::string failed =
        "cannot open channel \"" + channel + "\" at " + node_path(channel) + ": ";
    const int error = -error_code_of(e.what());
    if (error <= 0) return tool_error(failed + e.what());
    const std::string others = error == ENOENT ? existing_channels() : "";
    if (!others.empty()) {
        return tool_error(failed + strerror(error) + "; channels under " + device_path(kDevDir) +
                          ": " + others);
    }
    return tool_error(failed + strerror(error) + likely_fix(error));
}

// The connection resets the sensor store's header as it connects when
// persist.vendor.kiv.ds_oda is on; its error names no path or reason.
tool_error partition_failure(const std::exception& e) {
    const std::string path = device_path(kPartitionPath);
    std::string reason;
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        reason = strerror(errno);
    } else if (S_ISDIR(st.st_mode)) {
        reason = strerror(EISDIR);
    } else if (S_ISREG(st.st_mode) && st.st_size < static_cast<off_t>(kPartitionHeaderLen)) {
        reason = std::to_string(st.st_size) + " bytes, shorter than its " +
                 std::to_string(kPartitionHeaderLen) + "-byte header";
    } else {
        const int error = -error_code_of(e.what());
        reason = error > 0 ? strerror(error) : e.what();
    }
    return tool_error("cannot use the sensor store partition " + path + ": " + reason +
                      " (persist.vendor.kiv.ds_oda is on, so the connection resets its header)");
}

// Another process with the channel's node open: on a device, the HAL
// service. Returns "pid N (comm)" of the first found, or "".
std::string channel_holder(const std::string& node) {
    char resolved[PATH_MAX];
    if (realpath(node.c_str(), resolved) == nullptr) return "";
    const std::string self = std::to_string(getpid());
    DIR* proc = opendir("/proc");
    if (proc == nullptr) return "";
    std::string holder;
    while (const dirent64* entry = readdir64(proc)) {
        const std::string pid = entry->d_name;
        if (pid.find_first_not_of("0123456789") != std::string::npos || pid == self) continue;
        const std::string fd_dir = "/proc/" + pid + "/fd";
        DIR* fds = opendir(fd_dir.c_str());
        if (fds == nullptr) continue;  // gone, or not ours to look at
        while (const dirent64* fd = readdir64(fds)) {
            char target[PATH_MAX];
            const ssize_t length =
                readlink((fd_dir + "/" + fd->d_name).c_str(), target, sizeof(target) - 1);
            if (length <= 0) continue;
            target[length] = '\0';
            if (strcmp(target, resolved) != 0) continue;
            std::string comm;
            std::ifstream("/proc/" + pid + "/comm") >> comm;
            holder = "pid " + pid + " (" + comm + ")";
            break;
        }
        closedir(fds);
        if (!holder.empty()) break;
    }
    closedir(proc);
    return holder;
}

// Dumps write to the descriptor: what stdio holds must go out first.
template <typename Dumpable>
void dump_to_stdout(Dumpable& dumpable) {
    fflush(stdout);
    dumpable.dump(STDOUT_FILENO);
}

int run(int argc, char** argv) {
    bool help = false;
    const info_options options = parse_options(argc, argv, help);
    if (help) {
        fputs(kUsage, stdout);
        return 0;
    }
#ifdef __ANDROID__
    if (!options.root.empty() || !options.config.empty() || options.first_boot ||
        !options.properties.empty()) {
        throw usage_error("--root, --config, --first-boot and --property work on a host only");
    }
    require_config(kConfigPath, "");
#else
    prepare_host_root(options);
#endif
    const std::string holder = channel_holder(node_path(options.channel));
    if (!holder.empty() && !options.force) {
        throw tool_error("channel " + node_path(options.channel) + " is open in " + holder +
                         "; stop the HAL service first (discovery would write its persisted "
                         "sensor list and mark its sensor store consumed), or pass --force");
    }

    discovery_report report;
    bool found = false;
    {
        discovery_monitor monitor(options.log_level, options.progress, stderr);
        kiv_sensor_factory factory;
        {
            std::unique_ptr<tav_interface> conn;
            try {
                conn.reset(tav_interface::create(TAV_DUCTO_CONNECTION, {options.channel.c_str()}));
            } catch (const std::exception& e) {
                monitor.stop();
                if (strstr(e.what(), "TAV_SENSORSTORE") != nullptr) throw partition_failure(e);
                throw channel_failure(options.channel, e);
            }
            factory.startDiscovery(conn.get());
            if (options.dump) dump_to_stdout(*conn);
            // The connection goes first: no callback may run while the
            // queries read what discovery stored.
        }
        const double seconds = monitor.elapsed();
        report = collect_report(factory);
        report.seconds = seconds;
        monitor.stop();
        found = report.found_anything();
        if (options.progress) {
            fprintf(stderr, "kivhal-info: %5.1f s  discovery %s\n", seconds,
                    found ? "finished" : "found nothing");
        }
        if (options.dump) {
            fputs("\n", stdout);
            dump_to_stdout(factory);
        }
    }
    if (options.dump) return found ? 0 : kExitNothingFound;
    report.channel = options.channel;
    if (options.json) {
        print_json(report, stdout);
    } else {
        print_table(report, stdout);
    }
    return found ? 0 : kExitNothingFound;
}

// The library ends the process from its reader thread when the core hangs
// up, as the HAL service would end; the body runs in a child so the user is
// told why. The child writes one byte once its body has returned.
int run_watched(int argc, char** argv) {
    int done[2];
    if (pipe(done) != 0) return run_tool(kTool, [&] { return run(argc, argv); });
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        // Killing the tool kills the run, not only the watcher.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() == 1) _exit(kExitUsage);
        close(done[0]);
        const int status = run_tool(kTool, [&] { return run(argc, argv); });
        fflush(nullptr);
        const char returned = 'r';
        if (write(done[1], &returned, 1) != 1) _exit(status);
        _exit(status);
    }
    close(done[1]);
    if (child < 0) {
        close(done[0]);
        return run_tool(kTool, [&] { return run(argc, argv); });
    }
    char returned;
    const bool body_returned = read(done[0], &returned, 1) == 1;
    close(done[0]);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFSIGNALED(status)) {
        fprintf(stderr, "%s: ended by signal %d (%s)\n", kTool, WTERMSIG(status),
                strsignal(WTERMSIG(status)));
        return kExitUsage;
    }
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : kExitUsage;
    if (!body_returned) {
        fprintf(stderr,
                "%s: the sensor core hung up the channel (it restarted or stopped); "
                "the library ends the process then, as it would end the HAL service\n",
                kTool);
    }
    return code;
}

}  // namespace

int main(int argc, char** argv) {
    return run_watched(argc, argv);
}
