#include "discovery_report.h"

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <exception>
#include <set>

#include "sensor_attribute_ids.h"
#include "utf8_text.h"

namespace kivhal {
namespace tools {

namespace kt = vendor::zep::hardware::kiv_types;

namespace {

std::string hex(int64_t value) {
    char text[24];
    snprintf(text, sizeof(text), value < 0 ? "-0x%" PRIx64 : "0x%04" PRIx64,
             static_cast<uint64_t>(value < 0 ? -value : value));
    return text;
}

std::string suid_text(sensor_uid suid) {
    char text[40];
    snprintf(text, sizeof(text), "%016" PRIx64 ":%016" PRIx64, suid.high, suid.low);
    return text;
}

std::string float_text(float value) {
    char text[32];
    snprintf(text, sizeof(text), "%g", static_cast<double>(value));
    return text;
}

// Names are byte strings: a byte that is not part of well-formed UTF-8 is
// written as the code point of the same value, so the output stays JSON.
std::string json_string(const std::string& text) {
    std::string out = "\"";
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    for (size_t at = 0; at < text.size();) {
        const unsigned char c = bytes[at];
        const size_t length = utf8_sequence_length(bytes + at, text.size() - at);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20 || length == 0) {
            char escaped[8];
            snprintf(escaped, sizeof(escaped), "\\u%04x", c);
            out += escaped;
        } else {
            out.append(text, at, length);
            at += length;
            continue;
        }
        ++at;
    }
    return out + "\"";
}

std::string json_float(float value) {
    return std::isfinite(value) ? float_text(value) : "null";
}

const char* format_name(int format) {
    switch (format) {
        case kt::OUTPUT_FORMAT_INT:
            return "int";
        case kt::OUTPUT_FORMAT_FLOAT:
            return "float";
        case kt::OUTPUT_FORMAT_BYTES:
            return "bytes";
        default:
            return nullptr;
    }
}

std::string format_text(int format) {
    const char* name = format_name(format);
    return name ? name : "code " + std::to_string(format);
}

const char* comparison_text(uint32_t comparison) {
    return comparison == kt::GOAL_LESS_THAN_OR_EQUAL ? "LESS_THAN_OR_EQUAL"
                                                     : "GREATER_THAN_OR_EQUAL";
}

// Each getter throws when the core sent the attribute in another shape.
template <typename Getter>
void try_get(Getter getter) {
    try {
        getter();
    } catch (const std::exception&) {
    }
}

std::vector<sensor_uid> discovered_suids(const kiv_sensor_factory& factory,
                                         const std::string& name) {
    kivhal::lock_guard lock(discoveryMutex);
    auto found = factory.suidMap.find(name);
    return found == factory.suidMap.end() ? std::vector<sensor_uid>() : found->second;
}

sensor_info describe_sensor(const kiv_sensor_factory& factory, sensor_uid suid) {
    sensor_info info;
    info.suid = suid;
    sensor_attributes attrs;
    if (!factory.find_attributes(suid, &attrs)) return info;
    info.has_attributes = true;
    try_get([&] { info.name = attrs.get_string(kAttrName); });
    try_get([&] { info.vendor = attrs.get_string(kAttrVendor); });
    try_get([&] { info.type = attrs.get_string(kAttrType); });
    try_get([&] {
        info.stream_type = attrs.get_stream_type();
        info.has_stream_type = true;
    });
    try_get([&] { info.ranges = attrs.get_ranges(kAttrRanges); });
    try_get([&] { info.rates = attrs.get_floats(kAttrRates); });
    return info;
}

data_type_info describe_data_type(kt::DataType type) {
    data_type_info info;
    info.value = static_cast<int32_t>(type);
    info.format = kt::datatype_output_format(type);
    auto row = kt::dataTypeMap.find(type);
    if (row != kt::dataTypeMap.end()) {
        info.name = row->second.typeName;
        info.sensor_type = row->second.sensorType;
    }
    return info;
}

exercise_info describe_exercise(kt::ExerciseType type, const std::vector<kt::DataType>& data) {
    exercise_info info;
    info.number = static_cast<int32_t>(type);
    auto row = kt::exerTypeMap.find(type);
    if (row != kt::exerTypeMap.end()) info.name = row->second.typeName;
    for (kt::DataType d : data) info.data_types.push_back(static_cast<int32_t>(d));
    return info;
}

goal_info describe_goal(const kt::DataTypeGoal& goal) {
    goal_info info;
    info.data_type = describe_data_type(goal.dataType);
    info.comparison = goal.comparisonType;
    switch (info.data_type.format) {
        case kt::OUTPUT_FORMAT_INT:
            info.threshold_text = info.threshold_json = std::to_string(goal.threshold.intValue);
            break;
        case kt::OUTPUT_FORMAT_FLOAT:
            info.threshold_text = float_text(goal.threshold.floatValue);
            info.threshold_json = json_float(goal.threshold.floatValue);
            break;
        case kt::OUTPUT_FORMAT_BYTES: {
            std::string bytes_hex, text;
            bool printable = true;
            for (uint32_t i = 0; i < goal.thresholdLength; ++i) {
                const uint8_t byte = goal.threshold.bytesValue[i];
                char pair[4];
                snprintf(pair, sizeof(pair), "%02x", byte);
                bytes_hex += pair;
                printable = printable && byte >= 0x20 && byte < 0x7f;
                text += static_cast<char>(byte);
            }
            info.threshold_text = "bytes " + bytes_hex + (printable ? " \"" + text + "\"" : "");
            info.threshold_json = "{\"bytes\": \"" + bytes_hex + "\"" +
                                  (printable ? ", \"text\": " + json_string(text) : "") + "}";
            break;
        }
        default:
            info.threshold_text = "(not decoded: " + format_text(info.data_type.format) + ")";
            info.threshold_json = "null";
    }
    return info;
}

template <typename T, typename Key>
void sort_by(std::vector<T>& items, Key key) {
    std::stable_sort(items.begin(), items.end(),
                     [&](const T& a, const T& b) { return key(a) < key(b); });
}

// Prints rows with every column as wide as its widest cell.
void print_rows(FILE* out, const std::vector<std::vector<std::string>>& rows) {
    std::vector<size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
    }
    for (const auto& row : rows) {
        std::string line = " ";
        for (size_t i = 0; i < row.size(); ++i) {
            line += " " + row[i];
            if (i + 1 < row.size()) line += std::string(widths[i] - row[i].size() + 1, ' ');
        }
        fprintf(out, "%s\n", line.c_str());
    }
}

std::string join(const std::vector<std::string>& items, const char* separator) {
    std::string out;
    for (size_t i = 0; i < items.size(); ++i) out += (i ? separator : "") + items[i];
    return out;
}

std::string data_type_list(const std::vector<int32_t>& types) {
    std::vector<std::string> names;
    for (int32_t t : types) {
        const data_type_info info = describe_data_type(static_cast<kt::DataType>(t));
        names.push_back(info.name.empty() ? hex(t) : info.name);
    }
    return names.empty() ? "-" : join(names, ", ");
}

std::string ranges_text(const sensor_info& s) {
    std::vector<std::string> parts;
    for (const auto& [low, high] : s.ranges)
        parts.push_back(float_text(low) + ".." + float_text(high));
    return parts.empty() ? "-" : join(parts, " ");
}

std::string rates_text(const sensor_info& s) {
    std::vector<std::string> parts;
    for (float rate : s.rates) parts.push_back(float_text(rate));
    return parts.empty() ? "-" : join(parts, ",");
}

std::string or_dash(const std::string& text) {
    return text.empty() ? "-" : text;
}

void print_exercises(FILE* out, const char* title, const std::vector<exercise_info>& list,
                     bool with_data_types) {
    fprintf(out, "\n%s (%zu)\n", title, list.size());
    std::vector<std::vector<std::string>> rows;
    if (!list.empty()) {
        rows.push_back({"EXERCISE", "NAME"});
        if (with_data_types) rows[0].push_back("STARTED BY");
    }
    for (const exercise_info& e : list) {
        rows.push_back({hex(e.number), or_dash(e.name)});
        if (with_data_types) rows.back().push_back(data_type_list(e.data_types));
    }
    print_rows(out, rows);
}

std::string json_ints(const std::vector<int32_t>& values) {
    std::vector<std::string> parts;
    for (int32_t v : values) parts.push_back(std::to_string(v));
    return "[" + join(parts, ", ") + "]";
}

std::string json_exercises(const std::vector<exercise_info>& list, bool with_data_types) {
    std::vector<std::string> parts;
    for (const exercise_info& e : list) {
        parts.push_back(
            "{\"exercise\": " + std::to_string(e.number) + ", \"name\": " + json_string(e.name) +
            (with_data_types ? ", \"data_types\": " + json_ints(e.data_types) : "") + "}");
    }
    return "[" + join(parts, ", ") + "]";
}

std::string json_sensor(const sensor_info& s) {
    std::string out = "{\"suid\": " + json_string(suid_text(s.suid)) +
                      ", \"attributes\": " + (s.has_attributes ? "true" : "false");
    if (!s.has_attributes) return out + "}";
    std::vector<std::string> ranges, rates;
    for (const auto& [low, high] : s.ranges) {
        ranges.push_back("[" + json_float(low) + ", " + json_float(high) + "]");
    }
    for (float rate : s.rates) rates.push_back(json_float(rate));
    out += ", \"name\": " + json_string(s.name) + ", \"vendor\": " + json_string(s.vendor) +
           ", \"type\": " + json_string(s.type) + ", \"stream_type\": " +
           (s.has_stream_type ? json_string(stream_type_name(s.stream_type)) : "null") +
           ", \"ranges\": [" + join(ranges, ", ") + "], \"rates\": [" + join(rates, ", ") + "]}";
    return out;
}

}  // namespace

bool discovery_report::found_anything() const {
    for (const sensor_type_info& type : sensor_types) {
        if (!type.sensors.empty()) return true;
    }
    return false;
}

discovery_report collect_report(kiv_sensor_factory& factory) {
    discovery_report report;
    report.later_boot = factory.laterBoot;

    const std::unordered_set<std::string> available = factory.listAvailableSensorTypes();
    std::set<std::string> seen;
    for (const std::string& name : factory.discoveryList) {
        if (!seen.insert(name).second) continue;
        sensor_type_info type;
        type.name = name;
        for (sensor_uid suid : discovered_suids(factory, name)) {
            type.sensors.push_back(describe_sensor(factory, suid));
        }
        type.available = available.count(name) != 0;
        type.configured =
            std::any_of(kt::dataTypeMap.begin(), kt::dataTypeMap.end(),
                        [&](const auto& row) { return row.second.sensorType == name; });
        type.status = factory.getSensorAvailabilityStatus(name);
        for (auto d : factory.getAllDatatypes(name))
            type.data_types.push_back(static_cast<int32_t>(d));
        std::sort(type.data_types.begin(), type.data_types.end());
        report.sensor_types.push_back(std::move(type));
    }

    for (auto type : factory.getSupportedMetricsTypes())
        report.metrics.push_back(describe_data_type(type));
    sort_by(report.metrics, [](const data_type_info& d) { return d.value; });
    for (const auto& goal : factory.getSupportedGoals())
        report.goals.push_back(describe_goal(goal));
    sort_by(report.goals, [](const goal_info& g) { return g.data_type.value; });
    for (const auto& cap : factory.getAutoStartList()) {
        report.auto_start.push_back(describe_exercise(cap.exerciseType, cap.dataTypes));
    }
    for (auto e : factory.getAutoStopList()) report.auto_stop.push_back(describe_exercise(e, {}));
    for (auto e : factory.getAutoPauseList()) report.auto_pause.push_back(describe_exercise(e, {}));
    for (auto* list : {&report.auto_start, &report.auto_stop, &report.auto_pause}) {
        sort_by(*list, [](const exercise_info& e) { return e.number; });
    }
    return report;
}

void print_table(const discovery_report& report, FILE* out) {
    fprintf(out, "Sensor core on channel \"%s\": %s boot, discovery took %.1f s\n",
            report.channel.c_str(), report.later_boot ? "later" : "first", report.seconds);

    fprintf(out, "\nSensor types (%zu looked up)\n", report.sensor_types.size());
    std::vector<std::vector<std::string>> rows{
        {"SENSOR TYPE", "SUID", "NAME", "VENDOR", "STREAM", "RANGES", "RATES"}};
    for (const sensor_type_info& type : report.sensor_types) {
        if (type.sensors.empty()) rows.push_back({type.name, "(not found)"});
        for (const sensor_info& s : type.sensors) {
            if (!s.has_attributes) {
                rows.push_back({type.name, suid_text(s.suid), "(no attributes)"});
                continue;
            }
            rows.push_back({type.name, suid_text(s.suid), or_dash(s.name), or_dash(s.vendor),
                            s.has_stream_type ? stream_type_name(s.stream_type) : "-",
                            ranges_text(s), rates_text(s)});
        }
    }
    print_rows(out, rows);

    fprintf(out, "\nSupported metrics (%zu)\n", report.metrics.size());
    rows = {{"DATA TYPE", "NAME", "SENSOR TYPE", "FORMAT"}};
    for (const data_type_info& d : report.metrics) {
        rows.push_back(
            {hex(d.value), or_dash(d.name), or_dash(d.sensor_type), format_text(d.format)});
    }
    if (report.metrics.empty()) rows.clear();
    print_rows(out, rows);

    fprintf(out, "\nSupported goals (%zu)\n", report.goals.size());
    rows = {{"DATA TYPE", "NAME", "COMPARISON", "THRESHOLD"}};
    for (const goal_info& g : report.goals) {
        rows.push_back({hex(g.data_type.value), or_dash(g.data_type.name),
                        comparison_text(g.comparison), g.threshold_text});
    }
    if (report.goals.empty()) rows.clear();
    print_rows(out, rows);

    print_exercises(out, "Auto start", report.auto_start, true);
    print_exercises(out, "Auto stop", report.auto_stop, false);
    print_exercises(out, "Auto pause", report.auto_pause, false);

    fprintf(out, "\nAvailability per sensor type\n");
    rows = {{"SENSOR TYPE", "AVAILABLE", "STATUS", "DATA TYPES"}};
    for (const sensor_type_info& type : report.sensor_types) {
        rows.push_back({type.name, type.available ? "yes" : "no",
                        type.configured ? (type.status ? "on" : "off") : "-",
                        data_type_list(type.data_types)});
    }
    print_rows(out, rows);
}

void print_json(const discovery_report& report, FILE* out) {
    std::vector<std::string> types, metrics, goals;
    for (const sensor_type_info& type : report.sensor_types) {
        std::vector<std::string> sensors;
        for (const sensor_info& s : type.sensors) sensors.push_back(json_sensor(s));
        types.push_back("    {\"name\": " + json_string(type.name) + ", \"available\": " +
                        (type.available ? "true" : "false") + ", \"status\": " +
                        (type.configured ? (type.status ? "true" : "false") : "null") +
                        ", \"data_types\": " + json_ints(type.data_types) + ", \"sensors\": [" +
                        join(sensors, ", ") + "]}");
    }
    for (const data_type_info& d : report.metrics) {
        metrics.push_back("{\"data_type\": " + std::to_string(d.value) + ", \"name\": " +
                          json_string(d.name) + ", \"sensor_type\": " + json_string(d.sensor_type) +
                          ", \"output_format\": " + std::to_string(d.format) + "}");
    }
    for (const goal_info& g : report.goals) {
        goals.push_back("{\"data_type\": " + std::to_string(g.data_type.value) +
                        ", \"name\": " + json_string(g.data_type.name) +
                        ", \"comparison\": " + json_string(comparison_text(g.comparison)) +
                        ", \"threshold\": " + g.threshold_json + "}");
    }
    fprintf(out,
            "{\n  \"channel\": %s,\n  \"boot\": \"%s\",\n  \"discovery_seconds\": %.3f,\n"
            "  \"found\": %s,\n  \"sensor_types\": [\n%s\n  ],\n  \"supported_metrics\": [%s],\n"
            "  \"supported_goals\": [%s],\n  \"auto_start\": %s,\n  \"auto_stop\": %s,\n"
            "  \"auto_pause\": %s\n}\n",
            json_string(report.channel).c_str(), report.later_boot ? "later" : "first",
            report.seconds, report.found_anything() ? "true" : "false", join(types, ",\n").c_str(),
            join(metrics, ", ").c_str(), join(goals, ", ").c_str(),
            json_exercises(report.auto_start, true).c_str(),
            json_exercises(report.auto_stop, false).c_str(),
            json_exercises(report.auto_pause, false).c_str());
}

}  // namespace tools
}  // namespace kivhal
