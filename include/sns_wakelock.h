#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "kiv_thread_annotations.h"

// The kernel wake lock's name; the NUL byte is written with it.
extern const char* KIV_WACKLOCK_NAME;

// Process-wide counted holder of one kernel wake lock: taken when the count
// leaves 0, dropped when it returns to 0.
class sns_wakelock {
public:
    // Not locked: first use is the connection's constructor.
    static sns_wakelock* get_instance();

    void get_n_locks(uint32_t n) EXCLUDES(_mutex);
    void put_n_locks(uint32_t n) EXCLUDES(_mutex);
    void put_all() EXCLUDES(_mutex);
    void wait_for_held() EXCLUDES(_mutex);

    // The reference count and whether the kernel lock is held, read together.
    struct state {
        uint32_t count;
        bool held;
    };
    state get_state() EXCLUDES(_mutex);

    ~sns_wakelock();

    sns_wakelock(const sns_wakelock&) = delete;
    sns_wakelock& operator=(const sns_wakelock&) = delete;

private:
    sns_wakelock();
    void acquire() REQUIRES(_mutex);
    void release() REQUIRES(_mutex);

    uint32_t _accu_count GUARDED_BY(_mutex);
    kivhal::mutex _mutex;
    std::condition_variable _cond;
    // Opened by the constructor and closed by the destructor only.
    int _lock_fd;
    int _unlock_fd;
    bool _held GUARDED_BY(_mutex);

    static sns_wakelock* _self;
};
