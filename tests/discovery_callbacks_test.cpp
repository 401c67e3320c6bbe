#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <time.h>

#include <stdexcept>
#include <thread>
#include <type_traits>

#include "fake_tav_interface.h"
#include "kiv_log.h"
#include "kiv_sensor_factory.h"
#include "sensor_attributes.h"
#include "test_support.h"

// Discovery's callbacks, the mandatory sensor list and the attribute store,
// driven directly.

namespace {

using kivhal::test::fake_tav_interface;
using kivhal::test::log_contains;
using kivhal::test::log_lines_containing;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

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
    sensor_attributes attributes;
    attributes.set_attribute(0, values<const char*>({"accel", "ignored"}));
    attributes.set_attribute(1, values<float>({1.5f, -2.0f}));
    attributes.set_attribute(3, values<int64_t>({7, -9}));
    attributes.set_attribute(4, values<bool>({true, false}));
    attributes.set_attribute(kRangesId, nested({values<float>({-4, 4}), values<float>({-8, 8})}));
    attributes.set_attribute(5, sns_std_attr_value());
    sns_std_attr_value mixed = values<float>({1.0f});
    mixed.add_elementlist()->set_stringvalue("x");
    attributes.set_attribute(10, mixed);
    attributes.set_attribute(11, nested({values<float>({0, 1}), mixed}));
    attributes.set_attribute(12, nested({values<float>({1})}));

    EXPECT_EQ(attributes.get_string(0), "accel");
    EXPECT_EQ(attributes.get_floats(1), (std::vector<float>{1.5f, -2.0f}));
    EXPECT_EQ(attributes.get_ints(3), (std::vector<int64_t>{7, -9}));
    EXPECT_EQ(attributes.get_bools(4), (std::vector<bool>{true, false}));
    EXPECT_EQ(attributes.get_ranges(kRangesId),
              (std::vector<std::pair<float, float>>{{-4.0f, 4.0f}, {-8.0f, 8.0f}}));
    EXPECT_TRUE(attributes.get_floats(5).empty() && attributes.get_ranges(5).empty());

    using std::runtime_error;
    const std::string malformed = "malformed value for SNS_STD_SENSOR_ATTRID_RANGES";
    const std::string absent = "unordered_map::at: key not found";
    EXPECT_THAT([&] { attributes.get_floats(10); },
                ThrowsMessage<runtime_error>(StrEq("attribute 10 element 1 is not a float")));
    EXPECT_THAT([&] { attributes.get_ints(1); },
                ThrowsMessage<runtime_error>(StrEq("attribute 1 element 0 is not an int")));
    EXPECT_THAT([&] { attributes.get_bools(0); },
                ThrowsMessage<runtime_error>(StrEq("attribute 0 element 0 is not a boolean")));
    EXPECT_THAT([&] { attributes.get_string(5); },
                ThrowsMessage<runtime_error>(StrEq("attribute value is not a string")));
    for (int32_t id : {11, 12, 1}) {
        EXPECT_THAT([&] { attributes.get_ranges(id); }, ThrowsMessage<runtime_error>(StrEq(malformed)));
    }
    EXPECT_THAT([&] { attributes.get_ranges(99); }, ThrowsMessage<std::out_of_range>(StrEq(absent)));
    EXPECT_THAT([&] { attributes.get_stream_type(); }, ThrowsMessage<std::out_of_range>(StrEq(absent)));
    attributes.set_attribute(kStreamTypeId, sns_std_attr_value());
    EXPECT_THAT([&] { attributes.get_stream_type(); },
                ThrowsMessage<runtime_error>(StrEq("stream_type attribute not available")));
    attributes.set_attribute(kStreamTypeId, values<int64_t>({2, 5}));
    EXPECT_EQ(attributes.get_stream_type(), 2);
}

constexpr const char* kListPath = "/mnt/vendor/persist/sensors/kiv_sensors_list.txt";
using Handler = void (kiv_sensor_factory::*)(const uint8_t*, uint32_t, uint64_t);

class DiscoveryCallbacksTest : public ::testing::Test {
protected:
    void SetUp() override {
        kiv_log::set_level(kiv_log::VERBOSE);
        kivhal::host::clear_captured_log();
        kivhal::test::reset_discovery_state();
        kiv_sensor_factory::tavInterface = &core;
    }

    void feed(const std::string& message,
              Handler handler = &kiv_sensor_factory::default_suids_lookup_callback) {
        (factory.*handler)(reinterpret_cast<const uint8_t*>(message.data()),
                           static_cast<uint32_t>(message.size()), 0);
    }

    kivhal::test::scoped_root root;
    fake_tav_interface core;
    kiv_sensor_factory factory;
};

TEST_F(DiscoveryCallbacksTest, EveryRegistryMessageSignalsButOnlyRegistrySuidsCount) {
    const std::pair<std::string, bool> messages[] = {
        {fake_tav_interface::make_lookup_event("registry", {}), false},
        {fake_tav_interface::make_lookup_event("registr", {{1, 2}}), false},
        {fake_tav_interface::make_lookup_event("registry2", {{1, 2}}), false},
        {fake_tav_interface::make_event_msg(fake_tav_interface::lookup_suid(), {{769, "x"}}), false},
        {"", false},
        {fake_tav_interface::make_lookup_event("registry", {{1, 2}, {3, 4}}), true}};
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
    EXPECT_TRUE(log_contains("invalid event msg_id=769"));
}

TEST_F(DiscoveryCallbacksTest, FirstBootRecordsEachAnsweredNameOnce) {
    root.write_file("/mnt/vendor/persist/sensors/.keep", "");
    factory.init_mandatory_list_db();
    ASSERT_FALSE(factory.laterBoot);
    feed(fake_tav_interface::make_lookup_event("accel", {}));
    EXPECT_TRUE(factory.suidMap.empty());
    EXPECT_EQ(factory.lastSuidTime, 0);
    // Serialized messages concatenate into one holding both events.
    feed(fake_tav_interface::make_event_msg(fake_tav_interface::lookup_suid(), {{769, "junk"}}) +
         fake_tav_interface::make_lookup_event("accel", {{1, 1}, {2, 2}}));
    feed(fake_tav_interface::make_lookup_event("gyro", {{4, 4}}));
    feed(fake_tav_interface::make_lookup_event("accel", {{3, 3}}));
    factory.deinit_mandatory_list_db();

    EXPECT_EQ(log_lines_containing("invalid event msg_id=769").size(), 1u);
    EXPECT_EQ(factory.suidMap["accel"], (std::vector<sensor_uid>{{3, 3}}));
    EXPECT_EQ(factory.get_suids("none"), (sensor_uid{0, 0}));
    EXPECT_NE(factory.lastSuidTime, 0);
    EXPECT_EQ(num_mandatory_sns, 2u);
    EXPECT_EQ(log_lines_containing("first boot datatype accel num_mandatory_sns 1").size(), 1u);
    EXPECT_FALSE(factory.listWriter.is_open());
    EXPECT_EQ(root.read_file(kListPath), "accel\ngyro\n");
}

TEST_F(DiscoveryCallbacksTest, LaterBootCountsListedNamesOnceAndAppendsNewOnes) {
    root.write_file(kListPath, "a\nb\na\n\nc");
    factory.init_mandatory_list_db();
    ASSERT_TRUE(factory.laterBoot);
    EXPECT_EQ(mandatorySensors, (std::vector<std::string>{"a", "b", "", "c"}));
    EXPECT_EQ(log_lines_containing("duplicate entry for a").size(), 1u);

    mandatoryFound = {{"a", false}, {"b", false}, {"c", false}};
    for (const char* name : {"a", "a", "new", "new", "b"}) {
        factory.handle_suids_lookup_callback(name, {{1, 1}});
    }
    EXPECT_EQ(num_mandatory_sns, 2u);
    EXPECT_FALSE(allMandatoryFound.load());
    EXPECT_EQ(mandatorySensors, (std::vector<std::string>{"a", "b", "", "c", "new"}));
    EXPECT_EQ(log_lines_containing("laterboot datatype new write").size(), 1u);
    factory.deinit_mandatory_list_db();
    EXPECT_FALSE(factory.listReader.is_open() || factory.listWriter.is_open());
    EXPECT_EQ(root.read_file(kListPath), "a\nb\na\n\ncnew\n");
}

TEST_F(DiscoveryCallbacksTest, FirstBootRediscoveryResendsOnlyMissingNames) {
    factory.laterBoot = false;
    factory.suidMap["health"] = {{1, 1}};
    factory.discoveryList.push_back("accel");
    core.register_cb(fake_tav_interface::lookup_suid(), nullptr, nullptr,
                     [this](const uint8_t* data, uint32_t length, uint64_t) {
                         factory.default_suids_lookup_callback(data, length, 0);
                     });
    core.add_sensor_type("accel", {{7, 7}});
    factory.wait_for_sensors();

    std::vector<kivhal::test::fake_request> requests = core.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].lookup.datatypename(), "health_async_announce");
    EXPECT_EQ(requests[1].lookup.datatypename(), "accel");
    EXPECT_TRUE(requests[1].lookup.lookupoption());
    EXPECT_TRUE(log_contains("ORN not ready yet wait count 8"));
    EXPECT_TRUE(log_contains("sensors found after re discover 7"));
}

TEST_F(DiscoveryCallbacksTest, AttributesAreStoredPerSensorAndAMissingAnswerTimesOut) {
    const sensor_uid answered{0x10, 0x1}, silent{0x20, 0x2};
    factory.suidMap["two"] = {answered, silent};
    core.set_attributes(answered, sns_std_attr_event());
    factory.retrieve_attributes();
    core.stop();

    EXPECT_TRUE(log_contains("timeout while waiting for attributes, pending = 1, err = 0"));
    EXPECT_EQ(log_lines_containing("attributes to be received").size(), 100u);
    EXPECT_EQ(factory.attributesMap.count(answered), 1u);
    EXPECT_EQ(factory.attributesMap.count(silent), 0u);
    EXPECT_EQ(core.requests().size(), 4u);
    EXPECT_TRUE(log_contains("requesting attributes for two-1"));

    // A late answer is still stored: other events skipped, a repeated id's last value kept.
    // (The first answer may already have logged a count of 0 before the second request.)
    kivhal::host::clear_captured_log();
    sns_std_attr_event late;
    for (const char* name : {"old", "new"}) {
        sns_std_attr* attr = late.add_attributelist();
        attr->set_attributeid(0);
        *attr->mutable_value() = values<const char*>({name});
    }
    const Handler handler = &kiv_sensor_factory::default_attributes_lookup_callback;
    feed(fake_tav_interface::make_event_msg(silent, {{129, "x"}, {128, late.SerializeAsString()}}),
         handler);
    EXPECT_TRUE(log_contains("event[0] msg_id=129"));
    EXPECT_EQ(factory.attributesMap.at(silent).get_string(0), "new");
    feed(fake_tav_interface::make_event_msg(silent, {{128, ""}}), handler);  // beyond the requests
    EXPECT_EQ(factory.pendingAttributes, 0u);
    EXPECT_EQ(log_lines_containing("pending attributes count 0").size(), 1u);
}

}  // namespace
