#include <string>
#include <unordered_set>
#include <vector>

#include "catalogue.h"
#include "kiv_log.h"

namespace kivhal {
namespace catalogue {

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

std::unordered_set<std::string> listAvailableSensorTypes(const discovered& found) {
    std::unordered_set<std::string> available;
    for (const auto& [name, suids] : found.suids) {
        for (const sensor_uid& suid : suids) {
            if (found.attributes.find(suid) == found.attributes.end()) continue;
            available.insert(name);
            KIV_LOGD("%s", name.c_str());
        }
    }
    return available;
}

std::vector<kt::DataType> getSupportedMetricsTypes(const kt::DataTypeTable& dataTypes,
                                                   const discovered& found) {
    KIV_LOGD("List of all Metrics Types Supported");
    std::vector<kt::DataType> metrics;
    for (const std::string& name : listAvailableSensorTypes(found)) {
        for (const auto& [type, row] : dataTypes) {
            if (row.sensorType != name) continue;
            KIV_LOGD("%s : %d", row.sensorType.c_str(), static_cast<int>(type));
            metrics.push_back(type);
        }
    }
    return metrics;
}

std::vector<kt::DataTypeGoal> getSupportedGoals(const kt::DataTypeTable& dataTypes,
                                                const discovered& found) {
    KIV_LOGD("List of all Goals Supported");
    const std::unordered_set<std::string> available = listAvailableSensorTypes(found);
    std::vector<kt::DataTypeGoal> supported;
    for (const auto& [type, row] : dataTypes) {
        if (!row.goalSupported || available.count(row.sensorType) == 0) continue;
        const char* sensor = row.sensorType.c_str();
        for (const kt::DataTypeGoal& goal : row.goals) {
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

bool isGoalSupported(kt::DataTypeTable& dataTypes, kt::DataTypeGoal goal) {
    const kt::dataTypeInfo& row = dataTypes[goal.dataType];
    if (!row.goalSupported) {
        KIV_LOGE("Goal not supported for datatype %u", static_cast<uint32_t>(goal.dataType));
        return false;
    }
    const int format = kt::datatype_output_format(goal.dataType);
    const kt::DataTypeGoal* configured = first_goal_with(row, goal.comparisonType);
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

std::vector<kt::AutoStartCapability> getAutoStartList(const kt::ExerciseTypeTable& exercises) {
    KIV_LOGD("List of Auto Start Exercise Types Supported");
    // Not filtered by availability: every auto-start exercise is offered.
    std::vector<kt::AutoStartCapability> list;
    for (const auto& [type, exercise] : exercises) {
        if (!exercise.autoStart) continue;
        KIV_LOGD("Exercise Type : %d ", static_cast<int>(type));
        list.push_back(kt::AutoStartCapability{type, exercise.autoStartDataTypes});
    }
    return list;
}

std::vector<kt::ExerciseType> getAutoStopList(const kt::ExerciseTypeTable& exercises,
                                              const discovered& found) {
    KIV_LOGD("List of Auto Stop Exercise Types Supported");
    const std::unordered_set<std::string> available = listAvailableSensorTypes(found);
    std::vector<kt::ExerciseType> list;
    for (const auto& [type, exercise] : exercises) {
        if (!exercise.autoStop || available.count(exercise.sensorType) == 0) continue;
        KIV_LOGD("%s : %d", exercise.typeName.c_str(), static_cast<int>(type));
        list.push_back(type);
    }
    return list;
}

std::vector<kt::ExerciseType> getAutoPauseList(const kt::ExerciseTypeTable& exercises,
                                               const discovered& found) {
    KIV_LOGD("List of Auto Pause Exercise Types Supported");
    const std::unordered_set<std::string> available = listAvailableSensorTypes(found);
    std::vector<kt::ExerciseType> list;
    for (const auto& [type, exercise] : exercises) {
        if (!exercise.autoPause || available.count(exercise.sensorType) == 0) continue;
        KIV_LOGD("%s : %d", exercise.typeName.c_str(), static_cast<int>(type));
        list.push_back(type);
    }
    return list;
}

void setSensorAvailabilityStatus(kt::DataTypeTable& dataTypes, const std::string& sensorType,
                                 bool status) {
    for (auto& [type, row] : dataTypes) {
        if (row.sensorType == sensorType) row.available = status;
    }
}

bool getSensorAvailabilityStatus(const kt::DataTypeTable& dataTypes, const std::string& sensorType) {
    for (const auto& [type, row] : dataTypes) {
        if (row.sensorType == sensorType) return row.available;
    }
    return false;
}

std::vector<kt::DataType> getAllDatatypes(const kt::DataTypeTable& dataTypes,
                                          const std::string& sensorType) {
    std::vector<kt::DataType> types;
    for (const auto& [type, row] : dataTypes) {
        if (row.sensorType == sensorType && row.available) types.push_back(type);
    }
    return types;
}

}  // namespace catalogue
}  // namespace kivhal
