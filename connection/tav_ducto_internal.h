#pragma once

// Small helpers shared by the sources of tav_ducto.

#include <cutils/trace.h>

#include <cstdint>
#include <unordered_map>

#include "kiv_feature_flags.h"
#include "sns_ducto_packet.h"

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

// Every session in its low-power state (or none known) lets the device sleep.
inline uint8_t aggregate_low_power_state(const std::unordered_map<uint8_t, uint8_t>& sessions) {
    for (const auto& session : sessions) {
        if (session.second == SNS_LOW_POWER_STATE_OFF) return SNS_LOW_POWER_STATE_OFF;
    }
    return SNS_LOW_POWER_STATE_ON;
}

}  // namespace connection
}  // namespace kivhal
