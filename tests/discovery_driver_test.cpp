#include <gtest/gtest.h>
#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <stdexcept>
#include <thread>
#include <type_traits>

#include "fake_tav_interface.h"
#include "kiv_log.h"
#include "kiv_sensor_factory.h"
#include "sensor_attributes.h"
#include "test_support.h"
#include "virtual_clock.h"

// Discovery against the in-process fake core, which records every request:
// whole startDiscovery runs, then the callbacks, the mandatory sensor list and
// the attribute store driven directly. Discovery's pauses run on virtual
// time, with every answer the fake owes delivered before each pause ends.

namespace {

using core_t = kivhal::test::fake_tav_interface;
using kivhal::test::fake_request;
using kivhal::test::kLookupSuid;
using kivhal::test::log_contains;
using kivhal::test::log_lines_containing;

constexpr const char* kListPath = "/mnt/vendor/persist/sensors/kiv_sensors_list.txt";
constexpr const char* kConfigPath = "/vendor/etc/sensors/oem_config.xml";
constexpr int32_t kRangesId = 2;
constexpr int32_t kStreamTypeId = sensor_attributes::STREAM_TYPE_ATTRIBUTE_ID;

template <typename T>
sns_std_attr_value values(std::initializer_list<T> items) {
    sns_std_attr_value value;
    for (const T& item : items) {
        auto* element = value.add_elementlist();
        if constexpr (std::is_same_v<T, float>) element->set_floatvalue(item);
        if constexpr (std::is_same_v<T, int64_t>) element->set_intvalue(item);
        if constexpr (std::is_same_v<T, bool>) element->set_boolvalue(item);
        if constexpr (std::is_same_v<T, const char*>) element->set_stringvalue(item);
    }
    return value;
}

sns_std_attr_value nested(std::initializer_list<sns_std_attr_value> items) {
    sns_std_attr_value value;
    for (const auto& item : items) *value.add_elementlist()->mutable_nestedvalue() = item;
    return value;
}

// The message of the `E` that `call` throws.
template <typename E, typename F>
std::string error_of(F call) {
    try {
        call();
    } catch (const E& e) {
        return e.what();
    }
    return "nothing thrown";
}

// Each getter reads its own kind and names what is wrong with any other.
TEST(SensorAttributesTest, GettersReadTheirKindAndNameWhatIsWrong) {
    sensor_attributes a;
    a.set_attribute(0, values<const char*>({"accel", "ignored"}));
    a.set_attribute(1, values<float>({1.5f, -2.0f}));
    a.set_attribute(3, values<int64_t>({7, -9}));
    a.set_attribute(4, values<bool>({true, false}));
    a.set_attribute(kRangesId, nested({values<float>({-4, 4}), values<float>({-8, 8})}));
    a.set_attribute(5, sns_std_attr_value());
    sns_std_attr_value mixed = values<float>({1.0f});
    mixed.add_elementlist()->set_stringvalue("x");
    a.set_attribute(10, mixed);
    a.set_attribute(11, nested({values<float>({0, 1}), mixed}));
    a.set_attribute(12, nested({values<float>({1})}));

    EXPECT_EQ(a.get_string(0), "accel");
    EXPECT_EQ(a.get_floats(1), (std::vector<float>{1.5f, -2.0f}));
    EXPECT_EQ(a.get_ints(3), (std::vector<int64_t>{7, -9}));
    EXPECT_EQ(a.get_bools(4), (std::vector<bool>{true, false}));
    EXPECT_EQ(a.get_ranges(kRangesId), (std::vector<std::pair<float, float>>{{-4.0f, 4.0f}, {-8.0f, 8.0f}}));
    EXPECT_TRUE(a.get_floats(5).empty() && a.get_ranges(5).empty());

    using std::runtime_error;
    const std::string absent = "unordered_map::at: key not found";
    EXPECT_EQ(error_of<runtime_error>([&] { a.get_floats(10); }), "attribute 10 element 1 is not a float");
    EXPECT_EQ(error_of<runtime_error>([&] { a.get_ints(1); }), "attribute 1 element 0 is not an int");
    EXPECT_EQ(error_of<runtime_error>([&] { a.get_bools(0); }), "attribute 0 element 0 is not a boolean");
    EXPECT_EQ(error_of<runtime_error>([&] { a.get_string(5); }), "attribute value is not a string");
    for (int32_t id : {11, 12, 1}) {
        EXPECT_EQ(error_of<runtime_error>([&] { a.get_ranges(id); }),
                  "malformed value for SNS_STD_SENSOR_ATTRID_RANGES") << id;
    }
    EXPECT_EQ(error_of<std::out_of_range>([&] { a.get_ranges(99); }), absent);
    EXPECT_EQ(error_of<std::out_of_range>([&] { a.get_stream_type(); }), absent);
    a.set_attribute(kStreamTypeId, sns_std_attr_value());
    EXPECT_EQ(error_of<runtime_error>([&] { a.get_stream_type(); }), "stream_type attribute not available");
    a.set_attribute(kStreamTypeId, values<int64_t>({2, 5}));
    EXPECT_EQ(a.get_stream_type(), 2);
}

constexpr uint32_t kLookup = 512, kDisable = 10, kAttribute = 1;
constexpr const char* kConfig = R"(<configuration type="KIV_oem_datatype"><datatypes>
    <datatype sensor_type="heart_rate" type="heart_rate" data_type_value="0x1"/></datatypes></configuration>)";
const sensor_uid kHealth{0x200, 0x2}, kHeartRate{0x300, 0x3};

using Handler = void (kiv_sensor_factory::*)(const uint8_t*, uint32_t, uint64_t);

class DiscoveryDriverTest : public ::testing::Test {
protected:
    void SetUp() override {
        kiv_log::set_level(kiv_log::VERBOSE);
        kivhal::host::clear_captured_log();
        kivhal::test::reset_discovery_state();
        root.write_file(kConfigPath, kConfig);
        root.write_file("/mnt/vendor/persist/sensors/.keep", "");
        core.add_sensor_type("registry", {{0x100, 0x1}});
        kiv_sensor_factory::tavInterface = &core;
    }

    void feed(const std::string& message, Handler handler = &kiv_sensor_factory::default_suids_lookup_callback) {
        (factory.*handler)(reinterpret_cast<const uint8_t*>(message.data()),
                           static_cast<uint32_t>(message.size()), 0);
    }

    // Discovery, then the fake stops so nothing arrives while the test reads.
    void discover() {
        factory.startDiscovery(&core);
        core.stop();
    }

    kivhal::test::scoped_root root;
    core_t core;
    kivhal::test::virtual_clock clock{[this] { core.wait_idle(std::chrono::seconds(1)); }};
    kiv_sensor_factory factory;
};

using DiscoveryCallbacksTest = DiscoveryDriverTest;

constexpr int64_t kMs = 1000 * 1000;
std::vector<int64_t> repeated(std::initializer_list<int64_t> pattern, int times) {
    std::vector<int64_t> out;
    for (int i = 0; i < times; i++) out.insert(out.end(), pattern);
    return out;
}
std::vector<int64_t> operator+(std::vector<int64_t> a, const std::vector<int64_t>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Eighty lookups, each followed by a 1 s wait and a 250 ms pause, then the
// disable request and 100 ms; nothing else is touched.
TEST_F(DiscoveryDriverTest, SilentRegistryGivesUpAfterEightyLookups) {
    core.add_sensor_type("registry", {});
    discover();

    const std::vector<fake_request> requests = core.requests();
    ASSERT_EQ(requests.size(), 81u);
    for (size_t i = 0; i < 80; i++) EXPECT_EQ(requests[i].msg_id(), kLookup) << i;
    EXPECT_EQ(requests.back().msg_id(), kDisable);
    const auto pauses = repeated({1000 * kMs, 250 * kMs}, 80) + std::vector<int64_t>{100 * kMs};
    EXPECT_EQ(clock.pauses(), pauses);
    EXPECT_TRUE(log_contains("registry_sensor unavailable even after '100.000000secs' of serviceup(no of repeats:'80')",
                             ANDROID_LOG_ERROR));
    EXPECT_TRUE(log_contains("registry sensor not ready, not trying to get sensors list", ANDROID_LOG_ERROR));
    EXPECT_FALSE(root.exists(kListPath));
    EXPECT_FALSE(log_contains("Starting Parsing of XML Config File"));
}

TEST_F(DiscoveryDriverTest, LaterBootSendsTheRequestsInOrder) {
    root.write_file(kListPath, "health\nheart_rate\n");
    core.add_sensor_type("health", {kHealth}, true);
    core.add_sensor_type("heart_rate", {kHeartRate}, true);
    discover();

    // Registry lookup and disable, the three names, disable, attributes, releases.
    const std::vector<fake_request> requests = core.requests();
    const std::vector<std::pair<uint32_t, std::string>> expected = {
        {kLookup, "registry"}, {kDisable, "registry"}, {kLookup, "health"},
        {kLookup, "health_async_announce"}, {kLookup, "heart_rate"}, {kDisable, "registry"},
        {kAttribute, ""}, {kAttribute, ""}, {kDisable, ""}, {kDisable, ""}};
    ASSERT_EQ(requests.size(), expected.size());
    for (size_t i = 0; i < requests.size(); i++) {
        const fake_request& r = requests[i];
        const auto& config = r.envelope.suspendconfig();
        EXPECT_TRUE(r.flag && r.session_id == 0 && r.envelope.suid().uidlow() == r.suid.low &&
                    r.envelope.suid().uidhigh() == r.suid.high && config.has_processorkind() &&
                    config.processorkind() == 0 && config.deliverymode() == 1) << i;
        EXPECT_EQ(r.msg_id(), expected[i].first) << i;
        EXPECT_EQ(r.lookup.datatypename(), expected[i].second) << i;
        EXPECT_EQ(r.suid == kivhal::test::kLookupSuid, i < 6) << i;
        if (i < 6) {
            EXPECT_TRUE(r.lookup.streamupdates() && r.lookup.has_lookupoption()) << i;
            EXPECT_EQ(r.lookup.lookupoption(), i >= 2 && i < 5) << i;
        } else {
            EXPECT_TRUE(r.attr.has_streamupdates() && !r.attr.streamupdates()) << i;
        }
    }
    // Each release goes to the sensor its attribute request went to.
    EXPECT_TRUE(requests[6].suid == requests[8].suid && requests[7].suid == requests[9].suid);
    EXPECT_NE(requests[6].suid, requests[7].suid);

    EXPECT_TRUE(log_contains("(no of repeats:'0') ", ANDROID_LOG_INFO));
    EXPECT_TRUE(log_contains("waiting for suids for 1s ...", ANDROID_LOG_INFO));
    EXPECT_FALSE(log_contains("some mandatory sensors not available yet"));
    EXPECT_EQ(factory.attributesMap.size(), 2u);
    EXPECT_FALSE(factory.listWriter.is_open());
    EXPECT_EQ(root.read_file(kListPath), "health\nheart_rate\n");
}

// A broken configuration ends discovery with the list still open; the
// connection's write errors are not discovery's to handle.
TEST_F(DiscoveryDriverTest, ParseFailureLeavesTheListOpenAndConnectionErrorsPropagate) {
    root.write_file(kConfigPath, "<configuration");
    discover();
    EXPECT_TRUE(log_contains("Error in Parsing of XML Config File", ANDROID_LOG_ERROR));
    EXPECT_EQ(core.requests().size(), 2u);
    EXPECT_TRUE(factory.listWriter.is_open() && root.exists(kListPath));

    struct failing_core : core_t {
        int send_request(sensor_uid suid, bool flag, std::string payload, int session) override {
            if (requests().size() == 2) throw std::runtime_error("write failed");
            return core_t::send_request(suid, flag, std::move(payload), session);
        }
    } failing;
    failing.add_sensor_type("registry", {{0x100, 0x1}});
    root.write_file(kConfigPath, kConfig);
    kiv_sensor_factory second;
    EXPECT_THROW(second.startDiscovery(&failing), std::runtime_error);
    EXPECT_EQ(failing.requests().size(), 2u);
}

TEST_F(DiscoveryDriverTest, FirstBootWithoutAnswersRediscoversEightTimes) {
    discover();

    // The initial round plus eight passes re-sending all three names.
    const std::vector<fake_request> requests = core.requests();
    for (const char* name : {"health", "health_async_announce", "heart_rate"}) {
        EXPECT_EQ(std::count_if(requests.begin(), requests.end(),
                                [name](const fake_request& r) { return r.lookup.datatypename() == name; }),
                  9) << name;
    }
    EXPECT_EQ(requests.size(), 2u + 27u + 1u);
    // Registry wait and settle, 7 s, eight 2 s passes, the final 50 ms.
    const auto pauses = std::vector<int64_t>{1000 * kMs, 100 * kMs, 7000 * kMs} + repeated({2000 * kMs}, 8) +
                        std::vector<int64_t>{50 * kMs};
    EXPECT_EQ(clock.pauses(), pauses);
    EXPECT_TRUE(log_contains("waiting for suids for 7s ...", ANDROID_LOG_INFO));
    EXPECT_TRUE(log_contains("sensors list is 0 after first boot ", ANDROID_LOG_ERROR));
    EXPECT_FALSE(factory.listWriter.is_open());
    EXPECT_EQ(root.read_file(kListPath), "");
}

// An unlisted answer grows the list but never counts, so the wait runs out.
TEST_F(DiscoveryDriverTest, LaterBootWithEmptyListWaitsInVain) {
    root.write_file(kListPath, "");
    core.add_sensor_type("health", {kHealth}, true);
    discover();

    EXPECT_TRUE(mandatoryFound.empty());
    EXPECT_EQ(mandatorySensors, std::vector<std::string>{"health"});
    EXPECT_EQ(num_mandatory_sns, 0u);
    EXPECT_TRUE(log_contains("some mandatory sensors not available even after 8 seconds, giving up.",
                             ANDROID_LOG_ERROR));
    EXPECT_TRUE(log_contains("1 missing sensor(s)", ANDROID_LOG_ERROR));
    // Every pass re-sends the two names that never answered.
    EXPECT_EQ(log_lines_containing("re-sending request for", ANDROID_LOG_DEBUG).size(), 8u * 2u);
    // 1 s after the lookups, eight 1 s passes, 50 ms; attributes follow.
    const auto pauses = std::vector<int64_t>{1000 * kMs, 100 * kMs, 1000 * kMs} + repeated({1000 * kMs}, 8) +
                        std::vector<int64_t>{50 * kMs};
    std::vector<int64_t> seen = clock.pauses();
    seen.resize(std::min(seen.size(), pauses.size()));
    EXPECT_EQ(seen, pauses);
    EXPECT_EQ(root.read_file(kListPath), "health\n");
    EXPECT_EQ(factory.attributesMap.count(kHealth), 1u);
}

TEST_F(DiscoveryCallbacksTest, EveryRegistryMessageSignalsButOnlyRegistrySuidsCount) {
    const std::pair<std::string, bool> messages[] = {
        {core_t::make_lookup_event("registry", {}), false},
        {core_t::make_lookup_event("registr", {{1, 2}}), false},
        {core_t::make_lookup_event("registry2", {{1, 2}}), false},
        {core_t::make_event_msg(kLookupSuid, {{769, "x"}}), false},
        {"", false},
        {core_t::make_lookup_event("registry", {{1, 2}, {3, 4}}), true}};
    for (const auto& [message, up] : messages) {
        pthread_mutex_lock(&factory.registryMutex);
        std::thread reader([&] { feed(message, &kiv_sensor_factory::registry_lookup_callback); });
        struct timespec deadline;
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_sec += 10;
        EXPECT_EQ(pthread_cond_timedwait(&factory.registryWait, &factory.registryMutex, &deadline), 0);
        pthread_mutex_unlock(&factory.registryMutex);
        reader.join();
        EXPECT_EQ(factory.registryUp, up);
    }
    EXPECT_TRUE(log_contains("invalid event msg_id=769", ANDROID_LOG_ERROR));
}

TEST_F(DiscoveryCallbacksTest, FirstBootRecordsEachAnsweredNameOnce) {
    factory.init_mandatory_list_db();
    ASSERT_FALSE(factory.laterBoot);
    feed(core_t::make_lookup_event("accel", {}));
    EXPECT_TRUE(factory.suidMap.empty());
    EXPECT_EQ(factory.lastSuidTime, 0);
    // Serialized messages concatenate into one holding both events.
    feed(core_t::make_event_msg(kLookupSuid, {{769, "junk"}}) + core_t::make_lookup_event("accel", {{1, 1}, {2, 2}}));
    feed(core_t::make_lookup_event("gyro", {{4, 4}}));
    feed(core_t::make_lookup_event("accel", {{3, 3}}));
    factory.deinit_mandatory_list_db();

    EXPECT_EQ(log_lines_containing("invalid event msg_id=769", ANDROID_LOG_ERROR).size(), 1u);
    EXPECT_EQ(factory.suidMap["accel"], (std::vector<sensor_uid>{{3, 3}}));
    EXPECT_EQ(factory.get_suids("none"), (sensor_uid{0, 0}));
    EXPECT_NE(factory.lastSuidTime, 0);
    EXPECT_EQ(num_mandatory_sns, 2u);
    EXPECT_EQ(root.read_file(kListPath), "accel\ngyro\n");
}

TEST_F(DiscoveryCallbacksTest, LaterBootCountsListedNamesOnceAndAppendsNewOnes) {
    root.write_file(kListPath, "a\nb\na\n\nc");
    factory.init_mandatory_list_db();
    ASSERT_TRUE(factory.laterBoot);
    EXPECT_EQ(mandatorySensors, (std::vector<std::string>{"a", "b", "", "c"}));

    mandatoryFound = {{"a", false}, {"b", false}, {"c", false}};
    for (const char* name : {"a", "a", "new", "new", "b"}) factory.handle_suids_lookup_callback(name, {{1, 1}});
    EXPECT_EQ(num_mandatory_sns, 2u);
    EXPECT_FALSE(allMandatoryFound.load());
    EXPECT_EQ(mandatorySensors, (std::vector<std::string>{"a", "b", "", "c", "new"}));
    factory.deinit_mandatory_list_db();
    EXPECT_EQ(root.read_file(kListPath), "a\nb\na\n\ncnew\n");
}

TEST_F(DiscoveryCallbacksTest, FirstBootRediscoveryResendsOnlyMissingNames) {
    factory.laterBoot = false;
    factory.suidMap["health"] = {{1, 1}};
    factory.discoveryList.push_back("accel");
    core.register_cb(kLookupSuid, nullptr, nullptr, [this](const uint8_t* data, uint32_t length, uint64_t) {
        factory.default_suids_lookup_callback(data, length, 0);
    });
    core.add_sensor_type("accel", {{7, 7}});
    factory.wait_for_sensors();

    const std::vector<fake_request> requests = core.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].lookup.datatypename(), "health_async_announce");
    EXPECT_EQ(requests[1].lookup.datatypename(), "accel");
    EXPECT_TRUE(requests[1].lookup.lookupoption());
    EXPECT_TRUE(log_contains("sensors found after re discover 7", ANDROID_LOG_INFO));
}

TEST_F(DiscoveryCallbacksTest, AttributesAreStoredPerSensorAndAMissingAnswerTimesOut) {
    const sensor_uid answered{0x10, 0x1}, silent{0x20, 0x2};
    factory.suidMap["two"] = {answered, silent};
    core.add_sensor_type("unused", {answered}, true);
    factory.retrieve_attributes();
    core.stop();

    EXPECT_TRUE(log_contains("timeout while waiting for attributes, pending = 1, err = 0", ANDROID_LOG_ERROR));
    EXPECT_EQ(log_lines_containing("attributes to be received", ANDROID_LOG_DEBUG).size(), 100u);
    EXPECT_TRUE(factory.attributesMap.count(answered) && !factory.attributesMap.count(silent));
    EXPECT_EQ(core.requests().size(), 4u);

    // A late answer is still stored: other events skipped, a repeated id's last
    // value kept; one beyond the requests leaves the count at zero.
    sns_std_attr_event late;
    for (const char* name : {"old", "new"}) {
        sns_std_attr* attr = late.add_attributelist();
        attr->set_attributeid(0);
        *attr->mutable_value() = values<const char*>({name});
    }
    const Handler handler = &kiv_sensor_factory::default_attributes_lookup_callback;
    feed(core_t::make_event_msg(silent, {{129, "x"}, {128, late.SerializeAsString()}}), handler);
    EXPECT_EQ(factory.attributesMap.at(silent).get_string(0), "new");
    feed(core_t::make_event_msg(silent, {{128, ""}}), handler);
    EXPECT_EQ(factory.pendingAttributes, 0u);
}

}  // namespace
