#include "kiv_sensor_factory.h"

#include <time.h>
#include <unistd.h>

#include <chrono>

#include "kiv_log.h"
#include "kivhal/platform.h"

namespace {

constexpr const char* kHealthSensorType = "health";
constexpr const char* kHealthAsyncAnnounceSensorType = "health_async_announce";

}  // namespace

tav_interface* kiv_sensor_factory::tavInterface = nullptr;

sensor_uid lookupSuid = {0xababababababababULL, 0xababababababababULL};
std::mutex discoveryMutex;
std::vector<std::string> mandatorySensors;
std::map<std::string, bool> mandatoryFound;
uint32_t num_mandatory_sns = 0;
std::atomic<bool> allMandatoryFound{false};

kiv_sensor_factory::kiv_sensor_factory()
    : registryUp(false), pendingAttributes(0), lastSuidTime(0), laterBoot(true) {
    discoveryList.push_back(kHealthSensorType);
    discoveryList.push_back(kHealthAsyncAnnounceSensorType);
}

kiv_sensor_factory::~kiv_sensor_factory() {
    KIV_LOGD("kiv sensor factory destructor called");
    // Reads every catalogue row once; kept for parity with the service's
    // teardown, which expects the table to be walkable here.
    for (const auto& row : vendor::zep::hardware::kiv_types::dataTypeMap) {
        auto copy = row;
        (void)copy;
    }
}
