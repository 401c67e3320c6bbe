#pragma once

// What discovery found and what every capability query answers, gathered
// once after discovery and printed as a table or as JSON.

#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "kiv_sensor_factory.h"

namespace kivhal {
namespace tools {

struct sensor_info {
    sensor_uid suid;
    bool has_attributes = false;
    std::string name, vendor, type;
    bool has_stream_type = false;
    int64_t stream_type = 0;
    std::vector<std::pair<float, float>> ranges;
    std::vector<float> rates;
};

struct sensor_type_info {
    std::string name;
    std::vector<sensor_info> sensors;
    bool available = false;           // listAvailableSensorTypes
    bool configured = false;          // some data type has this sensor type
    bool status = false;              // getSensorAvailabilityStatus
    std::vector<int32_t> data_types;  // getAllDatatypes
};

struct data_type_info {
    int32_t value = 0;
    std::string name, sensor_type;
    int format = 0;
};

struct goal_info {
    data_type_info data_type;
    uint32_t comparison = 0;
    std::string threshold_text;  // decoded by output format
    std::string threshold_json;  // a JSON value
};

struct exercise_info {
    int32_t number = 0;
    std::string name;
    std::vector<int32_t> data_types;
};

struct discovery_report {
    std::string channel;
    bool later_boot = false;
    double seconds = 0;
    std::vector<sensor_type_info> sensor_types;
    std::vector<data_type_info> metrics;
    std::vector<goal_info> goals;
    std::vector<exercise_info> auto_start;
    std::vector<exercise_info> auto_stop;
    std::vector<exercise_info> auto_pause;

    bool found_anything() const;
};

// Runs every capability query; call after startDiscovery has returned.
discovery_report collect_report(kiv_sensor_factory& factory);

void print_table(const discovery_report& report, FILE* out);
void print_json(const discovery_report& report, FILE* out);

}  // namespace tools
}  // namespace kivhal
