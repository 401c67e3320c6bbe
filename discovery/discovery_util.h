#pragma once

#include <cstdint>
#include <cstdlib>
#include <limits>

namespace kivhal {
namespace discovery {

constexpr double kNanosPerSecond = 1e9;

int64_t steady_now_ns();

inline double ns_to_seconds(int64_t ns) {
    return static_cast<double>(ns) / kNanosPerSecond;
}

inline double steady_now_seconds() {
    return ns_to_seconds(steady_now_ns());
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
