#pragma once

#include <pthread.h>

#include <atomic>
#include <deque>
#include <functional>

#include "kiv_thread_annotations.h"

class sns_wakelock;

// A task-queue thread owned by every connection. Nothing enqueues work today;
// it starts, idles and is stopped with its connection.
class worker {
public:
    worker();
    ~worker();
    worker(const worker&) = delete;
    worker& operator=(const worker&) = delete;

    // Thread entry point; `arg` is the worker.
    static void* thread_execute(void* arg);
    void remaining_ind_mem_cleanup() EXCLUDES(_mutex);

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
