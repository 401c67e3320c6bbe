#include "wakelock_timer.h"

#include <time.h>

#include <chrono>

namespace {
constexpr int64_t kNsPerSecond = 1000000000;

// steady_clock is CLOCK_MONOTONIC: a wall-clock step neither fires nor
// stalls a deadline.
class monotonic_clock : public wakelock_clock {
  public:
    int64_t now_ns() override {
        timespec ts;
        clock_gettime(CLOCK_MONOTONIC, &ts);
        return static_cast<int64_t>(ts.tv_sec) * kNsPerSecond + ts.tv_nsec;
    }
    bool wait_until(kivhal::unique_lock& lock, std::condition_variable& cond,
                    int64_t deadline_ns) override {
        if (deadline_ns == kNever) {
            cond.wait(lock.native());
            return false;
        }
        const std::chrono::steady_clock::time_point due{std::chrono::nanoseconds(deadline_ns)};
        return cond.wait_until(lock.native(), due) == std::cv_status::timeout;
    }
};

wakelock_clock* g_next_clock = nullptr;
}  // namespace

wakelock_clock* wakelock_clock::monotonic() {
    static wakelock_clock* const clock = new monotonic_clock();
    return clock;
}

void wakelock_clock::use_for_next_wakelock(wakelock_clock* clock) {
    g_next_clock = clock;
}

wakelock_clock* wakelock_clock::for_new_wakelock() {
    return g_next_clock != nullptr ? g_next_clock : monotonic();
}

wakelock_timer::wakelock_timer(wakelock_clock* clock, std::function<void()> expired)
    : _clock(clock), _expired(std::move(expired)), _thread([this] { run(); }) {}

wakelock_timer::~wakelock_timer() {
    {
        kivhal::lock_guard lock(_mutex);
        _stopping = true;
    }
    _cond.notify_one();
    _thread.join();
}

void wakelock_timer::arm(int64_t deadline_ns) {
    kivhal::lock_guard lock(_mutex);
    _deadline_ns = deadline_ns;
    _cond.notify_one();
}

void wakelock_timer::run() {
    kivhal::unique_lock lock(_mutex);
    while (!_stopping) {
        const int64_t deadline = _deadline_ns;
        // Re-armed while waiting: wait for the new deadline.
        if (!_clock->wait_until(lock, _cond, deadline) || _deadline_ns != deadline) continue;
        _deadline_ns = wakelock_clock::kNever;
        lock.unlock();
        _expired();
        lock.lock();
    }
}
