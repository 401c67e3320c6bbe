#include <gtest/gtest.h>

#include <stdexcept>

#include "fake_tav_interface.h"
#include "kiv_log.h"
#include "kiv_sensor_factory.h"
#include "sensor_attributes.h"
#include "test_support.h"

namespace {

using kivhal::test::fake_tav_interface;
using kivhal::test::log_contains;
using kivhal::test::log_lines_containing;

constexpr int32_t kRangesId = 2;
constexpr int32_t kStreamTypeId = sensor_attributes::STREAM_TYPE_ATTRIBUTE_ID;

sns_std_attr_value strings(std::initializer_list<const char*> texts) {
    sns_std_attr_value value;
    for (const char* text : texts) value.add_elementlist()->set_stringvalue(text);
    return value;
}

sns_std_attr_value floats(std::initializer_list<float> numbers) {
    sns_std_attr_value value;
    for (float number : numbers) value.add_elementlist()->set_floatvalue(number);
    return value;
}

sns_std_attr_value ints(std::initializer_list<int64_t> numbers) {
    sns_std_attr_value value;
    for (int64_t number : numbers) value.add_elementlist()->set_intvalue(number);
    return value;
}

sns_std_attr_value ranges(std::initializer_list<std::pair<float, float>> pairs) {
    sns_std_attr_value value;
    for (const auto& pair : pairs) *value.add_elementlist()->mutable_nestedvalue() = floats({pair.first, pair.second});
    return value;
}

template <typename Call>
std::string error_of(Call call) {
    try {
        call();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "";
}

TEST(SensorAttributesTest, GettersReturnWellFormedValues) {
    sensor_attributes attributes;
    attributes.set_attribute(0, strings({"accel", "ignored"}));
    attributes.set_attribute(1, floats({1.5f, -2.0f}));
    attributes.set_attribute(3, ints({7, -9}));
    sns_std_attr_value bools;
    bools.add_elementlist()->set_boolvalue(true);
    bools.add_elementlist()->set_boolvalue(false);
    attributes.set_attribute(4, bools);
    attributes.set_attribute(kRangesId, ranges({{-4.0f, 4.0f}, {-8.0f, 8.0f}}));
    attributes.set_attribute(kStreamTypeId, ints({2, 5}));
    attributes.set_attribute(5, sns_std_attr_value());

    EXPECT_EQ(attributes.get_string(0), "accel");
    EXPECT_EQ(attributes.get_floats(1), (std::vector<float>{1.5f, -2.0f}));
    EXPECT_EQ(attributes.get_ints(3), (std::vector<int64_t>{7, -9}));
    EXPECT_EQ(attributes.get_bools(4), (std::vector<bool>{true, false}));
    EXPECT_EQ(attributes.get_ranges(kRangesId),
              (std::vector<std::pair<float, float>>{{-4.0f, 4.0f}, {-8.0f, 8.0f}}));
    EXPECT_EQ(attributes.get_stream_type(), 2);
    EXPECT_TRUE(attributes.get_floats(5).empty());
    EXPECT_TRUE(attributes.get_ranges(5).empty());
}

TEST(SensorAttributesTest, WrongKindsNameTheAttributeAndElement) {
    sensor_attributes attributes;
    sns_std_attr_value mixed = floats({1.0f});
    mixed.add_elementlist()->set_stringvalue("x");
    attributes.set_attribute(11, mixed);
    attributes.set_attribute(12, floats({1.0f}));
    attributes.set_attribute(13, sns_std_attr_value());

    EXPECT_EQ(error_of([&] { attributes.get_floats(11); }), "attribute 11 element 1 is not a float");
    EXPECT_EQ(error_of([&] { attributes.get_ints(12); }), "attribute 12 element 0 is not an int");
    EXPECT_EQ(error_of([&] { attributes.get_bools(11); }), "attribute 11 element 0 is not a boolean");
    EXPECT_EQ(error_of([&] { attributes.get_string(12); }), "attribute value is not a string");
    EXPECT_EQ(error_of([&] { attributes.get_string(13); }), "attribute value is not a string");
    EXPECT_THROW(attributes.get_ints(12), std::runtime_error);
}

TEST(SensorAttributesTest, AbsentIdsGiveTheMapsOutOfRangeError) {
    sensor_attributes attributes;
    EXPECT_THROW(attributes.get_string(99), std::out_of_range);
    EXPECT_EQ(error_of([&] { attributes.get_ranges(99); }), "unordered_map::at: key not found");
    EXPECT_EQ(error_of([&] { attributes.get_stream_type(); }), "unordered_map::at: key not found");
}

TEST(SensorAttributesTest, MalformedRangesAndEmptyStreamType) {
    sensor_attributes attributes;
    sns_std_attr_value with_string = ranges({{0.0f, 1.0f}});
    sns_std_attr_value* bad = with_string.add_elementlist()->mutable_nestedvalue();
    bad->add_elementlist()->set_floatvalue(0.0f);
    bad->add_elementlist()->set_stringvalue("1");
    attributes.set_attribute(kRangesId, with_string);
    sns_std_attr_value short_range;
    *short_range.add_elementlist()->mutable_nestedvalue() = floats({1.0f});
    attributes.set_attribute(kRangesId + 1, short_range);
    attributes.set_attribute(kRangesId + 2, floats({1.0f, 2.0f}));
    attributes.set_attribute(kStreamTypeId, sns_std_attr_value());

    const std::string malformed = "malformed value for SNS_STD_SENSOR_ATTRID_RANGES";
    EXPECT_EQ(error_of([&] { attributes.get_ranges(kRangesId); }), malformed);
    EXPECT_EQ(error_of([&] { attributes.get_ranges(kRangesId + 1); }), malformed);
    EXPECT_EQ(error_of([&] { attributes.get_ranges(kRangesId + 2); }), malformed);
    EXPECT_EQ(error_of([&] { attributes.get_stream_type(); }), "stream_type attribute not available");
}

class AttributeRetrievalTest : public ::testing::Test {
protected:
    void SetUp() override {
        kiv_log::set_level(kiv_log::VERBOSE);
        kivhal::host::clear_captured_log();
        kivhal::test::reset_discovery_state();
        kiv_sensor_factory::tavInterface = &core;
    }

    static sns_std_attr_event named(const char* name) {
        sns_std_attr_event event;
        sns_std_attr* attr = event.add_attributelist();
        attr->set_attributeid(0);
        *attr->mutable_value() = strings({name});
        return event;
    }

    fake_tav_interface core;
    kiv_sensor_factory factory;
};

TEST_F(AttributeRetrievalTest, RequestEnvelopes) {
    const sensor_uid suid{0x1122, 0x3344};
    sns_client_request_msg request = factory.create_attr_request(suid, false);
    EXPECT_EQ(request.suid().uidlow(), 0x1122u);
    EXPECT_EQ(request.suid().uidhigh(), 0x3344u);
    EXPECT_EQ(request.msg_id(), 1u);
    EXPECT_EQ(request.suspendconfig().processorkind(), 0u);
    EXPECT_EQ(request.suspendconfig().deliverymode(), 1u);
    sns_std_attr_req payload;
    ASSERT_TRUE(payload.ParseFromString(request.request().payload()));
    EXPECT_TRUE(payload.has_streamupdates());
    EXPECT_FALSE(payload.streamupdates());

    EXPECT_EQ(factory.create_attr_request(suid, true).msg_id(), 10u);
}

TEST_F(AttributeRetrievalTest, AnswersAreStoredPerSensorAndOtherEventsIgnored) {
    const sensor_uid first{1, 2};
    const sensor_uid second{3, 4};
    factory.pendingAttributes = 1;
    sns_std_attr_event duplicated = named("old");
    *duplicated.add_attributelist() = named("new").attributelist(0);
    std::string message = fake_tav_interface::make_event_msg(
        first, {{129, "ignored"}, {128, duplicated.SerializeAsString()}});
    factory.default_attributes_lookup_callback(reinterpret_cast<const uint8_t*>(message.data()),
                                               message.size(), 0);
    message = fake_tav_interface::make_event_msg(second, {{128, named("b").SerializeAsString()}});
    factory.default_attributes_lookup_callback(reinterpret_cast<const uint8_t*>(message.data()),
                                               message.size(), 0);

    ASSERT_EQ(factory.attributesMap.size(), 2u);
    EXPECT_EQ(factory.attributesMap.at(first).get_string(0), "new");
    EXPECT_EQ(factory.attributesMap.at(second).get_string(0), "b");
    // Answers beyond the requests leave the count at zero.
    EXPECT_EQ(factory.pendingAttributes, 0u);
    EXPECT_EQ(log_lines_containing("pending attributes count 0").size(), 1u);
    EXPECT_TRUE(log_contains("event[0] msg_id=129"));
    for (const auto& line : kivhal::host::captured_log()) EXPECT_NE(line.priority, ANDROID_LOG_ERROR);
}

TEST_F(AttributeRetrievalTest, RequestsEveryIdThenReleasesThem) {
    const sensor_uid accel{0x10, 0x1};
    const sensor_uid gyro{0x20, 0x2};
    factory.suidMap["accel"] = {accel};
    factory.suidMap["gyro"] = {gyro};
    core.set_attributes(accel, named("accel"));
    core.set_attributes(gyro, named("gyro"));

    factory.retrieve_attributes();
    core.stop();

    std::vector<kivhal::test::fake_request> requests = core.requests();
    ASSERT_EQ(requests.size(), 4u);
    for (size_t i = 0; i < requests.size(); i++) {
        EXPECT_EQ(requests[i].msg_id(), i < 2 ? 1u : 10u) << i;
        EXPECT_TRUE(requests[i].flag);
        EXPECT_EQ(requests[i].session_id, 0);
        EXPECT_EQ(requests[i].envelope.suid().uidlow(), requests[i].suid.low);
    }
    EXPECT_EQ(requests[0].suid, requests[2].suid);
    EXPECT_EQ(requests[1].suid, requests[3].suid);
    for (const auto& registration : core.registrations()) {
        EXPECT_FALSE(registration.has_response_cb);
        EXPECT_FALSE(registration.has_error_cb);
        EXPECT_TRUE(registration.has_event_cb);
    }
    EXPECT_EQ(core.registrations().size(), 2u);
    EXPECT_FALSE(core.is_registered(accel));  // dropped by the release answers
    EXPECT_EQ(factory.attributesMap.at(accel).get_string(0), "accel");
    EXPECT_EQ(factory.attributesMap.at(gyro).get_string(0), "gyro");
    EXPECT_TRUE(log_contains("attributes received"));
    int index = 0;
    for (const auto& entry : factory.suidMap) {
        EXPECT_TRUE(log_contains("requesting attributes for " + entry.first + "-" +
                                 std::to_string(index++)));
    }
}

TEST_F(AttributeRetrievalTest, MissingAnswerTimesOutWithPendingCount) {
    const sensor_uid answered{0x10, 0x1};
    const sensor_uid silent{0x20, 0x2};
    factory.suidMap["two"] = {answered, silent};
    core.set_attributes(answered, named("answered"));

    factory.retrieve_attributes();
    core.stop();

    EXPECT_TRUE(log_contains("timeout while waiting for attributes, pending = 1, err = 0"));
    EXPECT_EQ(log_lines_containing("attributes to be received").size(), 100u);
    EXPECT_EQ(factory.attributesMap.count(answered), 1u);
    EXPECT_EQ(factory.attributesMap.count(silent), 0u);
    EXPECT_EQ(core.requests().size(), 4u);
    EXPECT_TRUE(log_contains("requesting attributes for two-0"));
    EXPECT_TRUE(log_contains("requesting attributes for two-1"));
}

}  // namespace
