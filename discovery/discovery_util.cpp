#include "discovery_util.h"

#include <errno.h>
#include <time.h>

#include <atomic>
#include <chrono>

namespace kivhal {
namespace discovery {

namespace {

constexpr int64_t kNanosPerSecondInt = 1000 * 1000 * 1000;

timespec to_timespec(int64_t ns) {
    timespec ts;
    ts.tv_sec = static_cast<time_t>(ns / kNanosPerSecondInt);
    ts.tv_nsec = static_cast<long>(ns % kNanosPerSecondInt);
    return ts;
}

class real_clock : public discovery_clock {
  public:
    int64_t steady_now_ns() override {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(
                   std::chrono::steady_clock::now().time_since_epoch())
            .count();
    }

    int sleep_ns(int64_t ns) override {
        const timespec step = to_timespec(ns);
        int err;
        do {
            err = clock_nanosleep(CLOCK_MONOTONIC, 0, &step, nullptr);
        } while (err == EINTR);
        return err;
    }

    // The deadline is on the realtime clock, as the condition variable's is.
    int timed_wait_ns(pthread_cond_t* cond, pthread_mutex_t* mutex, int64_t ns) override {
        timespec deadline;
        clock_gettime(CLOCK_REALTIME, &deadline);
        const timespec step = to_timespec(ns);
        deadline.tv_sec += step.tv_sec;
        deadline.tv_nsec += step.tv_nsec;
        if (deadline.tv_nsec >= kNanosPerSecondInt) {
            deadline.tv_sec++;
            deadline.tv_nsec -= kNanosPerSecondInt;
        }
        return pthread_cond_timedwait(cond, mutex, &deadline);
    }
};

// Never destroyed: a hang-up ends the process with exit() from the reader
// thread while discovery may still be sleeping on this clock.
discovery_clock& g_real_clock = *new real_clock;
std::atomic<discovery_clock*> g_clock{&g_real_clock};

}  // namespace

discovery_clock& current_clock() {
    return *g_clock.load(std::memory_order_acquire);
}

void set_clock(discovery_clock* clock) {
    g_clock.store(clock != nullptr ? clock : &g_real_clock, std::memory_order_release);
}

}  // namespace discovery
}  // namespace kivhal
