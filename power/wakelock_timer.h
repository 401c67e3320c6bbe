#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <thread>

#include "kiv_thread_annotations.h"

// What the hold-off waits on. The real one is CLOCK_MONOTONIC; tests pass a
// virtual one.
class wakelock_clock {
  public:
    static constexpr int64_t kNever = -1;

    virtual ~wakelock_clock() = default;
    // Nanoseconds on the clock; any thread; does not throw.
    virtual int64_t now_ns() = 0;
    // With `lock` held, waits on `cond` until it is notified or `deadline_ns`
    // (kNever: none) is reached; returns with `lock` held, true when it timed
    // out. May wake spuriously (false). Does not throw.
    virtual bool wait_until(kivhal::unique_lock& lock, std::condition_variable& cond,
                            int64_t deadline_ns) = 0;

    // Never destroyed: the timer thread may still wait on it during exit().
    static wakelock_clock* monotonic();
    // Tests: the clock of the next wake lock created; null restores the
    // monotonic one. Not locked.
    static void use_for_next_wakelock(wakelock_clock* clock);
    static wakelock_clock* for_new_wakelock();
};

// One thread that calls `expired` (holding no lock) when an armed deadline
// is reached. The wake lock arms it under its own mutex, so that mutex is
// taken before this one.
class wakelock_timer {
  public:
    // Starts the thread; std::system_error if it cannot be created.
    wakelock_timer(wakelock_clock* clock, std::function<void()> expired);
    // Stops and joins the thread; must not run on it.
    ~wakelock_timer();
    wakelock_timer(const wakelock_timer&) = delete;
    wakelock_timer& operator=(const wakelock_timer&) = delete;

    // Replaces any earlier deadline; any thread.
    void arm(int64_t deadline_ns) EXCLUDES(_mutex);
    int64_t now_ns() { return _clock->now_ns(); }

  private:
    void run() EXCLUDES(_mutex);

    wakelock_clock* const _clock;
    const std::function<void()> _expired;
    kivhal::mutex _mutex;
    std::condition_variable _cond;
    int64_t _deadline_ns GUARDED_BY(_mutex) = wakelock_clock::kNever;
    bool _stopping GUARDED_BY(_mutex) = false;
    std::thread _thread;  // last: starts once the rest is built
};
