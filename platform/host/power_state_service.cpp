// In-process service registry standing in for the HIDL service manager, for
// the one vendor interface the library looks up.

#include <map>
#include <mutex>

#include "kivhal/power_state_service_registry.h"
#include "vendor/zep/hardware/powerstateservice/1.0/IPowerStateService.h"

namespace vendor {
namespace zep {
namespace hardware {
namespace powerstateservice {
namespace V1_0 {
namespace {

struct service_registry {
    std::mutex mutex;
    std::map<std::string, ::android::sp<IPowerStateService>> services;
};

// Never destroyed: lookups may come from threads still running at exit.
service_registry& registry() {
    static service_registry* instance = new service_registry();
    return *instance;
}

}  // namespace

::android::sp<IPowerStateService> IPowerStateService::getService(const std::string& serviceName,
                                                                 bool /*getStub*/) {
    service_registry& reg = registry();
    std::lock_guard<std::mutex> lock(reg.mutex);
    auto found = reg.services.find(serviceName);
    return found == reg.services.end() ? nullptr : found->second;
}

::android::status_t IPowerStateService::registerAsService(const std::string& serviceName) {
    service_registry& reg = registry();
    std::lock_guard<std::mutex> lock(reg.mutex);
    reg.services[serviceName] = this;
    return ::android::OK;
}

}  // namespace V1_0
}  // namespace powerstateservice
}  // namespace hardware
}  // namespace zep
}  // namespace vendor

namespace kivhal {
namespace host {

using vendor::zep::hardware::powerstateservice::V1_0::IPowerStateService;

void unregister_power_state_service(const std::string& name) {
    ::android::sp<IPowerStateService> released;
    {
        auto& reg = vendor::zep::hardware::powerstateservice::V1_0::registry();
        std::lock_guard<std::mutex> lock(reg.mutex);
        auto found = reg.services.find(name);
        if (found == reg.services.end()) return;
        released = found->second;
        reg.services.erase(found);
    }
    // The last reference may go here, outside the lock.
}

void clear_power_state_services() {
    std::map<std::string, ::android::sp<IPowerStateService>> released;
    {
        auto& reg = vendor::zep::hardware::powerstateservice::V1_0::registry();
        std::lock_guard<std::mutex> lock(reg.mutex);
        released.swap(reg.services);
    }
}

}  // namespace host
}  // namespace kivhal
