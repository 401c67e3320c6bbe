#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace vendor {
namespace zep {
namespace hardware {
namespace kiv_types {

// Values come from the OEM configuration file; the library names none.
enum class DataType : int32_t {};
enum class ExerciseType : int32_t {};

// Output formats the catalogue itself interprets; other codes pass through.
constexpr int OUTPUT_FORMAT_NONE = 0;
constexpr int OUTPUT_FORMAT_INT = 1;
constexpr int OUTPUT_FORMAT_FLOAT = 2;
constexpr int OUTPUT_FORMAT_BYTES = 9;

constexpr uint32_t GOAL_GREATER_THAN_OR_EQUAL = 0;
constexpr uint32_t GOAL_LESS_THAN_OR_EQUAL = 1;

// A goal on one data type. Which member of `threshold` is meant follows from
// datatype_output_format(dataType); a byte threshold is shared by every copy
// and lives for the whole process. Value-initialise (`DataTypeGoal goal{}`)
// to start from a zeroed record.
struct DataTypeGoal {
    uint32_t thresholdLength;
    DataType dataType;
    uint32_t comparisonType;
    union {
        int32_t intValue;
        float floatValue;
        uint8_t* bytesValue;
    } threshold;
};

struct AutoStartCapability {
    ExerciseType exerciseType;
    std::vector<DataType> dataTypes;
};

// Output-format code of a data type; total over every 32-bit value.
int datatype_output_format(DataType type);

// The tables are keyed on the plain integer value.
struct DataTypeHash {
    size_t operator()(DataType type) const {
        return static_cast<size_t>(static_cast<int32_t>(type));
    }
};
struct ExerciseTypeHash {
    size_t operator()(ExerciseType type) const {
        return static_cast<size_t>(static_cast<int32_t>(type));
    }
};

struct dataTypeInfo {
    std::string typeName;
    std::string sensorType;
    std::vector<DataTypeGoal> goals;
    bool goalSupported = false;
    bool isSample = false;
    bool isOem = false;
    bool available = false;
};

struct exerTypeInfo {
    std::string typeName;
    std::string sensorType;
    std::vector<DataType> autoStartDataTypes;
    bool autoStart = false;
    bool autoStop = false;
    bool autoPause = false;
};

using DataTypeTable = std::unordered_map<DataType, dataTypeInfo, DataTypeHash>;
using ExerciseTypeTable = std::unordered_map<ExerciseType, exerTypeInfo, ExerciseTypeHash>;

// Process-wide catalogue, filled from the OEM configuration file; both start
// empty with a maximum load factor of 1.0. No lock: queries must not run
// while a parse does.
extern DataTypeTable dataTypeMap;
extern ExerciseTypeTable exerTypeMap;

}  // namespace kiv_types
}  // namespace hardware
}  // namespace zep
}  // namespace vendor
