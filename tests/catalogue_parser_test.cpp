#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kiv_log.h"
#include "kiv_sensor_factory.h"
#include "kiv_types.h"
#include "kivhal/platform.h"
#include "test_support.h"

// A "datatype" entry without "sensor_type" or "type" stalls the parser for
// good; that is the file's contract, checked by the configuration validator
// tool, and deliberately not exercised here.

namespace kt = vendor::zep::hardware::kiv_types;
using kivhal::test::log_contains;
using kivhal::test::log_lines_containing;
using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

namespace {

constexpr const char* kConfigPath = "/vendor/etc/sensors/oem_config.xml";

kt::DataType dt(int32_t value) {
    return static_cast<kt::DataType>(value);
}

std::string datatype(const char* sensor, const char* type, const char* value) {
    return std::string("<datatype sensor_type=\"") + sensor + "\" type=\"" + type +
           "\" data_type_value=\"" + value + "\"/>";
}

std::string threshold(const char* type, const char* value, const char* comparison) {
    return std::string("<threshold type=\"") + type + "\" type_value=\"" + value +
           "\" comparison_type=\"" + comparison + "\"/>";
}

class CatalogueParserTest : public ::testing::Test {
protected:
    void SetUp() override {
        clear_tables();
        kiv_log::set_level(kiv_log::DEBUG);
        kivhal::host::clear_captured_log();
    }
    void TearDown() override { clear_tables(); }
    static void clear_tables() {
        kt::dataTypeMap.clear();
        kt::exerTypeMap.clear();
    }

    bool parse(const std::string& xml) {
        root.write_file(kConfigPath, xml);
        return factory.parseOEMConfig(kivhal::platform::resolve_path(kConfigPath).c_str());
    }
    static const kt::dataTypeInfo& row(int32_t value) { return kt::dataTypeMap.at(dt(value)); }
    static const kt::exerTypeInfo& exercise(int32_t number) {
        return kt::exerTypeMap.at(static_cast<kt::ExerciseType>(number));
    }

    kivhal::test::scoped_root root;
    kiv_sensor_factory factory;
};

TEST_F(CatalogueParserTest, RowsFollowTheirOwnConfigurationAndSensorTypesAppendOnce) {
    ASSERT_TRUE(parse(
            "<?xml version=\"1.0\"?><configuration type=\"KIV_sample_datatype\"><datatypes>" +
            datatype("steps", "steps", "0x1000") + datatype("steps", "dist", "0x1002") +
            "</datatypes></configuration><configuration type=\"KIV_oem_datatype\"><datatypes>" +
            datatype("Heart", "Heart_bpm", "0x1001") +
            "</datatypes></configuration><configuration type=\"other\"><datatypes>" +
            datatype("spo2", "spo2", "0x2") + "</datatypes></configuration>"));

    EXPECT_TRUE(row(0x1000).isSample && !row(0x1000).isOem);
    EXPECT_TRUE(!row(0x1001).isSample && row(0x1001).isOem);
    EXPECT_FALSE(row(0x2).isSample || row(0x2).isOem);
    EXPECT_EQ(row(0x1001).typeName, "HEART_BPM");
    EXPECT_EQ(row(0x1001).sensorType, "Heart");
    EXPECT_TRUE(row(0x1001).available);
    EXPECT_EQ(log_lines_containing("parseOEMConfig:").size(), 1u + 3 * 3);

    ASSERT_EQ(factory.discoveryList.size(), 5u);
    EXPECT_THAT(std::vector<std::string>(factory.discoveryList.begin(),
                                         factory.discoveryList.begin() + 2),
                ElementsAre("health", "health_async_announce"));
    EXPECT_THAT(std::vector<std::string>(factory.discoveryList.begin() + 2,
                                         factory.discoveryList.end()),
                UnorderedElementsAre("steps", "Heart", "spo2"));
}

TEST_F(CatalogueParserTest, GoalsOfKnownDataTypesByThresholdKind) {
    const char* ge = "GREATER_THAN_OR_EQUAL";
    const char* le = "LESS_THAN_OR_EQUAL";
    ASSERT_TRUE(parse(
            "<configuration type=\"KIV_oem_datatype\"><datatypes>" + datatype("a", "a", "0x1000") +
            datatype("b", "b", "0x10000") + datatype("c", "c", "0x1001") +
            "</datatypes><goals><goal data_type_value=\"0x1008\">" + threshold("int", "1", ge) +
            "</goal><goal datatype=\"a\" data_type_value=\"0x1000\">" +
            threshold("integer", "5000", ge) + threshold("int", "-3", "LESS_THAN_OR_EQUAL_TO") +
            threshold("int", "7", "EQUAL") + threshold("double", "7", le) +
            threshold("in", "7", le) + "</goal><goal data_type_value=\"0x10000\">" +
            threshold("byte", "AB", ge) + threshold("bytes", "123", le) +
            threshold("byte", "Z", "less_than_or_equal") +
            "</goal><goal data_type_value=\"0x1001\">" + threshold("float", "2.5", le) +
            threshold("float", "abc", ge) + "</goal></goals></configuration>" +
            "<configuration type=\"KIV_oem_datatype\"><datatypes>" + datatype("d", "d", "0x1008") +
            "</datatypes></configuration>"));

    EXPECT_FALSE(row(0x1008).goalSupported);  // defined only after its goal
    ASSERT_EQ(row(0x1000).goals.size(), 2u);
    EXPECT_TRUE(row(0x1000).goalSupported);
    EXPECT_EQ(row(0x1000).goals[0].dataType, dt(0x1000));
    EXPECT_EQ(row(0x1000).goals[0].threshold.intValue, 5000);
    EXPECT_EQ(row(0x1000).goals[0].comparisonType, kt::GOAL_GREATER_THAN_OR_EQUAL);
    EXPECT_EQ(row(0x1000).goals[1].threshold.intValue, -3);
    EXPECT_EQ(row(0x1000).goals[1].comparisonType, kt::GOAL_LESS_THAN_OR_EQUAL);

    ASSERT_EQ(row(0x10000).goals.size(), 2u);
    const kt::DataTypeGoal& ab = row(0x10000).goals[0];
    ASSERT_EQ(ab.thresholdLength, 2u);
    EXPECT_EQ(ab.threshold.bytesValue[0], 0x41);
    EXPECT_EQ(ab.threshold.bytesValue[1], 0x42);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(row(0x10000).goals[1].threshold.bytesValue),
                          row(0x10000).goals[1].thresholdLength),
              "123");

    ASSERT_EQ(row(0x1001).goals.size(), 2u);
    EXPECT_FLOAT_EQ(row(0x1001).goals[0].threshold.floatValue, 2.5f);
    EXPECT_FLOAT_EQ(row(0x1001).goals[1].threshold.floatValue, 0.0f);
}

TEST_F(CatalogueParserTest, RedefinitionOverwritesRowAndClearsGoals) {
    ASSERT_TRUE(parse("<configuration type=\"KIV_sample_datatype\"><datatypes>" +
                      datatype("old", "old", "0x1000") +
                      "</datatypes><goals><goal data_type_value=\"0x1000\">" +
                      threshold("int", "1", "LESS_THAN_OR_EQUAL") +
                      "</goal></goals></configuration>"));
    factory.setSensorAvailabilityStatus("old", false);
    ASSERT_TRUE(row(0x1000).goalSupported);

    ASSERT_TRUE(parse("<configuration type=\"KIV_oem_datatype\"><datatypes>" +
                      datatype("new", "new", "0x1000") + "</datatypes></configuration>"));
    EXPECT_EQ(row(0x1000).sensorType, "new");
    EXPECT_TRUE(row(0x1000).goals.empty());
    EXPECT_FALSE(row(0x1000).goalSupported || row(0x1000).isSample);
    EXPECT_TRUE(row(0x1000).isOem && row(0x1000).available);
    EXPECT_EQ(kt::dataTypeMap.size(), 1u);
}

TEST_F(CatalogueParserTest, ExercisesCollectEveryMatchingDataTypeOnlyWhenAutoStart) {
    ASSERT_TRUE(parse("<configuration type=\"KIV_oem_datatype\"><datatypes>" +
                      datatype("w", "Walking", "0x1000") + datatype("w2", "WALKING", "0x1008") +
                      datatype("r", "RUNNING", "0x1009") +
                      R"(</datatypes><autoExerciseType>
      <exercisetype type="walk" sensor_type="ex" exercise_num="3" auto_start="true" auto_stop="1">
        <datatype type="walking"/><datatype type="swimming"/><datatype/></exercisetype>
      <exercisetype type="run" sensor_type="ex" exercise_num="4" auto_pause="yes">
        <datatype type="RUNNING"/></exercisetype>
      <exercisetype type="first" sensor_type="a" exercise_num="9" auto_start="true"/>
      <exercisetype sensor_type="ex" exercise_num="5" auto_start="true"/>
    </autoExerciseType></configuration><configuration><autoExerciseType>
      <exercisetype type="second" sensor_type="b" exercise_num="9" auto_pause="true"/>
    </autoExerciseType></configuration>)"));

    ASSERT_EQ(kt::exerTypeMap.size(), 3u);
    EXPECT_EQ(exercise(3).typeName, "WALK");
    EXPECT_TRUE(exercise(3).autoStart && exercise(3).autoStop && !exercise(3).autoPause);
    EXPECT_THAT(exercise(3).autoStartDataTypes, UnorderedElementsAre(dt(0x1000), dt(0x1008)));
    EXPECT_EQ(log_lines_containing("Adding DataType WALKING to autoStartList").size(), 2u);
    EXPECT_FALSE(log_contains("SWIMMING"));
    EXPECT_TRUE(log_contains("exerNum = 3, autoStart = 1, autoStop = 1, autoPause = 0"));

    EXPECT_FALSE(exercise(4).autoStart || exercise(4).autoPause);  // "yes" is no boolean
    EXPECT_TRUE(exercise(4).autoStartDataTypes.empty());
    EXPECT_EQ(exercise(9).typeName, "SECOND");
    EXPECT_TRUE(exercise(9).autoPause && !exercise(9).autoStart);
    EXPECT_THAT(
            log_lines_containing("AutoExerciseMap Size = "),
            ElementsAre(testing::Field(&kivhal::host::log_line::text, testing::EndsWith("= 3")),
                        testing::Field(&kivhal::host::log_line::text, testing::EndsWith("= 3"))));
}

TEST_F(CatalogueParserTest, LoadFailuresAndMissingDataTypesReturnFalse) {
    EXPECT_FALSE(factory.parseOEMConfig(root.host_path("/vendor/etc/sensors/none.xml").c_str()));
    EXPECT_FALSE(parse("<configuration type=\"KIV_oem_datatype\"><datatypes>"));
    const auto failures = log_lines_containing("XML Config File Not Opened");
    ASSERT_EQ(failures.size(), 2u);
    EXPECT_EQ(failures[0].priority, ANDROID_LOG_ERROR);

    kivhal::host::clear_captured_log();
    EXPECT_FALSE(parse("<config><datatypes/></config>"));
    EXPECT_EQ(kivhal::host::captured_log().size(), 1u);  // only "Opened"

    // The last element without data types ends the parse at once while the table is empty.
    EXPECT_FALSE(parse(R"(<configuration><autoExerciseType>
      <exercisetype type="w" sensor_type="s" exercise_num="1"/></autoExerciseType></configuration>
      <configuration><datatypes/></configuration>)"));
    EXPECT_EQ(kt::exerTypeMap.size(), 1u);
    EXPECT_EQ(log_lines_containing("Parsing Goals").size(), 1u);
    EXPECT_EQ(factory.discoveryList.size(), 2u);

    kt::dataTypeMap[dt(1)] = kt::dataTypeInfo{};
    EXPECT_TRUE(parse("<configuration/>"));
}

TEST_F(CatalogueParserTest, DataTypeWithoutValueEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
            parse("<configuration type=\"t\"><datatypes><datatype sensor_type=\"s\" type=\"t\"/>"
                  "</datatypes></configuration>"),
            "");
}

}  // namespace
