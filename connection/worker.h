#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>

#include "kiv_thread_annotations.h"

class sns_wakelock;

// A task-queue thread owned by every connection. Nothing enqueues work today;
// it starts, idles and is stopped with its connection.
//
// Lock order: the worker's mutex before the wake lock's (a reference is
// dropped under it).
class worker {
  public:
    // Does not start the thread (the connection does); does not throw.
    worker();
    // Stops and joins a started thread; must not run on it; does not throw.
    ~worker();
    worker(const worker&) = delete;
    worker& operator=(const worker&) = delete;

    // Thread entry point; `arg` is the worker. Returns null; a task's
    // non-std::exception ends the process (std::terminate).
    static void* thread_execute(void* arg);
    // Frees the queued indication buffers; does not throw; any thread.
    void remaining_ind_mem_cleanup() EXCLUDES(_mutex);

    // The handle the connection starts the thread into; not locked.
    pthread_t& thread() { return _thread; }

  private:
    void run() EXCLUDES(_mutex);

    std::atomic<bool> _running;
    std::deque<std::function<void()>> _tasks GUARDED_BY(_mutex);
    std::deque<void*> _ind_mem GUARDED_BY(_mutex);
    kivhal::pthread_mutex _mutex;
    pthread_cond_t _cond;
    pthread_t _thread;
    char _name[20] GUARDED_BY(_mutex);
    sns_wakelock* _wakelock;
    bool _started;  // the thread exists and must be joined

    friend class tav_ducto;
};
