// Cost of reading a large OEM configuration and of answering every capability
// query once against it, with the heap the parse needs. The parse is set
// against its floor, measured alternately in the same run: tinyxml2 loading
// the same file and visiting every element and attribute (counter "ratio").

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/resource.h>
#include <tinyxml2.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <new>
#include <sstream>
#include <string>

#include "catalogue.h"
#include "kiv_log.h"
#include "kiv_types.h"
#include "kivhal/platform.h"
#include "test_support.h"

namespace catalogue = kivhal::catalogue;
namespace kt = vendor::zep::hardware::kiv_types;

namespace {

constexpr int kDataTypes = 2000;
constexpr int kExercises = 200;
constexpr int kDataTypesPerSensor = 10;
constexpr int kSensorTypes = kDataTypes / kDataTypesPerSensor;
// One sensor type in this many has no attributes, so filtering has work to do.
constexpr int kSilentSensorEvery = 4;
constexpr int kStartTypesPerExercise = 3;
constexpr int kFirstDataType = 0x100000;
constexpr const char* kConfigPath = "/vendor/etc/sensors/oem_config.xml";

// Live and peak heap bytes of the whole process, for the memory counters;
// kept only while g_tracking is set, so timed runs do not pay for it. Signed:
// blocks allocated untracked may be freed while tracking, so only
// differences are meaningful.
std::atomic<bool> g_tracking{true};
std::atomic<int64_t> g_live_bytes{0};
std::atomic<int64_t> g_peak_bytes{0};

void note_allocation(size_t size) {
    const auto bytes = static_cast<int64_t>(size);
    int64_t live = g_live_bytes.fetch_add(bytes, std::memory_order_relaxed) + bytes;
    int64_t peak = g_peak_bytes.load(std::memory_order_relaxed);
    while (live > peak &&
           !g_peak_bytes.compare_exchange_weak(peak, live, std::memory_order_relaxed)) {
    }
}

std::string hex_value(int index) {
    std::ostringstream text;
    text << "0x" << std::hex << (kFirstDataType + index);
    return text.str();
}

std::string sensor_name(int index) {
    return "sensor_" + std::to_string(index % kSensorTypes);
}

std::string threshold_xml(int index) {
    switch (index % 3) {
        case 0:
            return R"(<threshold type="int" type_value=")" + std::to_string(index) +
                   R"(" comparison_type="GREATER_THAN_OR_EQUAL"/>)";
        case 1:
            return R"(<threshold type="float" type_value="1.5" )"
                   R"(comparison_type="LESS_THAN_OR_EQUAL"/>)";
        default:
            return R"(<threshold type="byte" type_value="ABCDEFGH" )"
                   R"(comparison_type="LESS_THAN_OR_EQUAL"/>)";
    }
}

std::string generate_config() {
    std::ostringstream xml;
    xml << "<?xml version=\"1.0\"?>\n<configuration type=\"KIV_oem_datatype\">\n<datatypes>\n";
    for (int i = 0; i < kDataTypes; ++i) {
        xml << "<datatype sensor_type=\"" << sensor_name(i) << "\" type=\"type_" << i
            << "\" data_type_value=\"" << hex_value(i) << "\"/>\n";
    }
    xml << "</datatypes>\n<goals>\n";
    for (int i = 0; i < kDataTypes; ++i) {
        xml << "<goal data_type_value=\"" << hex_value(i) << "\">" << threshold_xml(i)
            << threshold_xml(i + 1) << "</goal>\n";
    }
    xml << "</goals>\n<autoExerciseType>\n";
    for (int e = 0; e < kExercises; ++e) {
        xml << "<exercisetype type=\"exercise_" << e << "\" sensor_type=\"" << sensor_name(e)
            << "\" exercise_num=\"" << e << "\" auto_start=\"" << (e % 2 == 0) << "\" auto_stop=\""
            << (e % 3 == 0) << "\" auto_pause=\"true\">";
        for (int k = 0; k < kStartTypesPerExercise; ++k) {
            xml << "<datatype type=\"TYPE_" << (e * kStartTypesPerExercise + k) << "\"/>";
        }
        xml << "</exercisetype>\n";
    }
    xml << "</autoExerciseType>\n</configuration>\n";
    return xml.str();
}

// What one parse fills, as the factory holds it.
struct parsed_catalogue {
    bool parse(const char* path) {
        return catalogue::parseOEMConfig(path, dataTypes, exercises, discoveryList);
    }

    kt::DataTypeTable dataTypes;
    kt::ExerciseTypeTable exercises;
    std::vector<std::string> discoveryList;
};

class catalogue_fixture {
  public:
    catalogue_fixture() {
        root.write_file(kConfigPath, generate_config());
        path = kivhal::platform::resolve_path(kConfigPath);
        for (int s = 0; s < kSensorTypes; ++s) {
            const sensor_uid suid = {static_cast<uint64_t>(s), static_cast<uint64_t>(s)};
            suids[sensor_name(s)] = {suid};
            if (s % kSilentSensorEvery != 0) attributes.emplace(suid, sensor_attributes());
        }
    }

    kivhal::test::scoped_root root;
    std::string path;
    catalogue::SuidMap suids;
    catalogue::AttributesMap attributes;
};

catalogue_fixture& fixture() {
    static catalogue_fixture* f = new catalogue_fixture();
    return *f;
}

long max_rss_kb() {
    struct rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

using clock_type = std::chrono::steady_clock;

double seconds_since(clock_type::time_point start) {
    return std::chrono::duration<double>(clock_type::now() - start).count();
}

// Everything any reader of the file has to do: load it and look at every
// element and attribute once.
__attribute__((noinline)) size_t load_and_walk(const char* path) {
    tinyxml2::XMLDocument document(true, tinyxml2::PRESERVE_WHITESPACE);
    if (document.LoadFile(path) != tinyxml2::XML_SUCCESS) return 0;
    size_t visited = 0;
    const tinyxml2::XMLElement* element = document.FirstChildElement();
    while (element != nullptr) {
        benchmark::DoNotOptimize(element->Name());
        for (const tinyxml2::XMLAttribute* a = element->FirstAttribute(); a != nullptr;
             a = a->Next()) {
            benchmark::DoNotOptimize(a->Name());
            benchmark::DoNotOptimize(a->Value());
            ++visited;
        }
        ++visited;
        // Depth first: child, else the next sibling of the nearest ancestor.
        const tinyxml2::XMLElement* next = element->FirstChildElement();
        while (next == nullptr && element != nullptr) {
            next = element->NextSiblingElement();
            const tinyxml2::XMLNode* parent = element->Parent();
            element = parent != nullptr ? parent->ToElement() : nullptr;
        }
        element = next;
    }
    return visited;
}

// The heap one parse needs at its peak.
int64_t parse_peak_heap(const char* path) {
    parsed_catalogue parsed;
    g_tracking = true;
    const int64_t baseline = g_live_bytes.load();
    g_peak_bytes.store(baseline);
    benchmark::DoNotOptimize(parsed.parse(path));
    const int64_t peak = g_peak_bytes.load() - baseline;
    g_tracking = false;
    return peak;
}

void BM_ParseConfig(benchmark::State& state) {
    catalogue_fixture& f = fixture();
    const long rss_before = max_rss_kb();
    const int64_t peak_heap = parse_peak_heap(f.path.c_str());
    double parse_seconds = 0, walk_seconds = 0;
    size_t rows = 0;
    for (auto _ : state) {
        auto parsed = std::make_unique<parsed_catalogue>();

        auto start = clock_type::now();
        benchmark::DoNotOptimize(load_and_walk(f.path.c_str()));
        walk_seconds += seconds_since(start);

        start = clock_type::now();
        benchmark::DoNotOptimize(parsed->parse(f.path.c_str()));
        const double parse = seconds_since(start);
        rows = parsed->dataTypes.size();
        parse_seconds += parse;
        state.SetIterationTime(parse);
    }
    const double iterations = static_cast<double>(state.iterations());
    state.counters["rows"] = static_cast<double>(rows);
    state.counters["peak_heap_bytes"] = static_cast<double>(peak_heap);
    state.counters["maxrss_delta_kb"] = static_cast<double>(max_rss_kb() - rss_before);
    state.counters["walk_ms"] = walk_seconds * 1e3 / iterations;
    state.counters["ratio"] = parse_seconds / walk_seconds;
    g_tracking = true;
}
BENCHMARK(BM_ParseConfig)->UseManualTime()->Unit(benchmark::kMillisecond);

void run_every_query(parsed_catalogue& parsed, const catalogue::discovered& found) {
    kt::DataTypeTable& dataTypes = parsed.dataTypes;
    benchmark::DoNotOptimize(catalogue::listAvailableSensorTypes(found));
    benchmark::DoNotOptimize(catalogue::getSupportedMetricsTypes(dataTypes, found));
    benchmark::DoNotOptimize(catalogue::getSupportedGoals(dataTypes, found));
    kt::DataTypeGoal goal{};
    goal.dataType = static_cast<kt::DataType>(kFirstDataType);
    goal.comparisonType = kt::GOAL_GREATER_THAN_OR_EQUAL;
    benchmark::DoNotOptimize(catalogue::isGoalSupported(dataTypes, goal));
    benchmark::DoNotOptimize(catalogue::getAutoStartList(parsed.exercises));
    benchmark::DoNotOptimize(catalogue::getAutoStopList(parsed.exercises, found));
    benchmark::DoNotOptimize(catalogue::getAutoPauseList(parsed.exercises, found));
    catalogue::setSensorAvailabilityStatus(dataTypes, sensor_name(1), true);
    benchmark::DoNotOptimize(catalogue::getSensorAvailabilityStatus(dataTypes, sensor_name(1)));
    benchmark::DoNotOptimize(catalogue::getAllDatatypes(dataTypes, sensor_name(1)));
}

void BM_QuerySet(benchmark::State& state) {
    catalogue_fixture& f = fixture();
    parsed_catalogue parsed;
    if (!parsed.parse(f.path.c_str())) {
        state.SkipWithError("configuration did not parse");
        return;
    }
    const catalogue::discovered found{f.suids, f.attributes};
    int64_t peak_heap = 0;
    for (auto _ : state) {
        const int64_t baseline = g_live_bytes.load();
        g_peak_bytes.store(baseline);
        run_every_query(parsed, found);
        peak_heap = std::max(peak_heap, g_peak_bytes.load() - baseline);
    }
    const size_t goals = catalogue::getSupportedGoals(parsed.dataTypes, found).size();
    state.counters["goals"] = static_cast<double>(goals);
    state.counters["peak_heap_bytes"] = static_cast<double>(peak_heap);
}
BENCHMARK(BM_QuerySet)->Unit(benchmark::kMicrosecond);

}  // namespace

// Counting global allocator: the library's allocations land here too.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(size_t size) {
    void* p = malloc(size == 0 ? 1 : size);
    if (p == nullptr) throw std::bad_alloc();
    if (g_tracking.load(std::memory_order_relaxed)) note_allocation(malloc_usable_size(p));
    return p;
}
void* operator new[](size_t size) {
    return operator new(size);
}
void operator delete(void* p) noexcept {
    if (p == nullptr) return;
    if (g_tracking.load(std::memory_order_relaxed)) {
        g_live_bytes.fetch_sub(static_cast<int64_t>(malloc_usable_size(p)),
                               std::memory_order_relaxed);
    }
    free(p);
}
void operator delete[](void* p) noexcept {
    operator delete(p);
}
void operator delete(void* p, size_t) noexcept {
    operator delete(p);
}
void operator delete[](void* p, size_t) noexcept {
    operator delete(p);
}
#pragma GCC diagnostic pop

BENCHMARK_MAIN();
