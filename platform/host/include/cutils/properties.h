#pragma once

// Host stand-in for the platform's property interface; values are set by
// tests and tools through kivhal::host::set_property.

#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

#ifdef __cplusplus
extern "C" {
#endif

// Copies the value of `key`, or `default_value` when unset, into `value`
// (PROPERTY_VALUE_MAX bytes, always terminated). Returns the length copied.
int property_get(const char* key, char* value, const char* default_value);

#ifdef __cplusplus
}
#endif
