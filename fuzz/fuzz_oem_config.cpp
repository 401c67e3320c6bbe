// Feeds arbitrary files to the OEM configuration parser, then asks every
// capability query of the catalogue the parse filled.

#include <tinyxml2.h>

#include <string>

#include "catalogue.h"
#include "fuzz_support.h"

namespace {

namespace catalogue = kivhal::catalogue;
namespace kt = vendor::zep::hardware::kiv_types;

constexpr char kConfigPath[] = "/vendor/etc/sensors/oem_config.xml";

// Two stops are the parser's contract, which kivhal-lint checks before a file
// ships: a data type without `sensor_type` or `type` is re-read for ever, and
// a `data_type_value` that is missing or holds nothing after its two-character
// prefix aborts the process. Inputs the parser would reach such an element in
// are dropped here, following its walk; every other input reaches it.
bool hex_value_aborts(const tinyxml2::XMLElement& element) {
    const char* text = element.Attribute("data_type_value");
    return text == nullptr || text[0] == '\0' || text[1] == '\0' || text[2] == '\0';
}

bool datatypes_stop(const tinyxml2::XMLElement* entry) {
    for (; entry != nullptr; entry = entry->NextSiblingElement("datatype")) {
        if (entry->Attribute("sensor_type") == nullptr || entry->Attribute("type") == nullptr) {
            return true;
        }
        if (hex_value_aborts(*entry)) return true;
    }
    return false;
}

bool goals_stop(const tinyxml2::XMLElement* goals) {
    if (goals == nullptr) return false;
    for (const tinyxml2::XMLElement* goal = goals->FirstChildElement("goal"); goal != nullptr;
         goal = goal->NextSiblingElement("goal")) {
        if (hex_value_aborts(*goal)) return true;
    }
    return false;
}

bool parser_would_stop(const std::string& path) {
    tinyxml2::XMLDocument document(true, tinyxml2::PRESERVE_WHITESPACE);
    if (document.LoadFile(path.c_str()) != tinyxml2::XML_SUCCESS) return false;
    bool any_datatype = false;
    for (const tinyxml2::XMLElement* configuration = document.FirstChildElement("configuration");
         configuration != nullptr;
         configuration = configuration->NextSiblingElement("configuration")) {
        const tinyxml2::XMLElement* datatypes = configuration->FirstChildElement("datatypes");
        const tinyxml2::XMLElement* first =
            datatypes != nullptr ? datatypes->FirstChildElement("datatype") : nullptr;
        const bool last = configuration->NextSiblingElement("configuration") == nullptr;
        if (first == nullptr && last && !any_datatype) return false;  // the parse gives up
        if (datatypes_stop(first)) return true;
        any_datatype = any_datatype || first != nullptr;
        if (goals_stop(configuration->FirstChildElement("goals"))) return true;
    }
    return false;
}

void ask_every_query(kt::DataTypeTable& dataTypes, const kt::ExerciseTypeTable& exercises,
                     const catalogue::discovered& found) {
    for (const std::string& type : catalogue::listAvailableSensorTypes(found)) {
        catalogue::getAllDatatypes(dataTypes, type);
        catalogue::setSensorAvailabilityStatus(
            dataTypes, type, !catalogue::getSensorAvailabilityStatus(dataTypes, type));
    }
    for (const auto& goal : catalogue::getSupportedGoals(dataTypes, found)) {
        catalogue::isGoalSupported(dataTypes, goal);
    }
    catalogue::getSupportedMetricsTypes(dataTypes, found);
    catalogue::getAutoStartList(exercises);
    catalogue::getAutoStopList(exercises, found);
    catalogue::getAutoPauseList(exercises, found);
    for (const auto& row : dataTypes) catalogue::isSampleDataType(dataTypes, row.first);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    kivhal::fuzz::device_root();
    kivhal::fuzz::set_log_level_from_environment();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    kivhal::fuzz::write_device_file(kConfigPath, data, size);
    const std::string path = kivhal::fuzz::host_path(kConfigPath);
    if (parser_would_stop(path)) return -1;  // not added to the corpus

    kt::DataTypeTable dataTypes;
    kt::ExerciseTypeTable exercises;
    std::vector<std::string> discoveryList;
    if (catalogue::parseOEMConfig(path.c_str(), dataTypes, exercises, discoveryList)) {
        // Nothing was discovered: the lists that need attributes stay empty.
        const catalogue::SuidMap suids;
        const catalogue::AttributesMap attributes;
        ask_every_query(dataTypes, exercises, {suids, attributes});
    }
    kivhal::fuzz::end_input();
    return 0;
}
