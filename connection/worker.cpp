#include "worker.h"

#include <cstdlib>
#include <cstring>
#include <exception>

#include "kiv_log.h"
#include "sns_wakelock.h"

namespace {
constexpr char kRunningName[] = "create";
constexpr char kExitedName[] = "exit";
}  // namespace

worker::worker() : _running(true), _thread(), _wakelock(nullptr), _started(false) {
    pthread_mutex_init(&_mutex, nullptr);
    pthread_cond_init(&_cond, nullptr);
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

void worker::run() {
    if (!_running) return;
    for (;;) {
        kivhal::pthread_lock(&_mutex);
        while (_tasks.empty() && _running) pthread_cond_wait(&_cond, &_mutex);
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
