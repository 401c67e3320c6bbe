#include <cutils/properties.h>

#include <cstring>

#include "kiv_feature_flags.h"
#include "kiv_log.h"
#include "tav_ducto.h"

namespace {
constexpr char kTraceProperty[] = "persist.vendor.debug.kiv.trace";
constexpr char kTrue[] = "true";
}  // namespace

bool tav_ducto::check_kiv_trace_support_flag() {
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(kTraceProperty, value, "false");
    KIV_LOGD("trace_debug: %s", value);
    if (strncmp(value, kTrue, sizeof(kTrue) - 1) != 0) return false;
    KIV_LOGI("support_trace_debug : %s", value);
    kiv_trace_enabled.store(true, std::memory_order_relaxed);
    return true;
}
