#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>

#include "kiv_thread_annotations.h"
#include "sns_wakelock.h"

// A task-queue thread owned by every connection. Nothing enqueues work today;
// it starts, idles and is stopped with its connection. With a wake-lock
// hold-off it also times the deferred release.
//
// Lock order: the wake lock's mutex before the worker's. The wake lock arms
// the timer under its own mutex; the worker calls back into the wake lock
// with its own mutex released. (_wakelock, which would drop a reference under
// the worker's mutex, is never set.)
class worker : public wakelock_timer_host {
  public:
    worker();
    ~worker();
    worker(const worker&) = delete;
    worker& operator=(const worker&) = delete;

    // Thread entry point; `arg` is the worker.
    static void* thread_execute(void* arg);
    void remaining_ind_mem_cleanup() EXCLUDES(_mutex);

    pthread_t& thread() { return _thread; }

    // Calls `wakelock`'s on_holdoff_timer when an armed deadline passes.
    void serve_holdoff(sns_wakelock* wakelock) EXCLUDES(_mutex);
    int64_t now_ns() override;
    void arm(int64_t deadline_ns) override EXCLUDES(_mutex);

  private:
    void run() EXCLUDES(_mutex);
    // Waits for a task, the stop or the armed deadline.
    void wait_once() REQUIRES(_mutex);

    std::atomic<bool> _running;
    std::deque<std::function<void()>> _tasks GUARDED_BY(_mutex);
    std::deque<void*> _ind_mem GUARDED_BY(_mutex);
    kivhal::pthread_mutex _mutex;
    pthread_cond_t _cond;
    pthread_t _thread;
    char _name[20] GUARDED_BY(_mutex);
    sns_wakelock* _wakelock;
    bool _started;  // the thread exists and must be joined
    sns_wakelock* _holdoff_owner GUARDED_BY(_mutex);
    int64_t _holdoff_deadline_ns GUARDED_BY(_mutex);  // kNoDeadline when not armed

    friend class tav_ducto;
};
