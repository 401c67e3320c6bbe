#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kiv_log.h"
#include "kiv_sensor_factory.h"
#include "kiv_types.h"
#include "test_support.h"

namespace kt = vendor::zep::hardware::kiv_types;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

namespace {

kt::DataType dt(int32_t value) { return static_cast<kt::DataType>(value); }
kt::ExerciseType ex(int32_t value) { return static_cast<kt::ExerciseType>(value); }

// Data types of the formats the catalogue interprets.
constexpr int32_t kIntType = 0x1000;
constexpr int32_t kFloatType = 0x1001;
constexpr int32_t kBytesType = 0x10000;
constexpr int32_t kOtherFormatType = 0x5001;

constexpr sensor_uid kStepsSuid = {1, 1};
constexpr sensor_uid kHeartSuid = {2, 2};
constexpr sensor_uid kHeartSecondSuid = {2, 3};
constexpr sensor_uid kSilentSuid = {3, 3};

uint8_t kPattern[] = {0x00, 0x7F, 0xFF};

kt::DataTypeGoal int_goal(int32_t type, int32_t value, uint32_t comparison) {
    kt::DataTypeGoal goal{};
    goal.dataType = dt(type);
    goal.comparisonType = comparison;
    goal.threshold.intValue = value;
    return goal;
}

kt::DataTypeGoal float_goal(int32_t type, float value, uint32_t comparison) {
    kt::DataTypeGoal goal{};
    goal.dataType = dt(type);
    goal.comparisonType = comparison;
    goal.threshold.floatValue = value;
    return goal;
}

kt::DataTypeGoal bytes_goal(int32_t type, uint8_t* bytes, uint32_t length, uint32_t comparison) {
    kt::DataTypeGoal goal{};
    goal.dataType = dt(type);
    goal.comparisonType = comparison;
    goal.threshold.bytesValue = bytes;
    goal.thresholdLength = length;
    return goal;
}

void add_row(int32_t type, const std::string& sensorType, std::vector<kt::DataTypeGoal> goals = {}) {
    kt::dataTypeInfo row;
    row.typeName = "TYPE_" + std::to_string(type);
    row.sensorType = sensorType;
    row.goalSupported = !goals.empty();
    row.goals = std::move(goals);
    row.available = true;
    kt::dataTypeMap[dt(type)] = row;
}

void add_exercise(int32_t number, const std::string& sensorType, bool start, bool stop, bool pause,
                  std::vector<kt::DataType> startTypes = {}) {
    kt::exerTypeInfo exercise;
    exercise.typeName = "EXERCISE_" + std::to_string(number);
    exercise.sensorType = sensorType;
    exercise.autoStartDataTypes = std::move(startTypes);
    exercise.autoStart = start;
    exercise.autoStop = stop;
    exercise.autoPause = pause;
    kt::exerTypeMap[ex(number)] = exercise;
}

// "steps" and "heart_rate" have attributes (heart_rate through two sensors);
// "silent" was discovered but its attributes never arrived.
class CatalogueQueriesTest : public ::testing::Test {
protected:
    void SetUp() override {
        kt::dataTypeMap.clear();
        kt::exerTypeMap.clear();
        kiv_log::set_level(kiv_log::DEBUG);
        kivhal::host::clear_captured_log();

        factory.suidMap["steps"] = {kStepsSuid};
        factory.suidMap["heart_rate"] = {kHeartSuid, kHeartSecondSuid};
        factory.suidMap["silent"] = {kSilentSuid};
        factory.attributesMap.emplace(kStepsSuid, sensor_attributes());
        factory.attributesMap.emplace(kHeartSuid, sensor_attributes());
        factory.attributesMap.emplace(kHeartSecondSuid, sensor_attributes());
    }
    void TearDown() override {
        kt::dataTypeMap.clear();
        kt::exerTypeMap.clear();
    }

    kiv_sensor_factory factory;
};

TEST_F(CatalogueQueriesTest, AvailabilityNeedsAttributes) {
    EXPECT_THAT(factory.listAvailableSensorTypes(), UnorderedElementsAre("steps", "heart_rate"));
    EXPECT_EQ(kivhal::test::log_lines_containing("listAvailableSensorTypes:").size(), 3u);
    EXPECT_EQ(kivhal::test::log_lines_containing(", heart_rate").size(), 2u);

    factory.attributesMap.clear();
    EXPECT_THAT(factory.listAvailableSensorTypes(), IsEmpty());
}

TEST_F(CatalogueQueriesTest, MetricsOfAvailableSensorsIgnoreRowFlag) {
    add_row(kIntType, "steps");
    add_row(kFloatType, "heart_rate");
    add_row(0x1008, "heart_rate");
    add_row(0x1009, "silent");
    add_row(0x100A, "undiscovered");
    factory.setSensorAvailabilityStatus("heart_rate", false);

    EXPECT_THAT(factory.getSupportedMetricsTypes(),
                UnorderedElementsAre(dt(kIntType), dt(kFloatType), dt(0x1008)));
    EXPECT_TRUE(kivhal::test::log_contains("getSupportedMetricsTypes:"));
    EXPECT_TRUE(kivhal::test::log_contains(", steps : 4096"));
    EXPECT_THAT(factory.getAllDatatypes("heart_rate"), IsEmpty());
    EXPECT_FALSE(factory.getSensorAvailabilityStatus("heart_rate"));
    EXPECT_THAT(factory.getAllDatatypes("silent"), ElementsAre(dt(0x1009)));
}

TEST_F(CatalogueQueriesTest, SupportedGoalsOfAvailableSensorsWithTheirLogLines) {
    add_row(kIntType, "steps",
            {int_goal(kIntType, 5000, kt::GOAL_GREATER_THAN_OR_EQUAL),
             int_goal(kIntType, 60, kt::GOAL_LESS_THAN_OR_EQUAL)});
    add_row(kFloatType, "heart_rate", {float_goal(kFloatType, 1.5f, kt::GOAL_LESS_THAN_OR_EQUAL)});
    add_row(kBytesType, "heart_rate",
            {bytes_goal(kBytesType, kPattern, sizeof(kPattern), kt::GOAL_GREATER_THAN_OR_EQUAL)});
    add_row(kOtherFormatType, "steps", {int_goal(kOtherFormatType, 1, kt::GOAL_LESS_THAN_OR_EQUAL)});
    add_row(0x1008, "silent", {int_goal(0x1008, 1, kt::GOAL_LESS_THAN_OR_EQUAL)});

    const std::vector<kt::DataTypeGoal> goals = factory.getSupportedGoals();
    ASSERT_EQ(goals.size(), 5u);
    for (const kt::DataTypeGoal& goal : goals) {
        EXPECT_NE(goal.dataType, dt(0x1008));
        if (goal.dataType == dt(kBytesType)) {
            EXPECT_EQ(goal.threshold.bytesValue, kPattern);
        }
    }
    EXPECT_TRUE(kivhal::test::log_contains(
            "Sensor = steps, DataType = 4096, Threshold = 5000, Comparison Type = 0"));
    EXPECT_TRUE(kivhal::test::log_contains(
            "Sensor = heart_rate, DataType = 4097, Threshold = 1.500000, Comparison Type = 1"));
    EXPECT_TRUE(kivhal::test::log_contains("Sensor = heart_rate, DataType = 65536, Comparison Type = 0"));
    const auto bytes = kivhal::test::log_lines_containing("byteArrayThreshold[");
    ASSERT_EQ(bytes.size(), 3u);
    EXPECT_THAT(bytes[1].text, ::testing::EndsWith("byteArrayThreshold[1] = 127"));
    EXPECT_THAT(bytes[2].text, ::testing::EndsWith("byteArrayThreshold[2] = 255"));
    EXPECT_FALSE(kivhal::test::log_contains("DataType = 20481"));
}

TEST_F(CatalogueQueriesTest, IntegerAndFloatGoalsCompareWithFirstMatchingGoal) {
    add_row(kIntType, "silent",
            {int_goal(kIntType, 5000, kt::GOAL_GREATER_THAN_OR_EQUAL),
             int_goal(kIntType, 60, kt::GOAL_LESS_THAN_OR_EQUAL),
             int_goal(kIntType, 10, kt::GOAL_GREATER_THAN_OR_EQUAL)});
    add_row(kFloatType, "silent", {float_goal(kFloatType, 2.5f, kt::GOAL_LESS_THAN_OR_EQUAL)});

    // Availability plays no part.
    EXPECT_TRUE(factory.isGoalSupported(int_goal(kIntType, 6000, kt::GOAL_GREATER_THAN_OR_EQUAL)));
    EXPECT_TRUE(factory.isGoalSupported(int_goal(kIntType, 5000, kt::GOAL_GREATER_THAN_OR_EQUAL)));
    EXPECT_FALSE(factory.isGoalSupported(int_goal(kIntType, 4000, kt::GOAL_GREATER_THAN_OR_EQUAL)));
    EXPECT_TRUE(factory.isGoalSupported(int_goal(kIntType, 45, kt::GOAL_LESS_THAN_OR_EQUAL)));
    EXPECT_FALSE(factory.isGoalSupported(int_goal(kIntType, 61, kt::GOAL_LESS_THAN_OR_EQUAL)));
    EXPECT_FALSE(factory.isGoalSupported(int_goal(kIntType, 45, 2)));

    EXPECT_TRUE(factory.isGoalSupported(float_goal(kFloatType, 2.5f, kt::GOAL_LESS_THAN_OR_EQUAL)));
    EXPECT_FALSE(factory.isGoalSupported(float_goal(kFloatType, 2.6f, kt::GOAL_LESS_THAN_OR_EQUAL)));
    EXPECT_FALSE(factory.isGoalSupported(float_goal(kFloatType, 9.0f, kt::GOAL_GREATER_THAN_OR_EQUAL)));
    EXPECT_FALSE(kivhal::test::log_contains("Goal not supported"));
}

TEST_F(CatalogueQueriesTest, ByteGoalsMatchOnComparisonAndOtherFormatsNever) {
    add_row(kBytesType, "steps",
            {bytes_goal(kBytesType, kPattern, sizeof(kPattern), kt::GOAL_LESS_THAN_OR_EQUAL)});
    add_row(kOtherFormatType, "steps", {int_goal(kOtherFormatType, 1, kt::GOAL_LESS_THAN_OR_EQUAL)});

    EXPECT_TRUE(factory.isGoalSupported(bytes_goal(kBytesType, nullptr, 0, kt::GOAL_LESS_THAN_OR_EQUAL)));
    EXPECT_FALSE(factory.isGoalSupported(bytes_goal(kBytesType, kPattern, 3, kt::GOAL_GREATER_THAN_OR_EQUAL)));
    EXPECT_FALSE(factory.isGoalSupported(int_goal(kOtherFormatType, 1, kt::GOAL_LESS_THAN_OR_EQUAL)));
}

TEST_F(CatalogueQueriesTest, GoalOfUnknownDataTypeInsertsEmptyRow) {
    add_row(kFloatType, "steps");
    EXPECT_FALSE(factory.isGoalSupported(int_goal(kIntType, 1, kt::GOAL_LESS_THAN_OR_EQUAL)));
    EXPECT_FALSE(factory.isGoalSupported(float_goal(kFloatType, 1, kt::GOAL_LESS_THAN_OR_EQUAL)));
    const auto errors = kivhal::test::log_lines_containing("Goal not supported for datatype ");
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_EQ(errors[0].priority, ANDROID_LOG_ERROR);
    EXPECT_THAT(errors[0].text, ::testing::EndsWith("datatype 4096"));

    ASSERT_EQ(kt::dataTypeMap.size(), 2u);
    EXPECT_TRUE(kt::dataTypeMap.at(dt(kIntType)).sensorType.empty());
    // The empty row joins no sensor type.
    EXPECT_THAT(factory.getSupportedMetricsTypes(), ElementsAre(dt(kFloatType)));
    EXPECT_FALSE(factory.getSensorAvailabilityStatus(""));
}

TEST_F(CatalogueQueriesTest, AutoStartIsUnfilteredWhileStopAndPauseNeedAvailability) {
    add_exercise(1, "steps", true, true, true, {dt(kIntType), dt(kFloatType)});
    add_exercise(2, "silent", true, true, true);
    add_exercise(3, "heart_rate", false, false, true);
    add_exercise(4, "undiscovered", false, true, false);

    const std::vector<kt::AutoStartCapability> start = factory.getAutoStartList();
    ASSERT_EQ(start.size(), 2u);
    for (const kt::AutoStartCapability& capability : start) {
        if (capability.exerciseType == ex(1)) {
            EXPECT_THAT(capability.dataTypes, ElementsAre(dt(kIntType), dt(kFloatType)));
        } else {
            EXPECT_EQ(capability.exerciseType, ex(2));
            EXPECT_THAT(capability.dataTypes, IsEmpty());
        }
    }
    EXPECT_TRUE(kivhal::test::log_contains("Exercise Type : 2 "));

    EXPECT_THAT(factory.getAutoStopList(), ElementsAre(ex(1)));
    EXPECT_TRUE(kivhal::test::log_contains("getAutoStopList:"));
    EXPECT_TRUE(kivhal::test::log_contains("EXERCISE_1 : 1"));
    EXPECT_THAT(factory.getAutoPauseList(), UnorderedElementsAre(ex(1), ex(3)));
    EXPECT_TRUE(kivhal::test::log_contains("List of Auto Pause Exercise Types Supported"));
}

TEST_F(CatalogueQueriesTest, AvailabilityFlagIsPerSensorTypeRow) {
    add_row(kIntType, "steps");
    add_row(0x1008, "steps");
    add_row(kFloatType, "Steps");

    EXPECT_THAT(factory.getAllDatatypes("steps"), UnorderedElementsAre(dt(kIntType), dt(0x1008)));
    factory.setSensorAvailabilityStatus("steps", false);
    EXPECT_FALSE(factory.getSensorAvailabilityStatus("steps"));
    EXPECT_THAT(factory.getAllDatatypes("steps"), IsEmpty());
    EXPECT_TRUE(factory.getSensorAvailabilityStatus("Steps"));
    EXPECT_THAT(factory.getSupportedMetricsTypes(), UnorderedElementsAre(dt(kIntType), dt(0x1008)));

    factory.setSensorAvailabilityStatus("steps", true);
    EXPECT_THAT(factory.getAllDatatypes("steps"), UnorderedElementsAre(dt(kIntType), dt(0x1008)));
    factory.setSensorAvailabilityStatus("nobody", false);
    EXPECT_FALSE(factory.getSensorAvailabilityStatus("nobody"));
    EXPECT_EQ(kt::dataTypeMap.size(), 3u);
}

}  // namespace
