#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "kiv_log.h"
#include "kiv_sensor_factory.h"
#include "kiv_types.h"
#include "test_support.h"

namespace kt = vendor::zep::hardware::kiv_types;
using kivhal::test::log_contains;
using kivhal::test::log_lines_containing;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

namespace {

kt::DataType dt(int32_t value) {
    return static_cast<kt::DataType>(value);
}
kt::ExerciseType ex(int32_t value) {
    return static_cast<kt::ExerciseType>(value);
}

// Data types of the formats the catalogue interprets, and one it does not.
constexpr int32_t kInt = 0x1000;
constexpr int32_t kFloat = 0x1001;
constexpr int32_t kBytes = 0x10000;
constexpr int32_t kOther = 0x5001;
constexpr uint32_t kGe = kt::GOAL_GREATER_THAN_OR_EQUAL;
constexpr uint32_t kLe = kt::GOAL_LESS_THAN_OR_EQUAL;

uint8_t kPattern[] = {0x00, 0x7F, 0xFF};

kt::DataTypeGoal goal(int32_t type, uint32_t comparison, int32_t value) {
    kt::DataTypeGoal g{};
    g.dataType = dt(type);
    g.comparisonType = comparison;
    g.threshold.intValue = value;
    return g;
}

kt::DataTypeGoal float_goal(int32_t type, uint32_t comparison, float value) {
    kt::DataTypeGoal g = goal(type, comparison, 0);
    g.threshold.floatValue = value;
    return g;
}

kt::DataTypeGoal pattern_goal(uint32_t comparison) {
    kt::DataTypeGoal g = goal(kBytes, comparison, 0);
    g.threshold.bytesValue = kPattern;
    g.thresholdLength = sizeof(kPattern);
    return g;
}

void add_row(int32_t type, const std::string& sensorType,
             std::vector<kt::DataTypeGoal> goals = {}) {
    kt::dataTypeInfo& row = kt::dataTypeMap[dt(type)];
    row.sensorType = sensorType;
    row.goalSupported = !goals.empty();
    row.goals = std::move(goals);
    row.available = true;
}

void add_exercise(int32_t number, const std::string& sensorType, bool start, bool stop,
                  bool pause) {
    kt::exerTypeInfo& exercise = kt::exerTypeMap[ex(number)];
    exercise.typeName = "EX" + std::to_string(number);
    exercise.sensorType = sensorType;
    exercise.autoStart = start;
    exercise.autoStop = stop;
    exercise.autoPause = pause;
}

// "steps" and "heart" have attributes ("heart" through two sensors); "silent"
// was discovered but its attributes never arrived.
class CatalogueQueriesTest : public ::testing::Test {
protected:
    void SetUp() override {
        clear_tables();
        kiv_log::set_level(kiv_log::DEBUG);
        kivhal::host::clear_captured_log();
        const sensor_uid steps = {1, 1}, heart = {2, 2}, heart2 = {2, 3}, silent = {3, 3};
        factory.suidMap = {{"steps", {steps}}, {"heart", {heart, heart2}}, {"silent", {silent}}};
        for (const sensor_uid& suid : {steps, heart, heart2})
            factory.attributesMap.emplace(suid, sensor_attributes());
    }
    void TearDown() override { clear_tables(); }
    static void clear_tables() {
        kt::dataTypeMap.clear();
        kt::exerTypeMap.clear();
    }

    kiv_sensor_factory factory;
};

TEST_F(CatalogueQueriesTest, MetricsFollowDiscoveredAttributesNotTheRowFlag) {
    add_row(kInt, "steps");
    add_row(kFloat, "heart");
    add_row(0x1008, "heart");
    add_row(0x1009, "silent");
    factory.setSensorAvailabilityStatus("heart", false);

    EXPECT_THAT(factory.listAvailableSensorTypes(), UnorderedElementsAre("steps", "heart"));
    EXPECT_EQ(log_lines_containing("listAvailableSensorTypes:").size(), 3u);  // once per SUID
    EXPECT_THAT(factory.getSupportedMetricsTypes(),
                UnorderedElementsAre(dt(kInt), dt(kFloat), dt(0x1008)));
    EXPECT_TRUE(log_contains("getSupportedMetricsTypes:") && log_contains(", steps : 4096"));

    EXPECT_FALSE(factory.getSensorAvailabilityStatus("heart"));
    EXPECT_THAT(factory.getAllDatatypes("heart"), IsEmpty());
    EXPECT_TRUE(factory.getSensorAvailabilityStatus("silent"));
    EXPECT_THAT(factory.getAllDatatypes("silent"), ElementsAre(dt(0x1009)));
    factory.setSensorAvailabilityStatus("heart", true);
    EXPECT_THAT(factory.getAllDatatypes("heart"), UnorderedElementsAre(dt(kFloat), dt(0x1008)));
    factory.setSensorAvailabilityStatus("Heart", false);
    EXPECT_FALSE(factory.getSensorAvailabilityStatus("Heart"));
    EXPECT_TRUE(factory.getSensorAvailabilityStatus("heart"));
}

TEST_F(CatalogueQueriesTest, SupportedGoalsOfAvailableSensorsWithTheirLogLines) {
    add_row(kInt, "steps", {goal(kInt, kGe, 5000), goal(kInt, kLe, 60)});
    add_row(kFloat, "heart", {float_goal(kFloat, kLe, 1.5f)});
    add_row(kBytes, "heart", {pattern_goal(kGe)});
    add_row(kOther, "steps", {goal(kOther, kLe, 1)});
    add_row(0x1008, "silent", {goal(0x1008, kLe, 1)});

    const std::vector<kt::DataTypeGoal> goals = factory.getSupportedGoals();
    ASSERT_EQ(goals.size(), 5u);
    for (const kt::DataTypeGoal& g : goals) {
        EXPECT_NE(g.dataType, dt(0x1008));
        if (g.dataType == dt(kBytes)) {
            EXPECT_EQ(g.threshold.bytesValue, kPattern);  // shared, not copied
        }
    }
    EXPECT_TRUE(
            log_contains("Sensor = steps, DataType = 4096, Threshold = 5000, Comparison Type = 0"));
    EXPECT_TRUE(log_contains(
            "Sensor = heart, DataType = 4097, Threshold = 1.500000, Comparison Type = 1"));
    EXPECT_TRUE(log_contains("Sensor = heart, DataType = 65536, Comparison Type = 0"));
    const auto bytes = log_lines_containing("byteArrayThreshold[");
    ASSERT_EQ(bytes.size(), 3u);
    EXPECT_THAT(bytes[1].text, EndsWith("byteArrayThreshold[1] = 127"));
    EXPECT_THAT(bytes[2].text, EndsWith("byteArrayThreshold[2] = 255"));
    EXPECT_FALSE(log_contains("DataType = 20481"));
}

TEST_F(CatalogueQueriesTest, GoalCheckUsesFirstGoalOfTheComparisonWhateverTheAvailability) {
    add_row(kInt, "silent", {goal(kInt, kGe, 5000), goal(kInt, kLe, 60), goal(kInt, kGe, 10)});
    add_row(kFloat, "silent", {float_goal(kFloat, kLe, 2.5f)});
    add_row(kBytes, "steps", {pattern_goal(kLe)});
    add_row(kOther, "steps", {goal(kOther, kLe, 1)});

    EXPECT_TRUE(factory.isGoalSupported(goal(kInt, kGe, 6000)));
    EXPECT_TRUE(factory.isGoalSupported(goal(kInt, kGe, 5000)));
    EXPECT_FALSE(factory.isGoalSupported(goal(kInt, kGe, 4000)));
    EXPECT_TRUE(factory.isGoalSupported(goal(kInt, kLe, 45)));
    EXPECT_FALSE(factory.isGoalSupported(goal(kInt, kLe, 61)));
    EXPECT_FALSE(factory.isGoalSupported(goal(kInt, 2, 45)));
    EXPECT_TRUE(factory.isGoalSupported(float_goal(kFloat, kLe, 2.5f)));
    EXPECT_FALSE(factory.isGoalSupported(float_goal(kFloat, kLe, 2.6f)));
    EXPECT_FALSE(factory.isGoalSupported(float_goal(kFloat, kGe, 9.0f)));
    EXPECT_TRUE(factory.isGoalSupported(goal(kBytes, kLe, 0)));
    EXPECT_FALSE(factory.isGoalSupported(goal(kBytes, kGe, 0)));
    EXPECT_FALSE(factory.isGoalSupported(goal(kOther, kLe, 1)));
    EXPECT_FALSE(log_contains("Goal not supported"));
}

TEST_F(CatalogueQueriesTest, GoalOfUnknownDataTypeInsertsEmptyRow) {
    add_row(kFloat, "steps");
    EXPECT_FALSE(factory.isGoalSupported(goal(kInt, kLe, 1)));
    EXPECT_FALSE(factory.isGoalSupported(float_goal(kFloat, kLe, 1)));
    const auto errors = log_lines_containing("Goal not supported for datatype ");
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_EQ(errors[0].priority, ANDROID_LOG_ERROR);
    EXPECT_THAT(errors[0].text, EndsWith("datatype 4096"));

    ASSERT_EQ(kt::dataTypeMap.size(), 2u);
    EXPECT_TRUE(kt::dataTypeMap.at(dt(kInt)).sensorType.empty());
    EXPECT_THAT(factory.getSupportedMetricsTypes(), ElementsAre(dt(kFloat)));
}

TEST_F(CatalogueQueriesTest, AutoStartIsUnfilteredWhileStopAndPauseNeedAvailability) {
    add_exercise(1, "steps", true, true, true);
    kt::exerTypeMap[ex(1)].autoStartDataTypes = {dt(kInt), dt(kFloat)};
    add_exercise(2, "silent", true, true, true);
    add_exercise(3, "heart", false, false, true);
    add_exercise(4, "undiscovered", false, true, false);

    std::map<kt::ExerciseType, std::vector<kt::DataType>> start;
    for (const kt::AutoStartCapability& capability : factory.getAutoStartList()) {
        start[capability.exerciseType] = capability.dataTypes;
    }
    EXPECT_THAT(start, ElementsAre(Pair(ex(1), ElementsAre(dt(kInt), dt(kFloat))),
                                   Pair(ex(2), IsEmpty())));
    EXPECT_TRUE(log_contains("Exercise Type : 2 "));

    EXPECT_THAT(factory.getAutoStopList(), ElementsAre(ex(1)));
    EXPECT_TRUE(log_contains("getAutoStopList:") && log_contains(", EX1 : 1"));
    EXPECT_THAT(factory.getAutoPauseList(), UnorderedElementsAre(ex(1), ex(3)));
    EXPECT_TRUE(log_contains("List of Auto Pause Exercise Types Supported"));
}

}  // namespace
