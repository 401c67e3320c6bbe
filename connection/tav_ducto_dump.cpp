// The connection's state as text, for bug reports.
#include <algorithm>
#include <cinttypes>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "kiv_dump.h"
#include "sns_wakelock.h"
#include "tav_ducto.h"
#include "tav_ducto_internal.h"

using kivhal::dump::appendf;
using kivhal::dump::suid_text;

namespace {

constexpr double kNsPerMs = 1e6;

// What the dump shows, copied under the connection's locks one at a time.
struct connection_snapshot {
    std::string channel_name;
    int fd = -1;
    bool reader_running = false;
    bool reconnecting = false;
    bool closing = false;
    uint32_t error_count = 0;
    uint32_t error_limit = 0;
    std::map<uint8_t, sensor_uid> registrations;  // by client request id
    size_t callbacks = 0;
    size_t free_ids = 0;
    size_t used_ids = 0;
    std::vector<sensor_uid> pending_responses;
    std::vector<sensor_uid> pending_disables;
    std::map<uint8_t, uint8_t> sessions;  // ordered for reading
    uint8_t aggregate = SNS_LOW_POWER_STATE_ON;
    bool has_wakelock = false;
    sns_wakelock::state wakelock = {};
    bool has_capture = false;
    kivhal::connection::channel_capture::status capture = {"", false, 0, 0, 0, 0, 0, 0};
};

const char* yes_no(bool value) {
    return value ? "yes" : "no";
}

const char* low_power_state_name(uint8_t state) {
    switch (state) {
        case SNS_LOW_POWER_STATE_OFF:
            return "off";
        case SNS_LOW_POWER_STATE_ON:
            return "on";
        default:
            return "unknown";
    }
}

void append_suid_list(std::string* out, const char* title, const std::vector<sensor_uid>& suids) {
    appendf(out, "  %s: %zu\n", title, suids.size());
    for (const sensor_uid& suid : suids) appendf(out, "    %s\n", suid_text(suid).c_str());
}

void append_wakelock(std::string* out, const sns_wakelock::state& w) {
    appendf(out, "  wake lock: %u references, %s\n", w.count, w.held ? "held" : "not held");
    if (w.holdoff_ms == 0) {
        appendf(out, "    hold-off: off\n");
    } else if (w.release_pending) {
        appendf(out, "    hold-off: %u ms, release pending, due in %.1f ms\n", w.holdoff_ms,
                static_cast<double>(w.release_due_in_ns) / kNsPerMs);
    } else {
        appendf(out, "    hold-off: %u ms, no release pending\n", w.holdoff_ms);
    }
    appendf(out, "    kernel writes: %" PRIu64 " lock, %" PRIu64 " unlock\n", w.lock_writes,
            w.unlock_writes);
}

std::string format_connection(const void* conn, const connection_snapshot& s) {
    std::string out;
    appendf(&out, "Connection (tav_ducto 0x%llx)\n", kivhal::connection::conn_id(conn));
    appendf(&out, "  channel: \"%s\", fd %d, reader thread %s\n", s.channel_name.c_str(), s.fd,
            s.reader_running ? "running" : "stopped");
    appendf(&out, "  reconnecting: %s, closing: %s\n", yes_no(s.reconnecting), yes_no(s.closing));
    appendf(&out, "  channel errors: %u in a row (limit %u)\n", s.error_count, s.error_limit);
    appendf(&out, "  registered sensors: %zu (client request ids %zu in use, %zu free)\n",
            s.callbacks, s.used_ids, s.free_ids);
    for (const auto& [id, suid] : s.registrations) {
        appendf(&out, "    client request id %u: %s\n", id, suid_text(suid).c_str());
    }
    append_suid_list(&out, "pending responses, oldest first", s.pending_responses);
    append_suid_list(&out, "disable requests awaiting their response", s.pending_disables);
    appendf(&out, "  low-power sessions: %zu, aggregate %s\n", s.sessions.size(),
            low_power_state_name(s.aggregate));
    for (const auto& [session, state] : s.sessions) {
        appendf(&out, "    session %u: %s\n", session, low_power_state_name(state));
    }
    if (s.has_wakelock) append_wakelock(&out, s.wakelock);
    if (!s.has_capture) {
        appendf(&out, "  capture: off\n");
    } else {
        appendf(&out,
                "  capture: %s, \"%s\", interface %u, %" PRIu64 " records, %" PRIu64
                " dropped (buffer full), %" PRIu64 " file writes\n",
                s.capture.on ? "on" : "off after an error", s.capture.path.c_str(),
                s.capture.interface_id, s.capture.records, s.capture.dropped, s.capture.file_writes);
    }
    return out;
}

}  // namespace

void tav_ducto::dump(int fd) {
    connection_snapshot s;
    {
        kivhal::lock_guard lock(_s_ducto_read_mutex);
        s.channel_name = _channel_name;
        s.reader_running = _thread_started;
    }
    s.fd = _s_chnl_fd;
    s.reconnecting = _is_reconnecting;
    s.closing = _is_closing;
    s.error_count = g_ducto_err_cnt;
    s.error_limit = _max_err_cnt;
    {
        kivhal::lock_guard lock(_cb_map_mutex);
        s.registrations = _clientreq_suid_map;
        s.callbacks = _cb_suid_map.size();
    }
    {
        kivhal::lock_guard lock(_s_mutex);
        s.free_ids = _free_client_req_ids.size();
        s.used_ids = _used_client_req_ids.size();
        s.pending_responses = _pending_resp_suids;
    }
    {
        kivhal::lock_guard lock(_suid_map_mutex);
        s.pending_disables = _registered_suids;
    }
    {
        kivhal::lock_guard lock(_lps_db_mutex);
        s.sessions.insert(_lps_db.begin(), _lps_db.end());
        s.aggregate = kivhal::connection::aggregate_low_power_state(_lps_db);
    }
    if (_wakelock != nullptr) {
        s.has_wakelock = true;
        s.wakelock = _wakelock->get_state();
    }
    if (_capture) {
        s.has_capture = true;
        s.capture = _capture->get_status();
    }
    kivhal::dump::write_fully(fd, format_connection(this, s));
}
