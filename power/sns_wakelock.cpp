#include "sns_wakelock.h"

#include <cutils/properties.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "kiv_log.h"
#include "kivhal/platform.h"
#include "wakelock_timer.h"

const char* KIV_WACKLOCK_NAME = "KIVHAL_WAKEUP";

sns_wakelock* sns_wakelock::_self = nullptr;

namespace {
constexpr char kWakeLockPath[] = "/sys/power/wake_lock";
constexpr char kWakeUnlockPath[] = "/sys/power/wake_unlock";
constexpr char kHoldoffProperty[] = "persist.vendor.kiv.wakelock_holdoff_ms";
// Longer than this keeps the device awake for the hold-off rather than for work.
constexpr unsigned long kMaxHoldoffMs = 10000;
constexpr int64_t kNsPerMs = 1000000;

// Unset, empty or 0: off, with no log line, so nothing changes.
uint32_t read_holdoff_ms(kiv_log_op op) {
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(kHoldoffProperty, value, "0");
    if (value[0] == '\0') return 0;
    char* end = nullptr;
    errno = 0;
    const unsigned long ms = strtoul(value, &end, 10);
    if (value[0] < '0' || value[0] > '9' || *end != '\0' || errno != 0 || ms > kMaxHoldoffMs) {
        KIV_LOGE_FOR(op, "%s \"%s\" is not a number of milliseconds up to %lu, hold-off off",
                     kHoldoffProperty, value, kMaxHoldoffMs);
        return 0;
    }
    if (ms > 0) KIV_LOGI_FOR(op, "wake lock hold-off %lu ms", ms);
    return static_cast<uint32_t>(ms);
}

// Both files' failures are the constructor's (`op`) lines, from one statement.
int open_wakelock_file(const char* path, kiv_log_op op) {
    const std::string resolved = kivhal::platform::resolve_path(path);
    int fd = open(resolved.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        // The missing kernel files only make every acquire and release log.
        KIV_LOGE_FOR(op, "fatal error opening \"%s\": %s\n", path, strerror(errno));
    }
    return fd;
}

// The kernel takes the name with its terminating NUL.
ssize_t write_name(int fd) {
    return write(fd, KIV_WACKLOCK_NAME, strlen(KIV_WACKLOCK_NAME) + 1);
}
}  // namespace

sns_wakelock* sns_wakelock::get_instance() {
    if (_self == nullptr) _self = new sns_wakelock();
    return _self;
}

// A process that ends through exit() with a release pending, a hang-up of
// the channel included, must not leave the kernel lock held.
void sns_wakelock::flush_at_exit() {
    if (_self != nullptr) _self->flush_deferred_release();
}

sns_wakelock::state sns_wakelock::get_state() {
    kivhal::lock_guard lock(_mutex);
    state s{_accu_count, _held, _holdoff_ms, _release_pending, 0, _lock_writes, _unlock_writes};
    if (_release_pending) {
        s.release_due_in_ns = std::max<int64_t>(0, _release_deadline_ns - _timer->now_ns());
    }
    return s;
}

sns_wakelock::sns_wakelock()
    : _accu_count(0),
      _lock_fd(-1),
      _unlock_fd(-1),
      _held(false),
      _holdoff_ms(read_holdoff_ms(KIV_LOG_OP)),
      _release_pending(false),
      _release_deadline_ns(0),
      _timer_armed(false),
      _lock_writes(0),
      _unlock_writes(0) {
    _lock_fd = open_wakelock_file(kWakeLockPath, KIV_LOG_OP);
    _unlock_fd = open_wakelock_file(kWakeUnlockPath, KIV_LOG_OP);
    if (_holdoff_ms == 0) return;
    _timer = std::make_unique<wakelock_timer>(wakelock_clock::for_new_wakelock(),
                                              [this] { deadline_reached(); });
    atexit(flush_at_exit);
}

sns_wakelock::~sns_wakelock() {
    if (_self == this) _self = nullptr;
    flush_deferred_release();
    {
        kivhal::lock_guard lock(_mutex);
        if (_held) {
            _accu_count = 0;
            release();
        }
    }
    if (_lock_fd >= 0) close(_lock_fd);
    if (_unlock_fd >= 0) close(_unlock_fd);
}

void sns_wakelock::acquire() {
    if (_lock_fd < 0) {
        KIV_LOGE("Not able to open fd for wakeup:%s", KIV_WACKLOCK_NAME);
        return;
    }
    ++_lock_writes;
    if (write_name(_lock_fd) >= 1) {
        KIV_LOGV("sucess wakelock acquire:%s", KIV_WACKLOCK_NAME);
        _held = true;
        _cond.notify_one();
    } else {
        KIV_LOGE("write fail wakelock acquire:%s, error = %s", KIV_WACKLOCK_NAME, strerror(errno));
    }
}

void sns_wakelock::release() {
    _release_pending = false;
    if (_unlock_fd < 0) {
        KIV_LOGE("Not able to open fd for wakeup:%s", KIV_WACKLOCK_NAME);
        return;
    }
    ++_unlock_writes;
    if (write_name(_unlock_fd) >= 1) {
        KIV_LOGV("sucess release %s wakelock", KIV_WACKLOCK_NAME);
        _held = false;
    } else {
        KIV_LOGE("failed in write:%s wake unlock, error = %s", KIV_WACKLOCK_NAME, strerror(errno));
    }
}

void sns_wakelock::get_n_locks(uint32_t n) {
    kivhal::lock_guard lock(_mutex);
    if (_accu_count > UINT32_MAX - n) {
        KIV_LOGE("_in_count %d will overflow max of _accu_count %u", static_cast<int>(n),
                 _accu_count);
        return;
    }
    if (_accu_count == 0 && !_held) acquire();
    // Taken within the hold-off: the lock is still held, nothing to write.
    if (n > 0) _release_pending = false;
    _accu_count += n;
}

void sns_wakelock::put_n_locks(uint32_t n) {
    kivhal::lock_guard lock(_mutex);
    if (n > _accu_count) {
        KIV_LOGE("_in_count %d is larger than _accu_count %u", static_cast<int>(n), _accu_count);
        return;
    }
    _accu_count -= n;
    if (_accu_count == 0 && _held && !defer_release()) release();
}

bool sns_wakelock::defer_release() {
    if (_timer == nullptr) return false;
    _release_deadline_ns = _timer->now_ns() + static_cast<int64_t>(_holdoff_ms) * kNsPerMs;
    _release_pending = true;
    // One timer per window, not one signal per report: a timer that expires
    // before the newest deadline is re-armed by deadline_reached.
    if (!_timer_armed) _timer->arm(_release_deadline_ns);
    _timer_armed = true;
    return true;
}

void sns_wakelock::deadline_reached() {
    kivhal::lock_guard lock(_mutex);
    _timer_armed = false;
    if (!_release_pending) return;
    if (_timer->now_ns() < _release_deadline_ns) {
        _timer->arm(_release_deadline_ns);
        _timer_armed = true;
    } else {
        release();
    }
}

void sns_wakelock::flush_deferred_release() {
    std::unique_ptr<wakelock_timer> timer;
    {
        kivhal::lock_guard lock(_mutex);
        if (_release_pending) release();
        timer = std::move(_timer);
    }
    // Joined without the mutex: its thread may be waiting for it.
    timer.reset();
}

void sns_wakelock::put_all() {
    kivhal::lock_guard lock(_mutex);
    // Not held: the count is left alone on purpose.
    if (!_held) return;
    _accu_count = 0;
    release();
}

void sns_wakelock::wait_for_held() {
    kivhal::unique_lock lock(_mutex);
    // One wait, not a loop: a spurious wake-up returns early.
    if (!_held) _cond.wait(lock.native());
}
