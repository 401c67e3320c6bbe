#include "worker.h"

#include <time.h>

#include <cstdlib>
#include <cstring>
#include <exception>

#include "kiv_log.h"
#include "sns_wakelock.h"

namespace {
constexpr char kRunningName[] = "create";
constexpr char kExitedName[] = "exit";
constexpr int64_t kNoDeadline = -1;
constexpr int64_t kNsPerSecond = 1000000000;

timespec to_timespec(int64_t ns) {
    timespec ts;
    ts.tv_sec = static_cast<time_t>(ns / kNsPerSecond);
    ts.tv_nsec = static_cast<long>(ns % kNsPerSecond);
    return ts;
}
}  // namespace

worker::worker()
    : _running(true),
      _thread(),
      _wakelock(nullptr),
      _started(false),
      _holdoff_owner(nullptr),
      _holdoff_deadline_ns(kNoDeadline) {
    pthread_mutex_init(&_mutex, nullptr);
    // Deadlines are monotonic: a wall-clock step must not fire or stall them.
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&_cond, &attr);
    pthread_condattr_destroy(&attr);
    memset(_name, 0, sizeof(_name));
    strncpy(_name, kRunningName, sizeof(_name) - 1);
}

worker::~worker() {
    kivhal::pthread_lock(&_mutex);
    _running = false;
    pthread_cond_signal(&_cond);
    kivhal::pthread_unlock(&_mutex);
    if (_started) pthread_join(_thread, nullptr);

    remaining_ind_mem_cleanup();
    if (!_tasks.empty() && _wakelock != nullptr) {
        _wakelock->put_n_locks(static_cast<uint32_t>(_tasks.size()));
    }
    pthread_cond_destroy(&_cond);
    pthread_mutex_destroy(&_mutex);
}

void* worker::thread_execute(void* arg) {
    worker* self = static_cast<worker*>(arg);
    self->run();
    kivhal::pthread_lock(&self->_mutex);
    strncpy(self->_name, kExitedName, sizeof(self->_name) - 1);
    kivhal::pthread_unlock(&self->_mutex);
    return nullptr;
}

void worker::remaining_ind_mem_cleanup() {
    kivhal::pthread_lock(&_mutex);
    while (!_ind_mem.empty()) {
        free(_ind_mem.front());
        _ind_mem.pop_front();
    }
    kivhal::pthread_unlock(&_mutex);
}

void worker::serve_holdoff(sns_wakelock* wakelock) {
    kivhal::pthread_lock_guard lock(&_mutex);
    _holdoff_owner = wakelock;
}

int64_t worker::now_ns() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * kNsPerSecond + ts.tv_nsec;
}

void worker::arm(int64_t deadline_ns) {
    kivhal::pthread_lock_guard lock(&_mutex);
    _holdoff_deadline_ns = deadline_ns;
    pthread_cond_signal(&_cond);
}

void worker::wait_once() {
    if (_holdoff_deadline_ns == kNoDeadline || _holdoff_owner == nullptr) {
        pthread_cond_wait(&_cond, &_mutex);
        return;
    }
    if (now_ns() < _holdoff_deadline_ns) {
        const timespec due = to_timespec(_holdoff_deadline_ns);
        pthread_cond_timedwait(&_cond, &_mutex, &due);
        return;
    }
    _holdoff_deadline_ns = kNoDeadline;
    sns_wakelock* owner = _holdoff_owner;
    kivhal::pthread_unlock(&_mutex);
    owner->on_holdoff_timer(this);
    kivhal::pthread_lock(&_mutex);
}

void worker::run() {
    if (!_running) return;
    for (;;) {
        kivhal::pthread_lock(&_mutex);
        while (_tasks.empty() && _running) wait_once();
        if (!_running) {
            kivhal::pthread_unlock(&_mutex);
            return;
        }
        if (_tasks.empty()) {
            kivhal::pthread_unlock(&_mutex);
            continue;
        }
        std::function<void()> task = std::move(_tasks.front());
        _tasks.pop_front();
        kivhal::pthread_unlock(&_mutex);

        try {
            task();
        } catch (const std::exception& e) {
            KIV_LOGE("task failed, %s", e.what());
        } catch (...) {
            std::terminate();
        }

        kivhal::pthread_lock(&_mutex);
        if (_wakelock != nullptr) _wakelock->put_n_locks(1);
        task = nullptr;
        kivhal::pthread_unlock(&_mutex);
        if (!_running) return;
    }
}
