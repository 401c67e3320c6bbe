#pragma once

// The mandatory list's process-wide state as the rest of discovery changes
// it. The state itself is declared with kiv_sensor_factory.

#include <string>

#include "kiv_sensor_factory.h"
#include "kiv_thread_annotations.h"

namespace kivhal {
namespace discovery {

// Later boot, after the list is loaded: every listed name enters
// mandatoryFound as not answered; names already there keep their mark.
// Discovery thread, before the lookups; takes discoveryMutex.
void list_mandatory_as_missing() EXCLUDES(discoveryMutex);

// Later boot: counts a listed name the first time it answers and sets
// allMandatoryFound when the count reaches the list's size; any other name
// changes nothing. Reader thread, discoveryMutex held; no log line; aborts
// rather than let the count wrap.
void mark_mandatory_found(const std::string& datatype) REQUIRES(discoveryMutex);

}  // namespace discovery
}  // namespace kivhal
