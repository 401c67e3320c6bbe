// Later-boot discovery against a responsive core stand-in, compared with the
// sum of the fixed sleeps on that path (the floor no implementation can beat).

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include "core_stub.h"
#include "fake_tav_interface.h"
#include "kiv_log.h"
#include "kiv_sensor_factory.h"
#include "test_support.h"

namespace {

constexpr char kChannel[] = "discovery_bench";
constexpr int kSensorTypes = 50;
constexpr const char* kListPath = "/mnt/vendor/persist/sensors/kiv_sensors_list.txt";
constexpr const char* kConfigPath = "/vendor/etc/sensors/oem_config.xml";

// Registry disable pause, later-boot lookup sleep, discovery disable pause,
// attribute release pause.
constexpr double kFloorSeconds = 0.100 + 1.000 + 0.050 + 0.050;

std::vector<std::string> sensor_type_names() {
    std::vector<std::string> names = {"health", "health_async_announce"};
    for (int i = static_cast<int>(names.size()); i < kSensorTypes; i++) {
        names.push_back("bench_type_" + std::to_string(i));
    }
    return names;
}

std::string oem_config(const std::vector<std::string>& names) {
    std::ostringstream xml;
    xml << "<configuration type=\"KIV_oem_datatype\">\n  <datatypes>\n";
    for (size_t i = 2; i < names.size(); i++) {
        xml << "    <datatype sensor_type=\"" << names[i] << "\" type=\"" << names[i]
            << "\" data_type_value=\"0x" << std::hex << i << std::dec << "\"/>\n";
    }
    xml << "  </datatypes>\n</configuration>\n";
    return xml.str();
}

void BM_LaterBootDiscovery(benchmark::State& state) {
    kiv_log::set_level(kiv_log::ERROR);
    kivhal::test::scoped_root root;
    root.write_file("/sys/power/wake_lock", "");
    root.write_file("/sys/power/wake_unlock", "");
    const std::vector<std::string> names = sensor_type_names();
    root.write_file(kConfigPath, oem_config(names));

    kivhal::test::core_stub core(kChannel);
    core.set_auto_respond(true);
    core.add_sensor_type("registry", {{0x1, 0x1}});
    std::string list;
    for (size_t i = 0; i < names.size(); i++) {
        const sensor_uid suid{0x1000 + i, 0x2};
        core.add_sensor_type(names[i], {suid});
        sns_std_attr_event attributes;
        sns_std_attr* attr = attributes.add_attributelist();
        attr->set_attributeid(sensor_attributes::STREAM_TYPE_ATTRIBUTE_ID);
        attr->mutable_value()->add_elementlist()->set_intvalue(1);
        core.set_attributes(suid, attributes);
        list += names[i] + "\n";
    }

    size_t attributes_found = 0;
    for (auto _ : state) {
        state.PauseTiming();
        root.write_file(kListPath, list);
        kivhal::test::reset_discovery_state();
        auto factory = std::make_unique<kiv_sensor_factory>();
        std::unique_ptr<tav_interface> conn(
            tav_interface::create(TAV_DUCTO_CONNECTION, tav_conn_config{kChannel}));
        state.ResumeTiming();

        factory->startDiscovery(conn.get());

        state.PauseTiming();
        conn.reset();
        attributes_found = factory->attributesMap.size();
        factory.reset();
        state.ResumeTiming();
    }
    state.counters["floor_s"] = kFloorSeconds;
    state.counters["sensor_types"] = kSensorTypes;
    state.counters["attributes_found"] = static_cast<double>(attributes_found);
}

// The same sleeps, slept back to back: the floor as this host delivers it.
void BM_LaterBootSleepFloor(benchmark::State& state) {
    for (auto _ : state) {
        usleep(100000);
        std::this_thread::sleep_for(std::chrono::seconds(1));
        usleep(50000);
        usleep(50000);
    }
    state.counters["floor_s"] = kFloorSeconds;
}

}  // namespace

BENCHMARK(BM_LaterBootSleepFloor)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_LaterBootDiscovery)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

BENCHMARK_MAIN();
