#include <string>
#include <unordered_set>
#include <vector>

#include "kiv_log.h"
#include "kiv_sensor_factory.h"

namespace kt = vendor::zep::hardware::kiv_types;

namespace {

// Only the first configured goal with the requested comparison is examined.
const kt::DataTypeGoal* first_goal_with(const kt::dataTypeInfo& row, uint32_t comparisonType) {
    for (const kt::DataTypeGoal& goal : row.goals) {
        if (goal.comparisonType == comparisonType) return &goal;
    }
    return nullptr;
}

template <typename T>
bool meets(T requested, T configured, uint32_t comparisonType) {
    switch (comparisonType) {
        case kt::GOAL_LESS_THAN_OR_EQUAL:
            return requested <= configured;
        case kt::GOAL_GREATER_THAN_OR_EQUAL:
            return requested >= configured;
        default:
            return false;
    }
}

}  // namespace

std::unordered_set<std::string> kiv_sensor_factory::listAvailableSensorTypes() {
    std::unordered_set<std::string> available;
    // Late answers may still be stored while the service asks.
    kivhal::lock_guard suids_lock(discoveryMutex);
    kivhal::lock_guard attributes_lock(attributesMapMutex);
    for (const auto& [name, suids] : suidMap) {
        for (const sensor_uid& suid : suids) {
            if (attributesMap.find(suid) == attributesMap.end()) continue;
            available.insert(name);
            KIV_LOGD("%s", name.c_str());
        }
    }
    return available;
}

std::vector<kiv_sensor_factory::DataType> kiv_sensor_factory::getSupportedMetricsTypes() {
    KIV_LOGD("List of all Metrics Types Supported");
    std::vector<DataType> metrics;
    for (const std::string& name : listAvailableSensorTypes()) {
        for (const auto& [type, row] : kt::dataTypeMap) {
            if (row.sensorType != name) continue;
            KIV_LOGD("%s : %d", row.sensorType.c_str(), static_cast<int>(type));
            metrics.push_back(type);
        }
    }
    return metrics;
}

std::vector<kiv_sensor_factory::DataTypeGoal> kiv_sensor_factory::getSupportedGoals() {
    KIV_LOGD("List of all Goals Supported");
    const std::unordered_set<std::string> available = listAvailableSensorTypes();
    std::vector<DataTypeGoal> supported;
    for (const auto& [type, row] : kt::dataTypeMap) {
        if (!row.goalSupported || available.count(row.sensorType) == 0) continue;
        const char* sensor = row.sensorType.c_str();
        for (const DataTypeGoal& goal : row.goals) {
            const int value = static_cast<int>(goal.dataType);
            switch (kt::datatype_output_format(goal.dataType)) {
                case kt::OUTPUT_FORMAT_INT:
                    KIV_LOGD("Sensor = %s, DataType = %d, Threshold = %d, Comparison Type = %u",
                             sensor, value, goal.threshold.intValue, goal.comparisonType);
                    break;
                case kt::OUTPUT_FORMAT_FLOAT:
                    KIV_LOGD("Sensor = %s, DataType = %d, Threshold = %f, Comparison Type = %u",
                             sensor, value, static_cast<double>(goal.threshold.floatValue),
                             goal.comparisonType);
                    break;
                case kt::OUTPUT_FORMAT_BYTES:
                    KIV_LOGD("Sensor = %s, DataType = %d, Comparison Type = %u", sensor, value,
                             goal.comparisonType);
                    for (uint32_t i = 0; i < goal.thresholdLength; ++i) {
                        KIV_LOGD("byteArrayThreshold[%d] = %d", static_cast<int>(i),
                                 goal.threshold.bytesValue[i]);
                    }
                    break;
                default:
                    break;
            }
            supported.push_back(goal);
        }
    }
    return supported;
}

bool kiv_sensor_factory::isGoalSupported(DataTypeGoal goal) {
    const kt::dataTypeInfo& row = kt::dataTypeMap[goal.dataType];
    if (!row.goalSupported) {
        KIV_LOGE("Goal not supported for datatype %u", static_cast<uint32_t>(goal.dataType));
        return false;
    }
    const int format = kt::datatype_output_format(goal.dataType);
    const DataTypeGoal* configured = first_goal_with(row, goal.comparisonType);
    if (configured == nullptr) return false;
    switch (format) {
        case kt::OUTPUT_FORMAT_BYTES:
            return true;
        case kt::OUTPUT_FORMAT_FLOAT:
            return meets(goal.threshold.floatValue, configured->threshold.floatValue,
                         goal.comparisonType);
        case kt::OUTPUT_FORMAT_INT:
            return meets(goal.threshold.intValue, configured->threshold.intValue,
                         goal.comparisonType);
        default:
            return false;
    }
}

std::vector<kiv_sensor_factory::AutoStartCapability> kiv_sensor_factory::getAutoStartList() {
    KIV_LOGD("List of Auto Start Exercise Types Supported");
    // Not filtered by availability: every auto-start exercise is offered.
    std::vector<AutoStartCapability> list;
    for (const auto& [type, exercise] : kt::exerTypeMap) {
        if (!exercise.autoStart) continue;
        KIV_LOGD("Exercise Type : %d ", static_cast<int>(type));
        list.push_back(AutoStartCapability{type, exercise.autoStartDataTypes});
    }
    return list;
}

std::vector<kiv_sensor_factory::ExerciseType> kiv_sensor_factory::getAutoStopList() {
    KIV_LOGD("List of Auto Stop Exercise Types Supported");
    const std::unordered_set<std::string> available = listAvailableSensorTypes();
    std::vector<ExerciseType> list;
    for (const auto& [type, exercise] : kt::exerTypeMap) {
        if (!exercise.autoStop || available.count(exercise.sensorType) == 0) continue;
        KIV_LOGD("%s : %d", exercise.typeName.c_str(), static_cast<int>(type));
        list.push_back(type);
    }
    return list;
}

std::vector<kiv_sensor_factory::ExerciseType> kiv_sensor_factory::getAutoPauseList() {
    KIV_LOGD("List of Auto Pause Exercise Types Supported");
    const std::unordered_set<std::string> available = listAvailableSensorTypes();
    std::vector<ExerciseType> list;
    for (const auto& [type, exercise] : kt::exerTypeMap) {
        if (!exercise.autoPause || available.count(exercise.sensorType) == 0) continue;
        KIV_LOGD("%s : %d", exercise.typeName.c_str(), static_cast<int>(type));
        list.push_back(type);
    }
    return list;
}

void kiv_sensor_factory::setSensorAvailabilityStatus(std::string sensorType, bool status) {
    for (auto& [type, row] : kt::dataTypeMap) {
        if (row.sensorType == sensorType) row.available = status;
    }
}

bool kiv_sensor_factory::getSensorAvailabilityStatus(std::string sensorType) {
    for (const auto& [type, row] : kt::dataTypeMap) {
        if (row.sensorType == sensorType) return row.available;
    }
    return false;
}

std::vector<kiv_sensor_factory::DataType> kiv_sensor_factory::getAllDatatypes(std::string sensorType) {
    std::vector<DataType> types;
    for (const auto& [type, row] : kt::dataTypeMap) {
        if (row.sensorType == sensorType && row.available) types.push_back(type);
    }
    return types;
}
