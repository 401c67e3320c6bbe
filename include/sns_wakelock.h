#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

// The kernel wake lock's name; the NUL byte is written with it.
extern const char* KIV_WACKLOCK_NAME;

// Process-wide counted holder of one kernel wake lock: taken when the count
// leaves 0, dropped when it returns to 0.
class sns_wakelock {
public:
    // Not locked: first use is the connection's constructor.
    static sns_wakelock* get_instance();

    void get_n_locks(uint32_t n);
    void put_n_locks(uint32_t n);
    void put_all();
    void wait_for_held();

    // The reference count and whether the kernel lock is held, read together.
    struct state {
        uint32_t count;
        bool held;
    };
    state get_state();

    ~sns_wakelock();

    sns_wakelock(const sns_wakelock&) = delete;
    sns_wakelock& operator=(const sns_wakelock&) = delete;

private:
    sns_wakelock();
    void acquire();
    void release();

    uint32_t _accu_count;
    std::mutex _mutex;
    std::condition_variable _cond;
    int _lock_fd;
    int _unlock_fd;
    bool _held;

    static sns_wakelock* _self;
};
