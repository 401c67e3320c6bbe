// The factory's state as text, for bug reports.
#include <algorithm>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "discovery_util.h"
#include "kiv_dump.h"
#include "kiv_sensor_factory.h"

using kivhal::discovery::ns_to_seconds;
using kivhal::dump::appendf;
using kivhal::dump::suid_text;
namespace kt = vendor::zep::hardware::kiv_types;

namespace {

struct sensor_type_row {
    std::string name;
    std::vector<sensor_uid> suids;
};

// What the dump shows, copied under the factory's locks one at a time.
struct factory_snapshot {
    int64_t start_ns = 0;  // 0: discovery never ran
    int64_t end_ns = 0;
    int64_t last_suid_ns = 0;
    uint32_t wait_ms = 0;
    bool later_boot = false;
    bool registry_up = false;
    size_t mandatory_listed = 0;
    uint32_t mandatory_found = 0;
    bool all_mandatory_found = false;
    std::vector<sensor_type_row> sensor_types;  // discovery list order, then the rest
    std::unordered_set<sensor_uid, sensor_uid_hash> with_attributes;
    uint32_t pending_attributes = 0;
    size_t data_types = 0;
    size_t data_types_with_goals = 0;
    size_t goals = 0;
    size_t exercises = 0;
};

void append_timing(std::string* out, const factory_snapshot& s) {
    if (s.start_ns == 0) {
        appendf(out, "  discovery: not run\n");
        return;
    }
    appendf(
        out, "  boot: %s\n",
        s.later_boot ? "later (persisted sensor list read)" : "first (no persisted sensor list)");
    if (s.end_ns == 0) {
        appendf(out, "  discovery: started, not finished\n");
    } else {
        appendf(out, "  discovery: took %.3f s, SUID wait %u ms\n",
                ns_to_seconds(s.end_ns - s.start_ns), s.wait_ms);
    }
    if (s.last_suid_ns >= s.start_ns) {
        appendf(out, "  last SUID answer: %.3f s after the start\n",
                ns_to_seconds(s.last_suid_ns - s.start_ns));
    } else {
        appendf(out, "  last SUID answer: none\n");
    }
}

std::string format_factory(const factory_snapshot& s) {
    std::string out = "Sensor factory (kiv_sensor_factory)\n";
    append_timing(&out, s);
    appendf(&out, "  registry: %s\n", s.registry_up ? "up" : "not answering");
    if (s.later_boot) {
        appendf(&out, "  mandatory sensors: %zu listed, %u found this boot, all found: %s\n",
                s.mandatory_listed, s.mandatory_found, s.all_mandatory_found ? "yes" : "no");
    } else {
        appendf(&out, "  mandatory sensors: %u found, listed for later boots\n", s.mandatory_found);
    }
    const size_t found =
        std::count_if(s.sensor_types.begin(), s.sensor_types.end(),
                      [](const sensor_type_row& row) { return !row.suids.empty(); });
    appendf(&out, "  sensor types: %zu, %zu found\n", s.sensor_types.size(), found);
    for (const sensor_type_row& row : s.sensor_types) {
        if (row.suids.empty()) appendf(&out, "    %s: not found\n", row.name.c_str());
        for (const sensor_uid& suid : row.suids) {
            appendf(&out, "    %s: %s, attributes %s\n", row.name.c_str(), suid_text(suid).c_str(),
                    s.with_attributes.count(suid) != 0 ? "received" : "missing");
        }
    }
    appendf(&out, "  attributes: %zu sensors answered, %u pending\n", s.with_attributes.size(),
            s.pending_attributes);
    appendf(&out, "  catalogue: %zu data types (%zu with goals, %zu goals), %zu exercises\n",
            s.data_types, s.data_types_with_goals, s.goals, s.exercises);
    return out;
}

// Every name discovery looks up, in its order, then any other the core answered.
std::vector<sensor_type_row> sensor_type_rows(
    const std::vector<std::string>& names,
    const std::vector<std::pair<std::string, std::vector<sensor_uid>>>& found) {
    std::vector<sensor_type_row> rows;
    auto add = [&rows](const std::string& name) {
        for (const sensor_type_row& row : rows) {
            if (row.name == name) return;
        }
        rows.push_back({name, {}});
    };
    for (const std::string& name : names) add(name);
    for (const auto& entry : found) add(entry.first);
    for (sensor_type_row& row : rows) {
        for (const auto& entry : found) {
            if (entry.first == row.name) row.suids = entry.second;
        }
    }
    return rows;
}

void count_catalogue(factory_snapshot* s) {
    s->data_types = kt::dataTypeMap.size();
    for (const auto& row : kt::dataTypeMap) {
        s->goals += row.second.goals.size();
        if (row.second.goalSupported) ++s->data_types_with_goals;
    }
    s->exercises = kt::exerTypeMap.size();
}

}  // namespace

void kiv_sensor_factory::dump(int fd) {
    factory_snapshot s;
    s.start_ns = discoveryStartNs;
    s.end_ns = discoveryEndNs;
    s.later_boot = laterBoot;
    s.wait_ms = get_discovery_timeout_ms();
    s.registry_up = registry_is_up();
    std::vector<std::pair<std::string, std::vector<sensor_uid>>> found;
    {
        kivhal::lock_guard lock(discoveryMutex);
        found.assign(suidMap.begin(), suidMap.end());
        s.last_suid_ns = lastSuidTime;
        s.mandatory_listed = mandatorySensors.size();
        s.mandatory_found = num_mandatory_sns;
    }
    s.all_mandatory_found = allMandatoryFound;
    std::sort(found.begin(), found.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    s.sensor_types = sensor_type_rows(discoveryList, found);
    {
        kivhal::lock_guard lock(attributesMapMutex);
        for (const auto& entry : attributesMap) s.with_attributes.insert(entry.first);
    }
    {
        kivhal::lock_guard lock(attrMutex);
        s.pending_attributes = pendingAttributes;
    }
    count_catalogue(&s);
    kivhal::dump::write_fully(fd, format_factory(s));
}
