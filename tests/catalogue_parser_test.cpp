#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
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
using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

namespace {

constexpr const char* kConfigPath = "/vendor/etc/sensors/oem_config.xml";

kt::DataType dt(int32_t value) { return static_cast<kt::DataType>(value); }
kt::ExerciseType ex(int32_t value) { return static_cast<kt::ExerciseType>(value); }

class CatalogueParserTest : public ::testing::Test {
protected:
    void SetUp() override {
        kt::dataTypeMap.clear();
        kt::exerTypeMap.clear();
        kiv_log::set_level(kiv_log::DEBUG);
        kivhal::host::clear_captured_log();
    }
    void TearDown() override {
        kt::dataTypeMap.clear();
        kt::exerTypeMap.clear();
    }

    bool parse(const std::string& xml) {
        root.write_file(kConfigPath, xml);
        return factory.parseOEMConfig(kivhal::platform::resolve_path(kConfigPath).c_str());
    }

    const kt::dataTypeInfo& row(int32_t value) { return kt::dataTypeMap.at(dt(value)); }
    const kt::exerTypeInfo& exercise(int32_t value) { return kt::exerTypeMap.at(ex(value)); }

    kivhal::test::scoped_root root;
    kiv_sensor_factory factory;
};

TEST_F(CatalogueParserTest, RowsFollowTheirOwnConfiguration) {
    ASSERT_TRUE(parse(R"(<?xml version="1.0"?>
<configuration type="KIV_sample_datatype">
  <datatypes>
    <datatype sensor_type="step_count" type="steps" data_type_value="0x1000"/>
  </datatypes>
</configuration>
<configuration type="KIV_oem_datatype">
  <datatypes>
    <datatype sensor_type="Heart_Rate" type="Heart_rate_bpm" data_type_value="0x1001"/>
  </datatypes>
</configuration>
<configuration type="KIV_other">
  <datatypes>
    <datatype sensor_type="spo2" type="SpO2" data_type_value="0x2"/>
  </datatypes>
</configuration>)"));

    EXPECT_TRUE(row(0x1000).isSample);
    EXPECT_FALSE(row(0x1000).isOem);
    EXPECT_FALSE(row(0x1001).isSample);
    EXPECT_TRUE(row(0x1001).isOem);
    EXPECT_FALSE(row(0x2).isSample || row(0x2).isOem);

    EXPECT_EQ(row(0x1001).typeName, "HEART_RATE_BPM");
    EXPECT_EQ(row(0x1001).sensorType, "Heart_Rate");
    EXPECT_TRUE(row(0x1001).available);
    EXPECT_FALSE(row(0x1001).goalSupported);
    EXPECT_TRUE(kivhal::test::log_contains("parseOEMConfig:"));
    EXPECT_EQ(kivhal::test::log_lines_containing("Parsing Datatypes").size(), 3u);
}

TEST_F(CatalogueParserTest, SensorTypesAreAppendedOnceAfterTheDefaults) {
    factory.discoveryList.push_back("step_count");
    ASSERT_TRUE(parse(R"(<configuration type="KIV_oem_datatype"><datatypes>
    <datatype sensor_type="step_count" type="steps" data_type_value="0x1000"/>
    <datatype sensor_type="step_count" type="distance" data_type_value="0x1001"/>
    <datatype sensor_type="heart_rate" type="hr" data_type_value="0x1008"/>
</datatypes></configuration>)"));

    ASSERT_EQ(factory.discoveryList.size(), 5u);
    EXPECT_THAT(std::vector<std::string>(factory.discoveryList.begin(), factory.discoveryList.begin() + 3),
                ElementsAre("health", "health_async_announce", "step_count"));
    EXPECT_THAT(std::vector<std::string>(factory.discoveryList.begin() + 3, factory.discoveryList.end()),
                UnorderedElementsAre("step_count", "heart_rate"));
}

TEST_F(CatalogueParserTest, GoalsReferOnlyToDataTypesDefinedSoFar) {
    ASSERT_TRUE(parse(R"(<configuration type="KIV_oem_datatype">
  <datatypes><datatype sensor_type="steps" type="steps" data_type_value="0x1000"/></datatypes>
  <goals>
    <goal datatype="later" data_type_value="0x1008">
      <threshold type="int" type_value="10" comparison_type="GREATER_THAN_OR_EQUAL"/>
    </goal>
  </goals>
</configuration>
<configuration type="KIV_oem_datatype">
  <datatypes><datatype sensor_type="steps" type="later" data_type_value="0x1008"/></datatypes>
  <goals>
    <goal datatype="steps" data_type_value="0x1000">
      <threshold type="integer" type_value="5000" comparison_type="GREATER_THAN_OR_EQUAL"/>
      <threshold type="int" type_value="-3" comparison_type="LESS_THAN_OR_EQUAL_TO"/>
    </goal>
  </goals>
</configuration>)"));

    EXPECT_TRUE(row(0x1008).goals.empty());
    EXPECT_FALSE(row(0x1008).goalSupported);
    ASSERT_EQ(row(0x1000).goals.size(), 2u);
    EXPECT_TRUE(row(0x1000).goalSupported);
    const kt::DataTypeGoal& first = row(0x1000).goals[0];
    EXPECT_EQ(first.dataType, dt(0x1000));
    EXPECT_EQ(first.threshold.intValue, 5000);
    EXPECT_EQ(first.comparisonType, kt::GOAL_GREATER_THAN_OR_EQUAL);
    EXPECT_EQ(first.thresholdLength, 0u);
    EXPECT_EQ(row(0x1000).goals[1].threshold.intValue, -3);
    EXPECT_EQ(row(0x1000).goals[1].comparisonType, kt::GOAL_LESS_THAN_OR_EQUAL);
}

TEST_F(CatalogueParserTest, ThresholdKindsAndRejectedThresholds) {
    ASSERT_TRUE(parse(R"(<configuration type="KIV_oem_datatype">
  <datatypes>
    <datatype sensor_type="a" type="floaty" data_type_value="0x1001"/>
    <datatype sensor_type="b" type="bytes" data_type_value="0x10000"/>
    <datatype sensor_type="c" type="rejected" data_type_value="0x1000"/>
  </datatypes>
  <goals>
    <goal data_type_value="0x1001">
      <threshold type="float" type_value="2.5" comparison_type="LESS_THAN_OR_EQUAL"/>
      <threshold type="float" type_value="abc" comparison_type="GREATER_THAN_OR_EQUAL"/>
    </goal>
    <goal data_type_value="0x10000">
      <threshold type="byte" type_value="AB" comparison_type="GREATER_THAN_OR_EQUAL"/>
      <threshold type="bytes" type_value="123" comparison_type="LESS_THAN_OR_EQUAL"/>
    </goal>
    <goal data_type_value="0x1000">
      <threshold type="int" type_value="7" comparison_type="EQUAL"/>
      <threshold type="double" type_value="7" comparison_type="LESS_THAN_OR_EQUAL"/>
      <threshold type="byte" type_value="Z" comparison_type="less_than_or_equal"/>
      <threshold type="in" type_value="7" comparison_type="LESS_THAN_OR_EQUA"/>
    </goal>
  </goals>
</configuration>)"));

    ASSERT_EQ(row(0x1001).goals.size(), 2u);
    EXPECT_FLOAT_EQ(row(0x1001).goals[0].threshold.floatValue, 2.5f);
    EXPECT_FLOAT_EQ(row(0x1001).goals[1].threshold.floatValue, 0.0f);

    ASSERT_EQ(row(0x10000).goals.size(), 2u);
    const kt::DataTypeGoal& ab = row(0x10000).goals[0];
    ASSERT_EQ(ab.thresholdLength, 2u);
    EXPECT_EQ(ab.threshold.bytesValue[0], 0x41);
    EXPECT_EQ(ab.threshold.bytesValue[1], 0x42);
    const kt::DataTypeGoal& digits = row(0x10000).goals[1];
    ASSERT_EQ(digits.thresholdLength, 3u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(digits.threshold.bytesValue), 3), "123");

    EXPECT_TRUE(row(0x1000).goals.empty());
    EXPECT_FALSE(row(0x1000).goalSupported);
}

TEST_F(CatalogueParserTest, RedefinitionOverwritesRowAndClearsGoals) {
    ASSERT_TRUE(parse(R"(<configuration type="KIV_sample_datatype">
  <datatypes><datatype sensor_type="old" type="old" data_type_value="0x1000"/></datatypes>
  <goals><goal data_type_value="0x1000">
    <threshold type="int" type_value="1" comparison_type="GREATER_THAN_OR_EQUAL"/>
  </goal></goals>
</configuration>)"));
    factory.setSensorAvailabilityStatus("old", false);
    ASSERT_TRUE(row(0x1000).goalSupported);

    ASSERT_TRUE(parse(R"(<configuration type="KIV_oem_datatype">
  <datatypes><datatype sensor_type="new" type="new" data_type_value="0x1000"/></datatypes>
</configuration>)"));

    EXPECT_EQ(row(0x1000).sensorType, "new");
    EXPECT_EQ(row(0x1000).typeName, "NEW");
    EXPECT_TRUE(row(0x1000).goals.empty());
    EXPECT_FALSE(row(0x1000).goalSupported);
    EXPECT_FALSE(row(0x1000).isSample);
    EXPECT_TRUE(row(0x1000).isOem);
    EXPECT_TRUE(row(0x1000).available);
    EXPECT_EQ(kt::dataTypeMap.size(), 1u);
}

TEST_F(CatalogueParserTest, ExercisesCollectAutoStartDataTypes) {
    ASSERT_TRUE(parse(R"(<configuration type="KIV_oem_datatype">
  <datatypes>
    <datatype sensor_type="walk" type="Walking" data_type_value="0x1000"/>
    <datatype sensor_type="walk2" type="WALKING" data_type_value="0x1008"/>
    <datatype sensor_type="run" type="RUNNING" data_type_value="0x1009"/>
  </datatypes>
  <autoExerciseType>
    <exercisetype type="walk" sensor_type="exercise" exercise_num="3" auto_start="true"
                  auto_stop="1" auto_pause="false">
      <datatype type="walking"/>
      <datatype type="swimming"/>
      <datatype/>
    </exercisetype>
    <exercisetype type="run" sensor_type="exercise" exercise_num="4" auto_start="false" auto_pause="yes">
      <datatype type="RUNNING"/>
    </exercisetype>
    <exercisetype sensor_type="exercise" exercise_num="5" auto_start="true"/>
  </autoExerciseType>
</configuration>)"));

    ASSERT_EQ(kt::exerTypeMap.size(), 2u);
    const kt::exerTypeInfo& walk = exercise(3);
    EXPECT_EQ(walk.typeName, "WALK");
    EXPECT_EQ(walk.sensorType, "exercise");
    EXPECT_TRUE(walk.autoStart);
    EXPECT_TRUE(walk.autoStop);
    EXPECT_FALSE(walk.autoPause);
    EXPECT_THAT(walk.autoStartDataTypes, UnorderedElementsAre(dt(0x1000), dt(0x1008)));
    EXPECT_EQ(kivhal::test::log_lines_containing("Adding DataType WALKING to autoStartList").size(), 2u);
    EXPECT_FALSE(kivhal::test::log_contains("SWIMMING"));

    const kt::exerTypeInfo& run = exercise(4);
    EXPECT_FALSE(run.autoStart);
    EXPECT_FALSE(run.autoPause);  // "yes" is no boolean
    EXPECT_TRUE(run.autoStartDataTypes.empty());
    EXPECT_TRUE(kivhal::test::log_contains(
            "exerNum = 3, autoStart = 1, autoStop = 1, autoPause = 0"));
    EXPECT_TRUE(kivhal::test::log_contains("AutoExerciseMap Size = 2"));
}

TEST_F(CatalogueParserTest, ExerciseWithSameNumberIsOverwritten) {
    ASSERT_TRUE(parse(R"(<configuration type="KIV_oem_datatype">
  <datatypes><datatype sensor_type="walk" type="walking" data_type_value="0x1000"/></datatypes>
  <autoExerciseType>
    <exercisetype type="first" sensor_type="a" exercise_num="9" auto_start="true">
      <datatype type="walking"/>
    </exercisetype>
  </autoExerciseType>
</configuration>
<configuration>
  <autoExerciseType>
    <exercisetype type="second" sensor_type="b" exercise_num="9" auto_stop="true"/>
  </autoExerciseType>
</configuration>)"));

    ASSERT_EQ(kt::exerTypeMap.size(), 1u);
    EXPECT_EQ(exercise(9).typeName, "SECOND");
    EXPECT_EQ(exercise(9).sensorType, "b");
    EXPECT_FALSE(exercise(9).autoStart);
    EXPECT_TRUE(exercise(9).autoStop);
    EXPECT_TRUE(exercise(9).autoStartDataTypes.empty());
}

TEST_F(CatalogueParserTest, LoadFailuresLeaveTablesUnchanged) {
    EXPECT_FALSE(factory.parseOEMConfig(root.host_path("/vendor/etc/sensors/missing.xml").c_str()));
    EXPECT_FALSE(parse("<configuration type=\"KIV_oem_datatype\"><datatypes>"));
    const auto failures = kivhal::test::log_lines_containing("XML Config File Not Opened");
    ASSERT_EQ(failures.size(), 2u);
    EXPECT_EQ(failures[0].priority, ANDROID_LOG_ERROR);

    kivhal::host::clear_captured_log();
    EXPECT_FALSE(parse("<?xml version=\"1.0\"?><config><datatypes/></config>"));
    EXPECT_EQ(kivhal::host::captured_log().size(), 1u);  // only "Opened"
    EXPECT_TRUE(kt::dataTypeMap.empty());
    EXPECT_EQ(factory.discoveryList.size(), 2u);
}

TEST_F(CatalogueParserTest, LastConfigurationWithoutDataTypesOnEmptyTableFails) {
    EXPECT_FALSE(parse(R"(<configuration>
  <autoExerciseType><exercisetype type="w" sensor_type="s" exercise_num="1"/></autoExerciseType>
</configuration>
<configuration><datatypes/><goals/></configuration>)"));
    EXPECT_EQ(kt::exerTypeMap.size(), 1u);
    EXPECT_EQ(kivhal::test::log_lines_containing("Parsing Goals").size(), 1u);  // first element only
    EXPECT_EQ(kivhal::test::log_lines_containing("Parsing Datatypes").size(), 2u);

    // Once any data type exists, an empty last element is fine.
    kt::dataTypeMap[dt(1)] = kt::dataTypeInfo{};
    EXPECT_TRUE(parse("<configuration/>"));
}

TEST_F(CatalogueParserTest, DataTypeWithoutValueEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(parse(R"(<configuration type="KIV_oem_datatype"><datatypes>
    <datatype sensor_type="s" type="t"/></datatypes></configuration>)"),
                 "");
}

}  // namespace
