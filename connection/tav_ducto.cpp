// Construction, teardown and the channel's low-level I/O.
#include "tav_ducto.h"

#include <cutils/trace.h>
#include <fcntl.h>
#include <unistd.h>
#include <utils/SystemClock.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kiv_feature_flags.h"
#include "kiv_log.h"
#include "kivhal/platform.h"
#include "sns_wakelock.h"
#include "tav_ducto_internal.h"

using kivhal::connection::conn_id;
using kivhal::connection::query_trace_tags;

namespace {

constexpr char kDevNodePrefix[] = "/dev/ductopkt_vorla_";
constexpr int kOpenAttempts = 3;
constexpr unsigned kOpenBackoffSeconds = 1;
constexpr int MAX_DUCTO_READ_RETRIES = 3;
constexpr uint32_t MAX_DUCTO_WRITE_RETRIES = 100;
constexpr useconds_t kWriteBackoffUs = 5000;
constexpr uint32_t kMaxErrCnt = 10;
constexpr char kThreadStopByte = 'd';
// ducto_read learns the packet's length once this many bytes are in.
constexpr uint32_t kPacketLenKnownAt = 7;
constexpr size_t kPacketLenOffset = 4;

}  // namespace

tav_ducto::tav_ducto(tav_ducto_config config)
    : _s_chnl_fd(-1),
      _wakeup_pipe{-1, -1},
      _thread_started(false),
      _max_err_cnt(kMaxErrCnt),
      g_ducto_err_cnt(0),
      _is_reconnecting(false),
      _is_closing(false),
      _ind_payload(nullptr),
      _ind_payload_len(0),
      _wakelock(nullptr) {
    _lps_db.max_load_factor(1.0f);
    if (pthread_create(&_worker.thread(), nullptr, worker::thread_execute, &_worker) != 0) {
        throw ducto_error(-errno, "TAV_DUCTO worker creation failed");
    }
    _worker._started = true;
    KIV_LOGD("TAV_DUCTO_int conn = 0x%llx constructor", conn_id(this));

    _wakelock = sns_wakelock::get_instance();
    check_kiv_trace_support_flag();

    if (config.channel_name == nullptr) {
        KIV_LOGE("TAV_DUCTO_int no channel name");
        throw ducto_error(-EINVAL, "TAV_DUCTO_int open failed");
    }
    _capture = kivhal::connection::channel_capture::from_property(config.channel_name);
    try {
        ducto_connect(std::string(config.channel_name));
    } catch (...) {
        // The destructor does not run for a half-built object.
        if (_thread_started) {
            ducto_disconnect(true);
        } else if (_s_chnl_fd >= 0) {
            ducto_disconnect(false);
        }
        throw;
    }
}

tav_ducto::~tav_ducto() {
    KIV_LOGI("TAV_DUCTO_int conn = 0x%llx destructor", conn_id(this));
    _is_closing = true;
    g_ducto_err_cnt = 0;
    ducto_disconnect(true);
    destroy_map_table();
    {
        kivhal::lock_guard lock(_s_mutex);
        _pending_resp_suids.clear();
    }
    {
        kivhal::lock_guard lock(_suid_map_mutex);
        _registered_suids.clear();
    }
}

void tav_ducto::ducto_connect(std::string channel_name) {
    const std::string dev_node = kDevNodePrefix + channel_name;
    KIV_LOGD("TAV_DUCTO_int ducto_connect waiting for _s_ducto_read_mutex");
    {
        kivhal::lock_guard lock(_s_ducto_read_mutex);
        if (_s_chnl_fd >= 1) {
            KIV_LOGI("TAV_DUCTO_int channel is already opened");
            return;
        }
        _s_chnl_fd = ducto_open(dev_node);
        if (_s_chnl_fd < 0) {
            KIV_LOGE("TAV_DUCTO_int ducto_open failed");
            throw ducto_error(_s_chnl_fd, "TAV_DUCTO_int open failed");
        }
        _channel_name = channel_name;

        if (_s_chnl_fd > 0 && !_thread_started) {
            if (pipe2(_wakeup_pipe, O_CLOEXEC) != 0) {
                throw ducto_error(_wakeup_pipe[0], "TAV_DUCTO pipe creation failed");
            }
            _reader_thread = std::thread(ducto_thread_routine, this);
            _thread_started = true;
        }
        initialize_client_req_id_db();
    }
    tav_update_sensorstore_header_reset_field(1);
}

int tav_ducto::ducto_open(std::string dev_node) {
    const std::string path = kivhal::platform::resolve_path(dev_node);
    for (int attempt = 1; attempt <= kOpenAttempts; ++attempt) {
        KIV_LOGD("TAV_DUCTO_int about to open ducto channel on dev node = %s", dev_node.c_str());
        const int fd = kivhal::platform::open_node(path.c_str(), O_RDWR | O_NONBLOCK);
        // Descriptor 0 is refused on purpose: it is never the channel.
        if (fd >= 1) {
            KIV_LOGD("TAV_DUCTO_int ducto open successful, fd = %d", fd);
            return fd;
        }
        const int err = errno;
        if (err != ETIMEDOUT) {
            KIV_LOGE("TAV_DUCTO_int open on dev node = %s failed with errno = %d", dev_node.c_str(),
                     err);
            return -err;
        }
        KIV_LOGE("TAV_DUCTO_int ducto channel open timeout on dev node = %s, retries count =  %d",
                 dev_node.c_str(), attempt);
        sleep(kOpenBackoffSeconds);
    }
    return -ETIMEDOUT;
}

int tav_ducto::ducto_read(int fd, uint8_t* buf, uint32_t len) {
    KIV_LOGD("TAV_DUCTO_int ducto_read fd = %d buf_len = %zu", fd, static_cast<size_t>(len));
    if (len == 0) {
        KIV_LOGD("TAV_DUCTO_int complete read bytes = %d", 0);
        return 0;
    }
    uint32_t total = 0;
    uint32_t want = len;
    int eagain_count = 0;
    bool header_seen = false;
    for (;;) {
        // The device returns whole packets; never ask past the buffer's end.
        const ssize_t n = kivhal::platform::read_node(fd, buf + total, std::min(want, len - total));
        if (n < 0) {
            const int err = errno;
            if (err != EAGAIN) {
                ++g_ducto_err_cnt;
                KIV_LOGE("TAV_DUCTO_int read failed with errno = %d", err);
                return -err;
            }
            KIV_LOGE("TAV_DUCTO_int read EAGAIN has occured on fd = %d", fd);
            if (++eagain_count == MAX_DUCTO_READ_RETRIES) {
                ++g_ducto_err_cnt;
                KIV_LOGE(
                    "TAV_DUCTO_int read MAX_DUCTO_READ_RETRIES = %d has finished & "
                    "g_ducto_err_cnt = %d",
                    MAX_DUCTO_READ_RETRIES, g_ducto_err_cnt.load());
                if (_capture && total > 0) {
                    _capture->inbound(buf, total, kivhal::connection::capture_reason::short_packet);
                }
                return -EAGAIN;
            }
            continue;
        }
        total += static_cast<uint32_t>(n);
        KIV_LOGD("TAV_DUCTO_int partial read bytes = %d", static_cast<int>(n));
        if (!header_seen && total >= kPacketLenKnownAt) {
            header_seen = true;
            want = static_cast<uint32_t>(buf[kPacketLenOffset]) |
                   (static_cast<uint32_t>(buf[kPacketLenOffset + 1]) << 8);
            KIV_LOGD("TAV_DUCTO_int pkt size to be read = %d", want);
            if (want > len) {
                KIV_LOGE("TAV_DUCTO_int pkt size %u is larger than the buffer of %u bytes, dropped",
                         want, len);
                if (_capture) {
                    _capture->inbound(buf, total,
                                      kivhal::connection::capture_reason::length_past_buffer);
                }
                return 0;
            }
        }
        if (total >= want) {
            KIV_LOGD("TAV_DUCTO_int complete read bytes = %d", total);
            return static_cast<int>(total);
        }
    }
}

int tav_ducto::ducto_write(int fd, uint8_t* buf, uint32_t len) {
    KIV_LOGD(
        "TAV_DUCTO_int conn = 0x%llx write fd = %d buf_len = %zu, waiting for "
        "_s_ducto_read_mutex",
        conn_id(this), fd, static_cast<size_t>(len));
    kivhal::unique_lock lock(_s_ducto_read_mutex);
    if (_s_chnl_fd == -1) {
        KIV_LOGE("TAV_DUCTO_int conn = 0x%llx write is not permitted as_s_chnl_fd is -1",
                 conn_id(this));
        return 0;
    }
    query_trace_tags();
    if (_wakelock != nullptr) {
        KIV_LOGD("acquiring wakelock");
        _wakelock->get_n_locks(1);
    }
    // Recorded with its send time before the write, so it precedes its
    // answer in the capture.
    kivhal::connection::channel_capture::reservation captured = {0, false};
    if (_capture) captured = _capture->reserve_outbound(buf, len);

    int result = 0;
    bool failed = false;
    uint32_t remaining = len;
    uint32_t total = 0;
    uint32_t retries = 0;
    while (remaining > 0) {
        const ssize_t n = kivhal::platform::write_node(fd, buf, remaining);
        if (n < 0) {
            const int err = errno;
            failed = true;
            result = -err;
            if (err != EBUSY && err != EAGAIN) {
                ++g_ducto_err_cnt;
                KIV_LOGE(
                    "TAV_DUCTO_int conn = 0x%llx write has failed with errno = %d & "
                    "g_ducto_err_cnt = %d",
                    conn_id(this), err, g_ducto_err_cnt.load());
                break;
            }
            ++retries;
            KIV_LOGE("TAV_DUCTO conn = 0x%llx write failed with errno = %d", conn_id(this), err);
            if (retries == MAX_DUCTO_WRITE_RETRIES) {
                ++g_ducto_err_cnt;
                KIV_LOGE(
                    "TAV_DUCTO_int conn = 0x%llx write MAX_DUCTO_WRITE_RETRIES = %d has "
                    "finished on fd = %d & g_ducto_err_cnt = %d",
                    conn_id(this), MAX_DUCTO_WRITE_RETRIES, fd, g_ducto_err_cnt.load());
                break;
            }
            failed = false;
            usleep(kWriteBackoffUs);
            continue;
        }
        result = static_cast<int>(n);
        if (n == 0) break;
        KIV_LOGD("TAV_DUCTO_int conn = 0x%llx partial bytes written= %d", conn_id(this), result);
        buf += n;
        remaining -= static_cast<uint32_t>(n);
        total += static_cast<uint32_t>(n);
    }
    // Committed under the write lock: one reservation per connection at a time.
    if (_capture) _capture->commit_outbound(captured, !failed && total > 0);
    lock.unlock();

    if (!failed) {
        KIV_LOGI("TAV_DUCTO_int conn = 0x%llx complete bytes written= %d retries %d", conn_id(this),
                 total, retries);
    }
    if (_wakelock != nullptr) {
        KIV_LOGD("releasing wakelock");
        _wakelock->put_n_locks(1);
    }
    query_trace_tags();
    // The last write's result, not the total: only a packet that went out in
    // one piece equals its length.
    return result;
}

void tav_ducto::ducto_disconnect(bool stop_reader) {
    if (stop_reader && _thread_started) {
        const char stop = kThreadStopByte;
        if (write(_wakeup_pipe[1], &stop, sizeof(stop)) != sizeof(stop)) {
            KIV_LOGE("TAV_DUCTO write err on wakup pipe rrrno = %d no way to join readthread",
                     errno);
        }
        // A service that owns the connection in a static object destroys it
        // from exit(), which a hang-up calls on the reader thread itself.
        if (_reader_thread.get_id() == std::this_thread::get_id()) {
            _reader_thread.detach();
        } else if (_reader_thread.joinable()) {
            _reader_thread.join();
        }
        {
            kivhal::lock_guard lock(_s_mutex);
            _free_client_req_ids.clear();
            _used_client_req_ids.clear();
        }
        _thread_started = false;
        close(_wakeup_pipe[0]);
        close(_wakeup_pipe[1]);
        _wakeup_pipe[0] = _wakeup_pipe[1] = -1;
    }

    // Under the write lock, so that no sender writes to a descriptor number
    // that is being closed.
    kivhal::lock_guard lock(_s_ducto_read_mutex);
    const int fd = _s_chnl_fd;
    if (close(fd) != 0) {
        KIV_LOGE("TAV_DUCTO_int close on _s_chnl_fd = %d failed with errno = %d", fd, errno);
    }
    _s_chnl_fd = -1;
}

void tav_ducto::destroy_map_table() {
    kivhal::lock_guard lock(_cb_map_mutex);
    while (!_cb_suid_map.empty()) {
        tav_register_cb* record = _cb_suid_map.begin()->first;
        _cb_suid_map.erase(_cb_suid_map.begin());
        delete record;
    }
}

void tav_ducto::ducto_error_handler(int error) {
    KIV_LOGI("TAV_DUCTO_int ducto_error_handler received error = %d", error);
    if (error == POLLHUP) {
        // The core restarted. Recovery is a restart of the whole HAL process
        // by its supervisor, not a reconnect.
        KIV_LOGD("TAV_DUCTO_int Inside POLLHUP error handler");
        _is_reconnecting = true;
        ducto_disconnect(false);
        // The service's own atexit handlers and static destructors run; so
        // do the wake lock's, which writes a release the hold-off deferred,
        // and the capture's, which writes its last records.
        exit(1);
    }
    KIV_LOGV("TAV_DUCTO_int waitig for _s_ducto_read_mutex");
    kivhal::lock_guard lock(_s_ducto_read_mutex);
    if (++g_ducto_err_cnt > _max_err_cnt) {
        KIV_LOGD("TAV_DUCTO_int triggred ssr g_ducto_err_cnt = %d", g_ducto_err_cnt.load());
        g_ducto_err_cnt = 0;
    }
}
