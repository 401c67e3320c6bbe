#pragma once

#include <unordered_set>

#include "kiv_types.h"
#include "sensor_attributes.h"
#include "tav_interface.h"

// The catalogue as functions of the tables and discovered state they read or
// fill. None takes a lock or touches a process-wide object: callers own the
// tables and keep other threads off them for the call. Each logs under its
// own name, the name of the kiv_sensor_factory member it serves. None throws
// except std::bad_alloc.
namespace kivhal {
namespace catalogue {

namespace kt = vendor::zep::hardware::kiv_types;
using SuidMap = std::unordered_map<std::string, std::vector<sensor_uid>>;
using AttributesMap = std::unordered_map<sensor_uid, sensor_attributes, sensor_uid_hash>;

// What discovery found: the SUIDs of each sensor type name it looked up, the
// attributes of each SUID that answered.
struct discovered {
    const SuidMap& suids;
    const AttributesMap& attributes;
};

// The number after a two-character prefix; saturates at the int32_t range.
// Ends the process (abort) when `text` is null or has no digits.
int32_t hexStrToDec(const char* text);

// Parses the OEM configuration at `path` into the tables and appends the
// sensor type names it names to `discoveryList`. Returns false when the file
// does not load, has no "configuration" element, or ends one without data
// types while `dataTypes` is still empty; ends the process on a data type
// without a value, and never returns on one without its names.
bool parseOEMConfig(const char* path, kt::DataTypeTable& dataTypes,
                    kt::ExerciseTypeTable& exercises, std::vector<std::string>& discoveryList);

// The row of `type` in the exercise or the data-type table (inserted empty
// when absent): its sensor type name, its sample flag.
std::string getSensorType(kt::DataTypeTable& dataTypes, kt::ExerciseTypeTable& exercises,
                          uint32_t type, bool isExercise);
bool isSampleDataType(kt::DataTypeTable& dataTypes, kt::DataType type);

// Sensor type names with at least one discovered SUID that has attributes.
std::unordered_set<std::string> listAvailableSensorTypes(const discovered& found);

// Capability answers from the tables joined with what discovery found.
std::vector<kt::DataType> getSupportedMetricsTypes(const kt::DataTypeTable& dataTypes,
                                                   const discovered& found);
std::vector<kt::DataTypeGoal> getSupportedGoals(const kt::DataTypeTable& dataTypes,
                                                const discovered& found);
std::vector<kt::ExerciseType> getAutoStopList(const kt::ExerciseTypeTable& exercises,
                                              const discovered& found);
std::vector<kt::ExerciseType> getAutoPauseList(const kt::ExerciseTypeTable& exercises,
                                               const discovered& found);

// Answers from the tables alone. isGoalSupported inserts an empty row for an
// unknown data type; setSensorAvailabilityStatus writes the rows' flags.
bool isGoalSupported(kt::DataTypeTable& dataTypes, kt::DataTypeGoal goal);
std::vector<kt::AutoStartCapability> getAutoStartList(const kt::ExerciseTypeTable& exercises);
void setSensorAvailabilityStatus(kt::DataTypeTable& dataTypes, const std::string& sensorType,
                                 bool status);
bool getSensorAvailabilityStatus(const kt::DataTypeTable& dataTypes, const std::string& sensorType);
std::vector<kt::DataType> getAllDatatypes(const kt::DataTypeTable& dataTypes,
                                          const std::string& sensorType);

}  // namespace catalogue
}  // namespace kivhal
