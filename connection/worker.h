#pragma once

#include <pthread.h>

#include <atomic>
#include <deque>
#include <functional>

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
    void remaining_ind_mem_cleanup();

    pthread_t& thread() { return _thread; }

private:
    void run();

    std::atomic<bool> _running;
    std::deque<std::function<void()>> _tasks;
    std::deque<void*> _ind_mem;
    pthread_mutex_t _mutex;
    pthread_cond_t _cond;
    pthread_t _thread;
    char _name[20];
    sns_wakelock* _wakelock;
    bool _started;  // the thread exists and must be joined

    friend class tav_ducto;
};
