#pragma once

// Discovery on virtual time: every sleep and timed wait returns at once and
// moves the clock on by its length, as against a core whose answers are all
// in by then; a timed wait can instead be ended by its signal. Installed for
// its lifetime.

#include <errno.h>
#include <pthread.h>
#include <time.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "discovery_util.h"

namespace kivhal {
namespace test {

class virtual_clock : public discovery::discovery_clock {
  public:
    // Starts well away from zero: discovery treats a time stamp of 0 as none.
    static constexpr int64_t kStartNs = 1000LL * 1000 * 1000 * 1000;

    virtual_clock() { discovery::set_clock(this); }
    ~virtual_clock() override { discovery::set_clock(nullptr); }
    virtual_clock(const virtual_clock&) = delete;
    virtual_clock& operator=(const virtual_clock&) = delete;

    int64_t steady_now_ns() override {
        std::lock_guard<std::mutex> lock(_mutex);
        return _now;
    }
    int sleep_ns(int64_t ns) override {
        if (meanwhile) meanwhile();
        pass(ns);
        return 0;
    }
    // Without `meanwhile`, runs to its time-out and the caller looks at its
    // flag afterwards. With it, really waits on `cond` while `meanwhile` runs
    // on another thread: a wake-up by signal costs no virtual time.
    int timed_wait_ns(pthread_cond_t* cond, pthread_mutex_t* mutex, int64_t ns) override {
        if (!meanwhile) {
            pass(ns);
            return ETIMEDOUT;
        }
        std::thread answers(meanwhile);
        timespec limit;
        clock_gettime(CLOCK_REALTIME, &limit);
        limit.tv_sec += 2;
        const int result = pthread_cond_timedwait(cond, mutex, &limit);
        pthread_mutex_unlock(mutex);
        answers.join();
        pthread_mutex_lock(mutex);
        pass(result == 0 ? 0 : ns);
        return result;
    }
    // Run during every timed wait and before every sleep: answers that
    // arrive meanwhile.
    std::function<void()> meanwhile;
    // Every pause so far, in nanoseconds, in order.
    std::vector<int64_t> pauses() const {
        std::lock_guard<std::mutex> lock(_mutex);
        return _pauses;
    }

  private:
    void pass(int64_t ns) {
        std::lock_guard<std::mutex> lock(_mutex);
        _now += ns;
        _pauses.push_back(ns);
    }

    mutable std::mutex _mutex;
    int64_t _now = kStartNs;
    std::vector<int64_t> _pauses;
};

}  // namespace test
}  // namespace kivhal
