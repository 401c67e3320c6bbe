#pragma once

#include <atomic>

// Switches read from system properties. See each function for the exact,
// deliberately loose comparison it applies.

// "ro.vendor.mr_aon_presence": 1 when the value starts with '1'. Cached.
unsigned int get_aon_prop();

// "persist.vendor.kiv.ds": on unless the value starts with "false". Cached.
bool is_ds_supported();

// "persist.vendor.kiv.ds_oda": on when the value starts with "true". Read on
// every call.
bool is_oda_supported();

// Set once trace support is found on; never cleared.
extern std::atomic<bool> kiv_trace_enabled;
