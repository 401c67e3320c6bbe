#include "discovery_monitor.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

#ifndef __ANDROID__
#include "kivhal/host.h"
#endif

namespace kivhal {
namespace tools {

namespace {

constexpr std::chrono::milliseconds kLogPoll{100};
constexpr int kPollsPerProgressLine = 10;
constexpr int kRegistryLookups = 80;

// Library lines that open a step, and what the user is told meanwhile.
struct step_marker {
    const char* text;
    const char* description;
};
constexpr step_marker kSteps[] = {
    {"starting is_registry_up", "waiting for the sensor registry"},
    {"Starting Parsing of XML Config File", "reading the OEM configuration"},
    {"discovering available sensors", "sending SUID lookups"},
    {"ORN not ready yet wait count", "nothing answered yet, re-sending lookups"},
    {"some mandatory sensors not available yet", "waiting for the sensors listed on earlier boots"},
    {"requesting attributes for", "requesting attributes"},
    {"waiting for attributes", "waiting for attributes (up to 3 s)"},
    {"requesting rel attributes", "releasing attribute requests"},
};

// The number that follows `marker` in `text`, or -1.
long number_after(const std::string& text, const std::string& marker) {
    const size_t at = text.find(marker);
    if (at == std::string::npos) return -1;
    return strtol(text.c_str() + at + marker.size(), nullptr, 10);
}

#ifndef __ANDROID__
int priority_floor(kiv_log::log_level level) {
    switch (level) {
        case kiv_log::ERROR:
            return ANDROID_LOG_ERROR;
        case kiv_log::INFO:
            return ANDROID_LOG_INFO;
        case kiv_log::DEBUG:
            return ANDROID_LOG_DEBUG;
        case kiv_log::VERBOSE:
            return ANDROID_LOG_VERBOSE;
        default:
            return ANDROID_LOG_SILENT;
    }
}

char priority_letter(int priority) {
    switch (priority) {
        case ANDROID_LOG_ERROR:
            return 'E';
        case ANDROID_LOG_WARN:
            return 'W';
        case ANDROID_LOG_INFO:
            return 'I';
        case ANDROID_LOG_DEBUG:
            return 'D';
        default:
            return 'V';
    }
}
#endif

}  // namespace

std::string describe_discovery_step(const std::string& text) {
    const long countdown = number_after(text, "registry discovery countdown: ");
    if (countdown >= 0) {
        return "waiting for the sensor registry (lookup " +
               std::to_string(kRegistryLookups + 1 - countdown) + " of " +
               std::to_string(kRegistryLookups) + ")";
    }
    const long suid_wait = number_after(text, "waiting for suids for ");
    if (suid_wait >= 0) return "waiting " + std::to_string(suid_wait) + " s for SUID answers";
    for (const step_marker& step : kSteps) {
        if (text.find(step.text) != std::string::npos) return step.description;
    }
    return "";
}

discovery_monitor::discovery_monitor(kiv_log::log_level print_level, bool progress, FILE* out)
    : _print_level(print_level), _progress(progress), _out(out) {
#ifdef __ANDROID__
    // No capture on the device: the library writes to standard error itself.
    kiv_log::set_level(print_level);
    kiv_log::set_stderr_logging(print_level != kiv_log::SILENT);
#else
    // Debug lines mark the steps of discovery; they are filtered on output.
    kiv_log::set_level(std::max(print_level, kiv_log::DEBUG));
    kiv_log::set_stderr_logging(false);
#endif
    _thread = std::thread(&discovery_monitor::run, this);
}

discovery_monitor::~discovery_monitor() {
    stop();
}

double discovery_monitor::elapsed() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - _start).count();
}

double discovery_monitor::stop() {
    {
        kivhal::lock_guard lock(_mutex);
        _stopping = true;
    }
    _wake.notify_all();
    if (_thread.joinable()) _thread.join();
    return elapsed();
}

void discovery_monitor::run() {
    for (int poll = 1;; ++poll) {
        {
            kivhal::unique_lock lock(_mutex);
            if (_wake.wait_for(lock.native(), kLogPoll,
                               [this]() REQUIRES(_mutex) { return _stopping; })) {
                break;
            }
        }
        drain_log();
        if (_progress && poll % kPollsPerProgressLine == 0) {
            fprintf(stderr, "kivhal-info: %5.1f s  %s\n", elapsed(), _step.c_str());
        }
    }
    drain_log();
}

void discovery_monitor::drain_log() {
#ifndef __ANDROID__
    const std::vector<host::log_line> lines = host::captured_log();
    const size_t dropped = host::captured_log_dropped();
    const size_t first_new = _lines_seen > dropped ? _lines_seen - dropped : 0;
    const int floor = priority_floor(_print_level);
    for (size_t i = first_new; i < lines.size(); ++i) {
        const std::string step = describe_discovery_step(lines[i].text);
        if (!step.empty()) _step = step;
        if (lines[i].priority >= floor) {
            fprintf(_out, "%c/%s: %s\n", priority_letter(lines[i].priority), lines[i].tag.c_str(),
                    lines[i].text.c_str());
        }
    }
    _lines_seen = dropped + lines.size();
#endif
}

}  // namespace tools
}  // namespace kivhal
