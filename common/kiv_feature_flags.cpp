#include "kiv_feature_flags.h"

#include <cutils/properties.h>

#include <cstring>

#include "kiv_log.h"

std::atomic<bool> kiv_trace_enabled{false};

namespace {
constexpr int kNotRead = -1;
// Two first calls on two threads may both read the property; both store the
// same value, so the race only costs a second read.
std::atomic<int> g_aon_cache{kNotRead};
std::atomic<int> g_ds_cache{kNotRead};

constexpr char kAonProperty[] = "ro.vendor.mr_aon_presence";
constexpr char kDsProperty[] = "persist.vendor.kiv.ds";
constexpr char kDsOdaProperty[] = "persist.vendor.kiv.ds_oda";
constexpr char kFalse[] = "false";
constexpr char kTrue[] = "true";
}  // namespace

unsigned int get_aon_prop() {
    int cached = g_aon_cache.load(std::memory_order_relaxed);
    if (cached != kNotRead) return static_cast<unsigned int>(cached);

    char value[PROPERTY_VALUE_MAX] = {};
    property_get(kAonProperty, value, "0");
    KIV_LOGD("aon_prop: %s", value);
    unsigned int result = 0;
    if (value[0] == '1') {
        KIV_LOGI("support_aon_presence: %s", value);
        result = 1;
    }
    g_aon_cache.store(static_cast<int>(result), std::memory_order_relaxed);
    return result;
}

bool is_ds_supported() {
    int cached = g_ds_cache.load(std::memory_order_relaxed);
    if (cached != kNotRead) return cached != 0;

    char value[PROPERTY_VALUE_MAX] = {};
    property_get(kDsProperty, value, kFalse);
    KIV_LOGD("ds: %s", value);
    bool result = true;
    if (strncmp(value, kFalse, sizeof(kFalse) - 1) == 0) {
        // Written when the feature is off, as the field tools expect.
        KIV_LOGI("support_ds : %s", value);
        result = false;
    }
    g_ds_cache.store(result ? 1 : 0, std::memory_order_relaxed);
    return result;
}

bool is_oda_supported() {
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(kDsOdaProperty, value, kFalse);
    KIV_LOGD("ds_oda: %s", value);
    if (strncmp(value, kTrue, sizeof(kTrue) - 1) == 0) return true;
    KIV_LOGI("support_ds_oda : %s", value);
    return false;
}
