// Feeds one arbitrary encoded event message to each discovery callback the
// reader thread calls (registry wait, SUID lookup, attributes), then reads
// every stored attribute back through the typed getters.

#include <cstdlib>
#include <stdexcept>

#include "fuzz_support.h"
#include "kiv_sensor_factory.h"

namespace {

void reset_process_state() {
    mandatorySensors.clear();
    mandatoryFound.clear();
    num_mandatory_sns = 0;
    allMandatoryFound.store(false);
}

// The getters throw std::out_of_range or std::runtime_error for values of
// another shape: their contract, so those are caught; anything else is not.
template <typename Getter>
void read_back(Getter getter) {
    try {
        getter();
    } catch (const std::out_of_range&) {
    } catch (const std::runtime_error&) {
    }
}

void read_every_attribute(const sensor_attributes& attributes) {
    read_back([&] { attributes.get_stream_type(); });
    for (const auto& entry : attributes.attributes()) {
        const int32_t id = entry.first;
        read_back([&] { attributes.get_string(id); });
        read_back([&] { attributes.get_floats(id); });
        read_back([&] { attributes.get_ints(id); });
        read_back([&] { attributes.get_bools(id); });
        read_back([&] { attributes.get_ranges(id); });
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    kivhal::fuzz::device_root();
    kivhal::fuzz::set_log_level_from_environment();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    reset_process_state();
    kiv_sensor_factory factory;
    const uint32_t length = static_cast<uint32_t>(size);
    constexpr uint64_t kArrival = 1;

    factory.registry_lookup_callback(data, length, kArrival);
    factory.default_suids_lookup_callback(data, length, kArrival);
    factory.pendingAttributes = 1;
    factory.default_attributes_lookup_callback(data, length, kArrival);

    // A lookup answer stores only non-empty SUID lists.
    for (const auto& entry : factory.suidMap) {
        if (entry.second.empty()) abort();
        const sensor_uid first = factory.get_suids(entry.first);
        if (!(first == entry.second.front())) abort();
    }
    for (const auto& entry : factory.attributesMap) read_every_attribute(entry.second);
    factory.listAvailableSensorTypes();
    reset_process_state();  // what this input added is freed within it
    kivhal::fuzz::end_input();
    return 0;
}
