#pragma once

// Host-only control of the in-process registry behind
// IPowerStateService::getService().

#include <string>

namespace kivhal {
namespace host {

// Removes one registered instance, or every instance.
void unregister_power_state_service(const std::string& name);
void clear_power_state_services();

}  // namespace host
}  // namespace kivhal
