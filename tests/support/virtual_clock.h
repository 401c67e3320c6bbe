#pragma once

// Discovery on virtual time: every sleep and timed wait returns at once and
// moves the clock on by its length, after the in-process core has delivered
// what it owes (`settle`), as a core that answers within any of discovery's
// pauses would. Installed for its lifetime.

#include <errno.h>
#include <pthread.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

#include "discovery_util.h"

namespace kivhal {
namespace test {

class virtual_clock : public discovery::discovery_clock {
public:
    // Starts well away from zero: discovery treats a time stamp of 0 as none.
    static constexpr int64_t kStartNs = 1000LL * 1000 * 1000 * 1000;

    explicit virtual_clock(std::function<void()> settle = nullptr) : _settle(std::move(settle)) {
        discovery::set_clock(this);
    }
    ~virtual_clock() override { discovery::set_clock(nullptr); }
    virtual_clock(const virtual_clock&) = delete;
    virtual_clock& operator=(const virtual_clock&) = delete;

    int64_t steady_now_ns() override {
        std::lock_guard<std::mutex> lock(_mutex);
        return _now;
    }
    int sleep_ns(int64_t ns) override {
        settle();
        pass(ns);
        return 0;
    }
    // Always runs to its time-out; the caller looks at its flag afterwards.
    int timed_wait_ns(pthread_cond_t*, pthread_mutex_t* mutex, int64_t ns) override {
        pthread_mutex_unlock(mutex);
        settle();
        pthread_mutex_lock(mutex);
        pass(ns);
        return ETIMEDOUT;
    }

    // Every pause so far, in nanoseconds, in order.
    std::vector<int64_t> pauses() const {
        std::lock_guard<std::mutex> lock(_mutex);
        return _pauses;
    }
    int64_t elapsed_ns() const {
        std::lock_guard<std::mutex> lock(_mutex);
        return _now - kStartNs;
    }

private:
    void settle() {
        if (_settle) _settle();
    }
    void pass(int64_t ns) {
        std::lock_guard<std::mutex> lock(_mutex);
        _now += ns;
        _pauses.push_back(ns);
    }

    std::function<void()> _settle;
    mutable std::mutex _mutex;
    int64_t _now = kStartNs;
    std::vector<int64_t> _pauses;
};

}  // namespace test
}  // namespace kivhal
