#include <tinyxml2.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_set>
#include <vector>

#include "catalogue.h"
#include "kiv_log.h"

namespace kivhal {
namespace catalogue {

using tinyxml2::XMLAttribute;
using tinyxml2::XMLElement;

namespace {

constexpr const char* kSampleConfigurationType = "KIV_sample_datatype";
constexpr const char* kOemConfigurationType = "KIV_oem_datatype";

// Threshold types and comparison words match as prefixes of the written
// value, so "integer" counts as "int".
constexpr const char kIntThreshold[] = "int";
constexpr const char kFloatThreshold[] = "float";
constexpr const char kByteThreshold[] = "byte";
constexpr const char kGreaterOrEqual[] = "GREATER_THAN_OR_EQUAL";
constexpr const char kLessOrEqual[] = "LESS_THAN_OR_EQUAL";

template <size_t N>
bool has_prefix(const char* text, const char (&prefix)[N]) {
    return strncmp(text, prefix, N - 1) == 0;
}

// ASCII only: type names are identifiers, not prose.
std::string to_upper(const char* text) {
    std::string upper(text);
    for (char& c : upper) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    return upper;
}

bool equals(const char* text, const char* expected) {
    return text != nullptr && strcmp(text, expected) == 0;
}

// Goal copies handed to the service share these arrays, so they live for the
// whole process and are never freed: they are carved out of large blocks
// that stay reachable, one allocation per block instead of one per array.
uint8_t* allocate_byte_threshold(const char* text, size_t length) {
    constexpr size_t kBlockBytes = 16 * 1024;
    static auto* blocks = new std::deque<std::unique_ptr<uint8_t[]>>();
    static size_t used = kBlockBytes;
    uint8_t* bytes;
    if (length > kBlockBytes / 4) {
        // Large arrays get a block of their own; the current block goes on.
        blocks->emplace_front(new uint8_t[length]);
        bytes = blocks->front().get();
    } else {
        if (used + length > kBlockBytes) {
            blocks->emplace_back(new uint8_t[kBlockBytes]);
            used = 0;
        }
        bytes = blocks->back().get() + used;
        used += length;
    }
    memcpy(bytes, text, length);
    return bytes;
}

template <typename Read>
void query_attribute(const XMLElement& element, const char* name, Read read) {
    const XMLAttribute* attribute = element.FindAttribute(name);
    if (attribute != nullptr) read(*attribute);
}

int32_t int_attribute(const XMLElement& element, const char* name) {
    int32_t value = 0;
    query_attribute(element, name, [&](const XMLAttribute& a) { a.QueryIntValue(&value); });
    return value;
}

bool bool_attribute(const XMLElement& element, const char* name) {
    bool value = false;
    query_attribute(element, name, [&](const XMLAttribute& a) { a.QueryBoolValue(&value); });
    return value;
}

// The helpers below log for the parse (`op`), whose work they do.

// Reads the threshold value by its type; false when the type is unknown.
bool read_threshold_value(const XMLElement& threshold, kt::DataTypeGoal* goal, kiv_log_op op) {
    const char* type = threshold.Attribute("type");
    if (type == nullptr) {
        KIV_LOGE_FOR(op, "threshold without type");
        return false;
    }
    if (has_prefix(type, kIntThreshold)) {
        query_attribute(threshold, "type_value",
                        [&](const XMLAttribute& a) { a.QueryIntValue(&goal->threshold.intValue); });
        return true;
    }
    if (has_prefix(type, kFloatThreshold)) {
        query_attribute(threshold, "type_value", [&](const XMLAttribute& a) {
            a.QueryFloatValue(&goal->threshold.floatValue);
        });
        return true;
    }
    if (has_prefix(type, kByteThreshold)) {
        const char* text = threshold.Attribute("type_value");
        if (text == nullptr) {
            KIV_LOGE_FOR(op, "byte threshold without type_value");
            return false;
        }
        const size_t length = strlen(text);
        goal->threshold.bytesValue = allocate_byte_threshold(text, length);
        goal->thresholdLength = static_cast<uint32_t>(length);
        return true;
    }
    return false;
}

bool read_comparison(const XMLElement& threshold, uint32_t* comparison, kiv_log_op op) {
    const char* text = threshold.Attribute("comparison_type");
    if (text == nullptr) {
        KIV_LOGE_FOR(op, "threshold without comparison_type");
        return false;
    }
    if (has_prefix(text, kGreaterOrEqual)) {
        *comparison = kt::GOAL_GREATER_THAN_OR_EQUAL;
    } else if (has_prefix(text, kLessOrEqual)) {
        *comparison = kt::GOAL_LESS_THAN_OR_EQUAL;
    } else {
        return false;
    }
    return true;
}

void add_datatype(kt::DataTypeTable& dataTypes, const XMLElement& entry, const char* sensorType,
                  const char* typeName, const char* configurationType) {
    kt::dataTypeInfo row;
    row.typeName = to_upper(typeName);
    row.sensorType = sensorType;
    row.isSample = equals(configurationType, kSampleConfigurationType);
    row.isOem = equals(configurationType, kOemConfigurationType);
    row.available = true;
    const auto key = static_cast<kt::DataType>(hexStrToDec(entry.Attribute("data_type_value")));
    dataTypes.insert_or_assign(key, std::move(row));
}

void parse_datatypes(kt::DataTypeTable& dataTypes, const XMLElement* entry,
                     const char* configurationType,
                     std::unordered_set<std::string>* sensorTypesFound, kiv_log_op op) {
    if (configurationType == nullptr) {
        KIV_LOGE_FOR(op, "configuration with datatypes but without type");
    }
    while (entry != nullptr) {
        const char* sensorType = entry->Attribute("sensor_type");
        const char* typeName = entry->Attribute("type");
        if (sensorType == nullptr || typeName == nullptr) {
            // Both attributes are the file's contract; an entry without them
            // is re-read and never passed, so a broken file stops the parse
            // here rather than shipping a half-read catalogue.
            std::this_thread::yield();
            continue;
        }
        add_datatype(dataTypes, *entry, sensorType, typeName, configurationType);
        sensorTypesFound->insert(sensorType);
        entry = entry->NextSiblingElement("datatype");
    }
}

size_t threshold_count(const XMLElement& goalElement) {
    size_t count = 0;
    for (const XMLElement* threshold = goalElement.FirstChildElement("threshold");
         threshold != nullptr; threshold = threshold->NextSiblingElement("threshold")) {
        count++;
    }
    return count;
}

void parse_goal(kt::DataType key, const XMLElement& goalElement, kt::dataTypeInfo* row,
                kiv_log_op op) {
    // One allocation per row rather than one per doubling.
    row->goals.reserve(row->goals.size() + threshold_count(goalElement));
    for (const XMLElement* threshold = goalElement.FirstChildElement("threshold");
         threshold != nullptr; threshold = threshold->NextSiblingElement("threshold")) {
        kt::DataTypeGoal goal{};
        goal.dataType = key;
        const bool typed = read_threshold_value(*threshold, &goal, op);
        if (!read_comparison(*threshold, &goal.comparisonType, op) || !typed) continue;
        row->goals.push_back(goal);
        row->goalSupported = true;
    }
}

// Goals may refer only to data types defined so far.
void parse_goals(kt::DataTypeTable& dataTypes, const XMLElement& goals, kiv_log_op op) {
    for (const XMLElement* goal = goals.FirstChildElement("goal"); goal != nullptr;
         goal = goal->NextSiblingElement("goal")) {
        const auto key = static_cast<kt::DataType>(hexStrToDec(goal->Attribute("data_type_value")));
        auto row = dataTypes.find(key);
        if (row == dataTypes.end()) continue;
        parse_goal(key, *goal, &row->second, op);
    }
}

// Reads the exercise's own fields; false when it must be skipped.
bool read_exercise(const XMLElement& element, int32_t* number, kt::exerTypeInfo* exercise,
                   kiv_log_op op) {
    const char* type = element.Attribute("type");
    if (type == nullptr) return false;
    const char* sensorType = element.Attribute("sensor_type");
    if (sensorType == nullptr) {
        KIV_LOGE_FOR(op, "exercisetype %s without sensor_type", type);
        return false;
    }
    exercise->typeName = to_upper(type);
    exercise->sensorType = sensorType;
    *number = int_attribute(element, "exercise_num");
    exercise->autoStart = bool_attribute(element, "auto_start");
    exercise->autoStop = bool_attribute(element, "auto_stop");
    exercise->autoPause = bool_attribute(element, "auto_pause");
    return true;
}

// Type name to the keys of the rows carrying it, in the table's iteration
// order: the same keys in the same order as a walk of the whole table per
// name, for one walk per configuration element. Built on first use, so an
// element without automatic starts costs nothing. The views point into the
// rows' own names; exercises never change the data-type table, so they stay
// valid while the element's exercises are read.
class rows_by_type_name {
  public:
    struct row_ref {
        std::string_view name;
        kt::DataType key;
    };
    struct range {
        std::vector<row_ref>::const_iterator first, last;
        std::vector<row_ref>::const_iterator begin() const { return first; }
        std::vector<row_ref>::const_iterator end() const { return last; }
    };

    explicit rows_by_type_name(const kt::DataTypeTable& dataTypes) : _dataTypes(dataTypes) {}

    range rows_named(const std::string& typeName) {
        if (!_built) build();
        auto rows = std::equal_range(_rows.cbegin(), _rows.cend(), row_ref{typeName, {}}, by_name);
        return range{rows.first, rows.second};
    }

  private:
    static bool by_name(const row_ref& a, const row_ref& b) { return a.name < b.name; }

    // One sorted array: a stable sort keeps the table's order among equal names.
    void build() {
        _rows.reserve(_dataTypes.size());
        for (const auto& [key, row] : _dataTypes) _rows.push_back({row.typeName, key});
        std::stable_sort(_rows.begin(), _rows.end(), by_name);
        _built = true;
    }

    const kt::DataTypeTable& _dataTypes;
    bool _built = false;
    std::vector<row_ref> _rows;
};

}  // namespace

bool parseOEMConfig(const char* path, kt::DataTypeTable& dataTypes,
                    kt::ExerciseTypeTable& exercises, std::vector<std::string>& discoveryList) {
    tinyxml2::XMLDocument document(true, tinyxml2::PRESERVE_WHITESPACE);
    if (document.LoadFile(path) != tinyxml2::XML_SUCCESS) {
        KIV_LOGE("XML Config File Not Opened");
        return false;
    }
    KIV_LOGD("XML Config File Opened");

    const XMLElement* configuration = document.FirstChildElement("configuration");
    if (configuration == nullptr) return false;

    std::unordered_set<std::string> sensorTypesFound;
    while (configuration != nullptr) {
        const XMLElement* next = configuration->NextSiblingElement("configuration");

        KIV_LOGD("Parsing Datatypes");
        const XMLElement* datatypes = configuration->FirstChildElement("datatypes");
        const XMLElement* firstDatatype =
            datatypes != nullptr ? datatypes->FirstChildElement("datatype") : nullptr;
        if (firstDatatype == nullptr && next == nullptr && dataTypes.empty()) return false;
        if (firstDatatype != nullptr) {
            parse_datatypes(dataTypes, firstDatatype, configuration->Attribute("type"),
                            &sensorTypesFound, KIV_LOG_OP);
        }

        KIV_LOGD("Parsing Goals");
        const XMLElement* goals = configuration->FirstChildElement("goals");
        if (goals != nullptr) parse_goals(dataTypes, *goals, KIV_LOG_OP);

        KIV_LOGD("Parsing AutoExercise Elements");
        const XMLElement* autoExercise = configuration->FirstChildElement("autoExerciseType");
        if (autoExercise != nullptr) {
            rows_by_type_name index(dataTypes);
            for (const XMLElement* element = autoExercise->FirstChildElement("exercisetype");
                 element != nullptr; element = element->NextSiblingElement("exercisetype")) {
                int32_t number = 0;
                kt::exerTypeInfo exercise;
                if (!read_exercise(*element, &number, &exercise, KIV_LOG_OP)) continue;
                KIV_LOGD("exerNum = %d, autoStart = %d, autoStop = %d, autoPause = %d", number,
                         exercise.autoStart, exercise.autoStop, exercise.autoPause);
                if (exercise.autoStart) {
                    for (const XMLElement* datatype = element->FirstChildElement("datatype");
                         datatype != nullptr; datatype = datatype->NextSiblingElement("datatype")) {
                        const char* name = datatype->Attribute("type");
                        if (name == nullptr) continue;
                        const std::string upper = to_upper(name);
                        for (const auto& row : index.rows_named(upper)) {
                            KIV_LOGD("Adding DataType %s to autoStartList", upper.c_str());
                            exercise.autoStartDataTypes.push_back(row.key);
                        }
                    }
                }
                KIV_LOGD("Adding exercise %d in exerMap", number);
                exercises.insert_or_assign(static_cast<kt::ExerciseType>(number),
                                           std::move(exercise));
            }
            KIV_LOGD("AutoExerciseMap Size = %d", static_cast<int>(exercises.size()));
        }
        configuration = next;
    }

    discoveryList.insert(discoveryList.end(), sensorTypesFound.begin(), sensorTypesFound.end());
    return true;
}

}  // namespace catalogue
}  // namespace kivhal
