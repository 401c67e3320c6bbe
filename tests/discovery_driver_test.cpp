#include <gmock/gmock.h>
#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <functional>
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
using ::testing::StrEq;
using ::testing::ThrowsMessage;

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

    const char* malformed = "malformed value for SNS_STD_SENSOR_ATTRID_RANGES";
    const std::pair<std::function<void()>, const char*> errors[] = {
        {[&] { a.get_floats(10); }, "attribute 10 element 1 is not a float"},
        {[&] { a.get_ints(1); }, "attribute 1 element 0 is not an int"},
        {[&] { a.get_bools(0); }, "attribute 0 element 0 is not a boolean"},
        {[&] { a.get_string(5); }, "attribute value is not a string"},
        {[&] { a.get_ranges(11); }, malformed}, {[&] { a.get_ranges(12); }, malformed},
        {[&] { a.get_ranges(1); }, malformed}};
    for (const auto& [get, message] : errors) EXPECT_THAT(get, ThrowsMessage<std::runtime_error>(StrEq(message)));
    EXPECT_THROW(a.get_ranges(99), std::out_of_range);
    EXPECT_THROW(a.get_stream_type(), std::out_of_range);
    a.set_attribute(kStreamTypeId, sns_std_attr_value());
    EXPECT_THAT([&] { a.get_stream_type(); },
                ThrowsMessage<std::runtime_error>(StrEq("stream_type attribute not available")));
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
    size_t lookups_of(const std::string& name) {
        const auto requests = core.requests();
        return std::count_if(requests.begin(), requests.end(), [&](const fake_request& r) {
            return r.msg_id() == kLookup && r.lookup.datatypename() == name;
        });
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
// The first pauses of discovery, as many as `expected` has.
std::vector<int64_t> first_pauses(const kivhal::test::virtual_clock& clock, size_t count) {
    std::vector<int64_t> seen = clock.pauses();
    seen.resize(std::min(seen.size(), count));
    return seen;
}

// Eighty lookups, each followed by a 1 s wait and a 250 ms pause, then the
// disable request and 100 ms; neither the list nor the configuration is read.
TEST_F(DiscoveryDriverTest, SilentRegistryGivesUpAfterEightyLookups) {
    core.add_sensor_type("registry", {});
    discover();

    const std::vector<fake_request> requests = core.requests();
    ASSERT_EQ(requests.size(), 81u);
    EXPECT_EQ(lookups_of("registry"), 80u);
    EXPECT_EQ(requests.back().msg_id(), kDisable);
    EXPECT_EQ(clock.pauses(), (repeated({1000 * kMs, 250 * kMs}, 80) + std::vector<int64_t>{100 * kMs}));
    EXPECT_TRUE(log_contains("(no of repeats:'80')", ANDROID_LOG_ERROR));
    EXPECT_FALSE(root.exists(kListPath));
    EXPECT_EQ(factory.discoveryList.size(), 2u);
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
    // Registry wait and settle, the later boot's 1 s, the final 50 ms.
    EXPECT_EQ(first_pauses(clock, 4), (std::vector<int64_t>{1000 * kMs, 100 * kMs, 1000 * kMs, 50 * kMs}));
    EXPECT_EQ(factory.attributesMap.size(), 2u);
    EXPECT_FALSE(factory.listWriter.is_open());
    EXPECT_EQ(root.read_file(kListPath), "health\nheart_rate\n");
}

// A broken configuration ends discovery with the list still open; the
// connection's write errors are not discovery's to handle.
TEST_F(DiscoveryDriverTest, ParseFailureLeavesTheListOpenAndConnectionErrorsPropagate) {
    root.write_file(kConfigPath, "<configuration");
    discover();
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
    for (const char* name : {"health", "health_async_announce", "heart_rate"}) EXPECT_EQ(lookups_of(name), 9u) << name;
    EXPECT_EQ(core.requests().size(), 2u + 27u + 1u);
    // Registry wait and settle, 7 s, eight 2 s passes, the final 50 ms.
    const auto pauses = std::vector<int64_t>{1000 * kMs, 100 * kMs, 7000 * kMs} + repeated({2000 * kMs}, 8) +
                        std::vector<int64_t>{50 * kMs};
    EXPECT_EQ(clock.pauses(), pauses);
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
    EXPECT_TRUE(log_contains(", 1 missing sensor(s)", ANDROID_LOG_ERROR));
    // Every pass re-sends the two names that never answered.
    EXPECT_EQ(lookups_of("heart_rate"), 9u);
    EXPECT_EQ(lookups_of("health_async_announce"), 9u);
    // 1 s after the lookups, eight 1 s passes, 50 ms; attributes follow.
    const auto pauses = std::vector<int64_t>{1000 * kMs, 100 * kMs, 1000 * kMs} + repeated({1000 * kMs}, 8) +
                        std::vector<int64_t>{50 * kMs};
    EXPECT_EQ(first_pauses(clock, pauses.size()), pauses);
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
}

// A message the connection could not have delivered whole is dropped with an error line.
TEST_F(DiscoveryCallbacksTest, MessagesWithoutTheirBytesAreDropped) {
    factory.registry_lookup_callback(nullptr, 5, 0);
    factory.default_suids_lookup_callback(nullptr, 5, 0);
    factory.default_attributes_lookup_callback(nullptr, 5, 0);
    EXPECT_EQ(log_lines_containing(" of length 5", ANDROID_LOG_ERROR).size(), 3u);
    EXPECT_TRUE(factory.suidMap.empty() && factory.attributesMap.empty());
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
    EXPECT_EQ(clock.pauses(), (std::vector<int64_t>{2000 * kMs}));  // one pass found it
}

TEST_F(DiscoveryCallbacksTest, AttributesAreStoredPerSensorAndAMissingAnswerTimesOut) {
    const sensor_uid answered{0x10, 0x1}, silent{0x20, 0x2};
    factory.suidMap["two"] = {answered, silent};
    core.add_sensor_type("unused", {answered}, true);
    factory.retrieve_attributes();
    core.stop();

    // A hundred 30 ms steps, then 50 ms after the releases.
    EXPECT_EQ(clock.pauses(), (repeated({30 * kMs}, 100) + std::vector<int64_t>{50 * kMs}));
    EXPECT_EQ(factory.pendingAttributes, 1u);
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
    EXPECT_EQ(factory.pendingAttributes, 0u);
    feed(core_t::make_event_msg(silent, {{128, ""}}), handler);
    EXPECT_EQ(factory.pendingAttributes, 0u);
}

}  // namespace
