// Feeds an arbitrary persisted sensor list to a later boot: the list is read,
// lookup answers arrive for some listed and some unlisted names, and the
// counters discovery waits on must stay consistent.

#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "kiv_sensor_factory.h"

namespace {

constexpr char kListPath[] = "/mnt/vendor/persist/sensors/kiv_sensors_list.txt";
constexpr size_t kAnsweredNames = 8;
const sensor_uid kAnySuid{0x1, 0x2};

void reset_process_state() {
    mandatorySensors.clear();
    mandatoryFound.clear();
    num_mandatory_sns = 0;
    allMandatoryFound.store(false);
}

// Names lookups answer for: the first listed ones, one the list may lack and
// the empty name.
std::vector<std::string> answered_names() {
    std::vector<std::string> names(
        mandatorySensors.begin(),
        mandatorySensors.begin() + std::min(kAnsweredNames, mandatorySensors.size()));
    names.push_back("health");
    names.push_back("");
    return names;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    kivhal::fuzz::device_root();
    kivhal::fuzz::set_log_level_from_environment();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    reset_process_state();
    kivhal::fuzz::write_device_file(kListPath, data, size);

    kiv_sensor_factory factory;
    factory.init_mandatory_list_db();
    if (!factory.laterBoot) abort();  // the list exists, so this is a later boot
    const size_t listed = mandatorySensors.size();
    for (const std::string& name : mandatorySensors) mandatoryFound.emplace(name, false);

    // Discovery stops waiting once the count of listed names found reaches
    // the list's size: each listed name must count once, nothing else at all.
    std::set<std::string> listed_and_found;
    for (const std::string& name : answered_names()) {
        if (mandatoryFound.count(name) != 0) listed_and_found.insert(name);
        factory.handle_suids_lookup_callback(name, {kAnySuid});
        if (num_mandatory_sns != listed_and_found.size()) abort();
    }
    // Done waiting means every listed name was found (an unlisted answer
    // grows the list, so finding them all need not end the wait).
    if (allMandatoryFound.load() && listed_and_found.size() != listed) abort();
    factory.deinit_mandatory_list_db();
    reset_process_state();  // what this input added is freed within it
    kivhal::fuzz::end_input();
    return 0;
}
