#include "sns_wakelock.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>

#include "kiv_log.h"
#include "kivhal/platform.h"

const char* KIV_WACKLOCK_NAME = "KIVHAL_WAKEUP";

sns_wakelock* sns_wakelock::_self = nullptr;

namespace {
constexpr char kWakeLockPath[] = "/sys/power/wake_lock";
constexpr char kWakeUnlockPath[] = "/sys/power/wake_unlock";

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

sns_wakelock::state sns_wakelock::get_state() {
    kivhal::lock_guard lock(_mutex);
    return {_accu_count, _held};
}

sns_wakelock::sns_wakelock() : _accu_count(0), _lock_fd(-1), _unlock_fd(-1), _held(false) {
    _lock_fd = open_wakelock_file(kWakeLockPath, KIV_LOG_OP);
    _unlock_fd = open_wakelock_file(kWakeUnlockPath, KIV_LOG_OP);
}

sns_wakelock::~sns_wakelock() {
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
    if (write_name(_lock_fd) >= 1) {
        KIV_LOGV("sucess wakelock acquire:%s", KIV_WACKLOCK_NAME);
        _held = true;
        _cond.notify_one();
    } else {
        KIV_LOGE("write fail wakelock acquire:%s, error = %s", KIV_WACKLOCK_NAME, strerror(errno));
    }
}

void sns_wakelock::release() {
    if (_unlock_fd < 0) {
        KIV_LOGE("Not able to open fd for wakeup:%s", KIV_WACKLOCK_NAME);
        return;
    }
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
    _accu_count += n;
}

void sns_wakelock::put_n_locks(uint32_t n) {
    kivhal::lock_guard lock(_mutex);
    if (n > _accu_count) {
        KIV_LOGE("_in_count %d is larger than _accu_count %u", static_cast<int>(n), _accu_count);
        return;
    }
    _accu_count -= n;
    if (_accu_count == 0 && _held) release();
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
