#pragma once

// Host stand-in for the platform's trace interface. The library only queries
// the enabled tags; the host counts the queries so tests can observe them
// (the packaged header implements the query inline over a global, which
// cannot be observed).

#include <stdint.h>

#define ATRACE_TAG_NEVER 0
#define ATRACE_TAG_ALWAYS (1 << 0)

#ifdef __cplusplus
extern "C" {
#endif

uint64_t atrace_get_enabled_tags(void);

#ifdef __cplusplus
}
#endif
