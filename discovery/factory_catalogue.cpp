// kiv_sensor_factory's catalogue members: the catalogue functions over the
// process-wide tables and the factory's discovered state.

#include "catalogue.h"
#include "kiv_sensor_factory.h"

namespace catalogue = kivhal::catalogue;
namespace kt = vendor::zep::hardware::kiv_types;

// Late attribute answers may still be stored while the service asks.
template <typename Query, typename... Tables>
static auto with_discovered(kiv_sensor_factory& factory, Query query, Tables&... tables) {
    kivhal::lock_guard suids_lock(discoveryMutex);
    kivhal::lock_guard attributes_lock(factory.attributesMapMutex);
    return query(tables..., catalogue::discovered{factory.suidMap, factory.attributesMap});
}

bool kiv_sensor_factory::parseOEMConfig(const char* path) {
    return catalogue::parseOEMConfig(path, kt::dataTypeMap, kt::exerTypeMap, discoveryList);
}

std::string kiv_sensor_factory::getSensorType(uint32_t type, bool isExercise) {
    return catalogue::getSensorType(kt::dataTypeMap, kt::exerTypeMap, type, isExercise);
}

bool kiv_sensor_factory::isSampleDataType(DataType type) {
    return catalogue::isSampleDataType(kt::dataTypeMap, type);
}

int32_t kiv_sensor_factory::hexStrToDec(const char* text) {
    return catalogue::hexStrToDec(text);
}

std::unordered_set<std::string> kiv_sensor_factory::listAvailableSensorTypes() {
    return with_discovered(*this, catalogue::listAvailableSensorTypes);
}

std::vector<kiv_sensor_factory::DataType> kiv_sensor_factory::getSupportedMetricsTypes() {
    return with_discovered(*this, catalogue::getSupportedMetricsTypes, kt::dataTypeMap);
}

std::vector<kiv_sensor_factory::DataTypeGoal> kiv_sensor_factory::getSupportedGoals() {
    return with_discovered(*this, catalogue::getSupportedGoals, kt::dataTypeMap);
}

bool kiv_sensor_factory::isGoalSupported(DataTypeGoal goal) {
    return catalogue::isGoalSupported(kt::dataTypeMap, goal);
}

std::vector<kiv_sensor_factory::AutoStartCapability> kiv_sensor_factory::getAutoStartList() {
    return catalogue::getAutoStartList(kt::exerTypeMap);
}

std::vector<kiv_sensor_factory::ExerciseType> kiv_sensor_factory::getAutoStopList() {
    return with_discovered(*this, catalogue::getAutoStopList, kt::exerTypeMap);
}

std::vector<kiv_sensor_factory::ExerciseType> kiv_sensor_factory::getAutoPauseList() {
    return with_discovered(*this, catalogue::getAutoPauseList, kt::exerTypeMap);
}

void kiv_sensor_factory::setSensorAvailabilityStatus(std::string sensorType, bool status) {
    catalogue::setSensorAvailabilityStatus(kt::dataTypeMap, sensorType, status);
}

bool kiv_sensor_factory::getSensorAvailabilityStatus(std::string sensorType) {
    return catalogue::getSensorAvailabilityStatus(kt::dataTypeMap, sensorType);
}

std::vector<kiv_sensor_factory::DataType> kiv_sensor_factory::getAllDatatypes(std::string sensorType) {
    return catalogue::getAllDatatypes(kt::dataTypeMap, sensorType);
}
