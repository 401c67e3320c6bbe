#pragma once

#include <pthread.h>

#include <cstdint>
#include <cstdlib>
#include <limits>

namespace kivhal {
namespace discovery {

constexpr double kNanosPerSecond = 1e9;
constexpr int64_t kNanosPerMilli = 1000 * 1000;

// Every pause and time stamp of discovery goes through one clock, so the
// long paths (the registry's 80 lookups, the fixed waits) can run on virtual
// time in tests. The real clock is the default.
class discovery_clock {
  public:
    virtual ~discovery_clock() = default;
    virtual int64_t steady_now_ns() = 0;
    // A relative sleep on the monotonic clock, started over when a signal
    // cuts it short; 0 or the error number.
    virtual int sleep_ns(int64_t ns) = 0;
    // One timed wait of at most `ns` on `cond`, whose `mutex` the caller
    // holds; pthread_cond_timedwait's result.
    virtual int timed_wait_ns(pthread_cond_t* cond, pthread_mutex_t* mutex, int64_t ns) = 0;
};

discovery_clock& current_clock();
// Not owned; nullptr puts the real clock back.
void set_clock(discovery_clock* clock);

inline int64_t steady_now_ns() {
    return current_clock().steady_now_ns();
}

inline double ns_to_seconds(int64_t ns) {
    return static_cast<double>(ns) / kNanosPerSecond;
}

inline double steady_now_seconds() {
    return ns_to_seconds(steady_now_ns());
}

inline int sleep_ms(int64_t ms) {
    return current_clock().sleep_ns(ms * kNanosPerMilli);
}

// Discovery's counters must never wrap: a wrapped count would silently end a
// wait early, so the process stops instead.
inline void increment_or_abort(uint32_t& counter) {
    if (counter == std::numeric_limits<uint32_t>::max()) {
        abort();
    }
    counter++;
}

}  // namespace discovery
}  // namespace kivhal
