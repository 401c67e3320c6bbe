#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <vector>

#include "kiv_thread_annotations.h"

// The kernel wake lock's name; the NUL byte is written with it.
extern const char* KIV_WACKLOCK_NAME;

// A thread that waits out a deferred release for the wake lock (the
// connection's worker; a test's virtual clock). The wake lock calls arm() with
// its own mutex held, so the host takes no lock in arm() that it holds while
// calling back: at or after the deadline it calls on_holdoff_timer(this) from
// its own thread, holding nothing.
class wakelock_timer_host {
  public:
    // Monotonic nanoseconds.
    virtual int64_t now_ns() = 0;
    // Replaces any earlier deadline.
    virtual void arm(int64_t deadline_ns) = 0;

  protected:
    ~wakelock_timer_host() = default;
};

// Process-wide counted holder of one kernel wake lock: taken when the count
// leaves 0, dropped when it returns to 0. With a hold-off (a property read
// once, at construction) the drop waits that long on a timer host, and a
// reference taken meanwhile keeps the lock without any kernel write.
class sns_wakelock {
  public:
    // Not locked: first use is the connection's constructor.
    static sns_wakelock* get_instance();

    void get_n_locks(uint32_t n) EXCLUDES(_mutex);
    void put_n_locks(uint32_t n) EXCLUDES(_mutex);
    void put_all() EXCLUDES(_mutex);
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
    state get_state() EXCLUDES(_mutex);

    // Fixed at construction.
    uint32_t holdoff_ms() const { return _holdoff_ms; }
    // Hosts are used first-added first; a host must be removed before it goes
    // away. Removing the armed one moves a pending release to the next host,
    // or writes it at once when none is left.
    void add_timer_host(wakelock_timer_host* host) EXCLUDES(_mutex);
    void remove_timer_host(wakelock_timer_host* host) EXCLUDES(_mutex);
    void on_holdoff_timer(wakelock_timer_host* host) EXCLUDES(_mutex);
    // Writes a pending release now: the kernel keeps a named lock past the
    // death of its process.
    void flush_deferred_release() EXCLUDES(_mutex);

    ~sns_wakelock();

    sns_wakelock(const sns_wakelock&) = delete;
    sns_wakelock& operator=(const sns_wakelock&) = delete;

  private:
    sns_wakelock();
    void acquire() REQUIRES(_mutex);
    void release() REQUIRES(_mutex);
    bool defer_release() REQUIRES(_mutex);
    void arm(wakelock_timer_host* host) REQUIRES(_mutex);
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
    std::vector<wakelock_timer_host*> _timer_hosts GUARDED_BY(_mutex);
    // The host whose expiry is awaited; null when none is.
    wakelock_timer_host* _armed_host GUARDED_BY(_mutex);
    uint64_t _lock_writes GUARDED_BY(_mutex);
    uint64_t _unlock_writes GUARDED_BY(_mutex);

    static sns_wakelock* _self;
};
