#pragma once

// Small helpers shared by the sources of tav_ducto.

#include <cutils/trace.h>

#include <cstdint>

#include "kiv_feature_flags.h"

namespace kivhal {
namespace connection {

// The connection's address as the log lines print it.
inline unsigned long long conn_id(const void* conn) {
    return static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(conn));
}

// With tracing on, the tags are queried around each write and delivery; the
// library's own tag is none, so nothing is ever emitted.
inline void query_trace_tags() {
    if (kiv_trace_enabled.load(std::memory_order_relaxed)) atrace_get_enabled_tags();
}

}  // namespace connection
}  // namespace kivhal
