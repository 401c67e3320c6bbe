#include "discovery_util.h"

#include <chrono>

namespace kivhal {
namespace discovery {

int64_t steady_now_ns() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace discovery
}  // namespace kivhal
