#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>

#include "kiv_thread_annotations.h"

// The kernel wake lock's name; the NUL byte is written with it.
extern const char* KIV_WACKLOCK_NAME;

// Process-wide counted holder of one kernel wake lock: taken when the count
// leaves 0, dropped when it returns to 0. With a hold-off (a property read
// once, at construction) the drop waits that long, and a reference taken
// meanwhile keeps the lock without any kernel write.
class sns_wakelock {
  public:
    // Never null; creates the instance (never destroyed by the library) on
    // first use; std::bad_alloc. Not locked: first use is the connection's
    // constructor.
    static sns_wakelock* get_instance();

    // Each: no result (failures are logged), does not throw, any thread;
    // the kernel write, if any, is made on the calling thread.
    void get_n_locks(uint32_t n) EXCLUDES(_mutex);
    void put_n_locks(uint32_t n) EXCLUDES(_mutex);
    void put_all() EXCLUDES(_mutex);
    // Blocks until held or a spurious wake-up; any thread but a holder of _mutex.
    void wait_for_held() EXCLUDES(_mutex);

    // Read together under the mutex.
    struct state {
        uint32_t count;
        bool held;
        uint32_t holdoff_ms;  // 0: released as soon as the count returns to 0
        bool release_pending;
        int64_t release_due_in_ns;  // while pending
        uint64_t lock_writes;       // kernel writes made since construction
        uint64_t unlock_writes;
    };
    // Does not throw; any thread.
    state get_state() EXCLUDES(_mutex);

    // Fixed at construction; does not throw; any thread.
    uint32_t holdoff_ms() const { return _holdoff_ms; }
    // Writes a pending release now (the kernel keeps a named lock past the
    // death of its process) and releases at once from then on. Does not
    // throw; any thread.
    void flush_deferred_release() EXCLUDES(_mutex);

    // Releases a held lock; tests only (the instance lives to the end).
    ~sns_wakelock();

    sns_wakelock(const sns_wakelock&) = delete;
    sns_wakelock& operator=(const sns_wakelock&) = delete;

  private:
    sns_wakelock();
    void acquire() REQUIRES(_mutex);
    void release() REQUIRES(_mutex);
    bool defer_release() REQUIRES(_mutex);
    void deadline_reached() EXCLUDES(_mutex);
    static void flush_at_exit();

    uint32_t _accu_count GUARDED_BY(_mutex);
    kivhal::mutex _mutex;
    std::condition_variable _cond;
    // Opened by the constructor and closed by the destructor only.
    int _lock_fd;
    int _unlock_fd;
    bool _held GUARDED_BY(_mutex);
    const uint32_t _holdoff_ms;
    bool _release_pending GUARDED_BY(_mutex);
    int64_t _release_deadline_ns GUARDED_BY(_mutex);
    // Null without a hold-off and once flushed for good.
    std::unique_ptr<class wakelock_timer> _timer GUARDED_BY(_mutex);
    bool _timer_armed GUARDED_BY(_mutex);
    uint64_t _lock_writes GUARDED_BY(_mutex);
    uint64_t _unlock_writes GUARDED_BY(_mutex);

    static sns_wakelock* _self;
};
