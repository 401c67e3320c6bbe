#include <gmock/gmock.h>

#include <csignal>
#include <limits>
#include <map>
#include <thread>

#include "kiv_log.h"
#include "kiv_sensor_factory.h"
#include "kiv_types.h"
#include "kivhal/platform.h"
#include "test_support.h"

// A "datatype" entry without "sensor_type" or "type" stalls the parser for
// good; that is the file's contract, checked by the configuration validator
// tool.

namespace kt = vendor::zep::hardware::kiv_types;
using kivhal::test::log_lines_containing;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

namespace {

constexpr const char* kConfigPath = "/vendor/etc/sensors/oem_config.xml";
constexpr int32_t kInt32Max = std::numeric_limits<int32_t>::max();
constexpr uint32_t kGe = kt::GOAL_GREATER_THAN_OR_EQUAL;
constexpr uint32_t kLe = kt::GOAL_LESS_THAN_OR_EQUAL;

kt::DataType dt(int32_t value) {
    return static_cast<kt::DataType>(value);
}
kt::ExerciseType ex(int32_t value) {
    return static_cast<kt::ExerciseType>(value);
}

kt::DataTypeGoal goal(int32_t type, uint32_t comparison, int32_t value, float float_value = 0) {
    kt::DataTypeGoal g{};
    g.dataType = dt(type);
    g.comparisonType = comparison;
    g.threshold.intValue = value;
    if (float_value != 0) g.threshold.floatValue = float_value;
    return g;
}

std::string bytes_of(const kt::DataTypeGoal& g) {
    return std::string(reinterpret_cast<const char*>(g.threshold.bytesValue), g.thresholdLength);
}

class CatalogueTest : public ::testing::Test {
  protected:
    void SetUp() override {
        kt::dataTypeMap.clear();
        kt::exerTypeMap.clear();
        kiv_log::set_level(kiv_log::VERBOSE);
    }
    bool parse(const std::string& xml) {
        root.write_file(kConfigPath, xml);
        return factory.parseOEMConfig(kivhal::platform::resolve_path(kConfigPath).c_str());
    }
    static const kt::dataTypeInfo& row(int32_t value) { return kt::dataTypeMap.at(dt(value)); }
    static const kt::exerTypeInfo& exercise(int32_t number) {
        return kt::exerTypeMap.at(ex(number));
    }

    kivhal::test::scoped_root root;
    kiv_sensor_factory factory;
};

TEST(CatalogueOutputFormatTest, FollowsRangesAndHoles) {
    const std::pair<int32_t, int> expected[] = {
        {-5, 0},      {0, 0},         {1, 1},        {2, 2},       {3, 2},       {4, 0},
        {6, 2},       {7, 2},         {17, 1},       {18, 0},      {0x0FFF, 0},  {0x1000, 1},
        {0x1001, 2},  {0x1002, 2},    {0x1003, 0},   {0x1005, 2},  {0x1007, 2},  {0x1008, 1},
        {0x100C, 1},  {0x100D, 0},    {0x1013, 1},   {0x1014, 0},  {0x5000, 2},  {0x5001, 3},
        {0x5003, 2},  {0x5004, 0},    {0x500C, 2},   {0x5010, 1},  {0x5015, 11}, {0x5018, 10},
        {0x5019, 11}, {0x501A, 0},    {0xA000, 4},   {0xA002, 4},  {0xA003, 5},  {0xA004, 7},
        {0xA005, 6},  {0xA007, 8},    {0xA008, 0},   {0x10000, 9}, {0x20000, 9}, {0x30000, 9},
        {0x30001, 0}, {INT32_MIN, 0}, {kInt32Max, 0}};
    for (const auto& [value, code] : expected) {
        EXPECT_EQ(kt::datatype_output_format(dt(value)), code) << "value 0x" << std::hex << value;
    }
}

TEST_F(CatalogueTest, HexStrToDecSkipsPrefixRepeatsDigitForNonHexSaturatesAndAbortsWithoutDigits) {
    const std::pair<std::string, int32_t> cases[] = {
        {"0x1f", 31},
        {"0X0A", 10},
        {"zz10", 16},
        {"0xABCDEF", 0xABCDEF},
        {"0xg1", 17},
        {"0x1g", 16},
        {"0x2-3", 0x233},
        {"0x7FFFFFFF", kInt32Max},
        {"0x80000000", kInt32Max},
        {"0x123456789ABCDEF0123", kInt32Max},
        // Leading zeros beyond any double exponent contribute nothing.
        {"0x" + std::string(400, '0') + "1", 1}};
    for (const auto& [text, value] : cases)
        EXPECT_EQ(factory.hexStrToDec(text.c_str()), value) << text;
    // The child logs to stderr too, so the parent sees the line written before the abort.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto convert = [this](const char* text) {
        kiv_log::set_stderr_logging(true);
        factory.hexStrToDec(text);
    };
    for (const char* text : {"0x", "0"}) {
        EXPECT_EXIT(convert(text), ::testing::KilledBySignal(SIGABRT),
                    std::string("hexStrToDec:[0-9]+, no hexadecimal digits in '") + text + "'\n");
    }
    EXPECT_EXIT(convert(nullptr), ::testing::KilledBySignal(SIGABRT),
                "hexStrToDec:[0-9]+, missing hexadecimal value\n");
}

// Each row follows its own element's type; lookups insert empty rows for unknown keys.
TEST_F(CatalogueTest, RowsFollowTheirOwnConfigurationAndSensorTypesAppendOnce) {
    ASSERT_TRUE(parse(R"(<?xml version="1.0"?>
<configuration type="KIV_sample_datatype"><datatypes>
  <datatype sensor_type="steps" type="steps" data_type_value="0x1000"/>
  <datatype sensor_type="steps" type="dist" data_type_value="0x1002"/></datatypes></configuration>
<configuration type="KIV_oem_datatype"><datatypes>
  <datatype sensor_type="Heart" type="Heart_bpm" data_type_value="0x1001"/></datatypes></configuration>
<configuration type="other"><datatypes>
  <datatype sensor_type="spo2" type="spo2" data_type_value="0x2"/></datatypes></configuration>)"));

    EXPECT_TRUE(row(0x1000).isSample && !row(0x1000).isOem && factory.isSampleDataType(dt(0x1000)));
    EXPECT_TRUE(!row(0x1001).isSample && row(0x1001).isOem && row(0x1001).available);
    EXPECT_FALSE(row(0x2).isSample || row(0x2).isOem);
    EXPECT_EQ(row(0x1001).typeName, "HEART_BPM");
    EXPECT_EQ(factory.getSensorType(0x1001, false), "Heart");
    std::vector<std::string> names(factory.discoveryList.begin(), factory.discoveryList.end());
    std::sort(names.begin() + 2, names.end());
    EXPECT_THAT(names, ElementsAre("health", "health_async_announce", "Heart", "spo2", "steps"));

    EXPECT_EQ(factory.getSensorType(0x1001, true), "");
    EXPECT_FALSE(factory.isSampleDataType(dt(0x1009)));
    EXPECT_EQ(kt::dataTypeMap.size(), 5u);
    EXPECT_EQ(kt::exerTypeMap.size(), 1u);
}

// Goals of data types defined so far, by threshold kind; a later redefinition clears them.
TEST_F(CatalogueTest, GoalsOfKnownDataTypesByThresholdKind) {
    ASSERT_TRUE(parse(R"(<configuration type="KIV_oem_datatype"><datatypes>
  <datatype sensor_type="a" type="a" data_type_value="0x1000"/>
  <datatype sensor_type="b" type="b" data_type_value="0x10000"/>
  <datatype sensor_type="c" type="c" data_type_value="0x1001"/></datatypes><goals>
  <goal data_type_value="0x1008"><threshold type="int" type_value="1" comparison_type="GREATER_THAN_OR_EQUAL"/></goal>
  <goal datatype="a" data_type_value="0x1000">
    <threshold type="integer" type_value="5000" comparison_type="GREATER_THAN_OR_EQUAL"/>
    <threshold type="int" type_value="-3" comparison_type="LESS_THAN_OR_EQUAL_TO"/>
    <threshold type="int" type_value="7" comparison_type="EQUAL"/><threshold type="int" type_value="7"/><threshold type_value="7"
      comparison_type="LESS_THAN_OR_EQUAL"/><threshold type="double" type_value="7" comparison_type="LESS_THAN_OR_EQUAL"/></goal>
  <goal data_type_value="0x10000">
    <threshold type="byte" type_value="A&amp;B" comparison_type="GREATER_THAN_OR_EQUAL"/>
    <threshold type="bytes" type_value="123" comparison_type="LESS_THAN_OR_EQUAL"/><threshold type="byte"
      comparison_type="LESS_THAN_OR_EQUAL"/><threshold type="byte"
      type_value="Z" comparison_type="less_than_or_equal"/></goal>
  <goal data_type_value="0x1001">
    <threshold type="float" type_value="2.5" comparison_type="LESS_THAN_OR_EQUAL"/>
    <threshold type="float" type_value="abc" comparison_type="GREATER_THAN_OR_EQUAL"/></goal>
</goals></configuration><configuration type="KIV_oem_datatype"><datatypes>
  <datatype sensor_type="d" type="d" data_type_value="0x1008"/></datatypes></configuration>)"));

    EXPECT_FALSE(row(0x1008).goalSupported);  // defined only after its goal
    const auto& a = row(0x1000).goals;
    ASSERT_EQ(a.size(), 2u);
    EXPECT_TRUE(row(0x1000).goalSupported);
    EXPECT_TRUE(a[0].dataType == dt(0x1000) && a[0].threshold.intValue == 5000 &&
                a[0].comparisonType == kGe);
    EXPECT_TRUE(a[1].threshold.intValue == -3 && a[1].comparisonType == kLe);
    ASSERT_EQ(row(0x10000).goals.size(), 2u);
    EXPECT_EQ(bytes_of(row(0x10000).goals[0]), "A&B");  // entities are decoded
    EXPECT_EQ(bytes_of(row(0x10000).goals[1]), "123");
    ASSERT_EQ(row(0x1001).goals.size(), 2u);
    EXPECT_FLOAT_EQ(row(0x1001).goals[0].threshold.floatValue, 2.5f);
    EXPECT_FLOAT_EQ(row(0x1001).goals[1].threshold.floatValue, 0.0f);

    factory.setSensorAvailabilityStatus("a", false);
    ASSERT_TRUE(parse(R"(<configuration type="KIV_sample_datatype"><datatypes>
  <datatype sensor_type="new" type="new" data_type_value="0x1000"/></datatypes></configuration>)"));
    EXPECT_EQ(row(0x1000).sensorType, "new");
    EXPECT_TRUE(row(0x1000).goals.empty());
    EXPECT_FALSE(row(0x1000).goalSupported || row(0x1000).isOem);
    EXPECT_TRUE(row(0x1000).isSample && row(0x1000).available);
}

// Every row of a matching name, in the table's own order, also a row the
// exercise's own element added; a later definition of a number wins.
TEST_F(CatalogueTest, ExercisesCollectEveryMatchingDataTypeInTableOrderOnlyWhenAutoStart) {
    ASSERT_TRUE(parse(R"(<configuration type="KIV_oem_datatype"><datatypes>
  <datatype sensor_type="w" type="Walking" data_type_value="0x1000"/><datatype sensor_type="r" type="RUNNING" data_type_value="0x1009"/>
  <datatype sensor_type="w2" type="WALKING" data_type_value="0x1008"/></datatypes><autoExerciseType>
  <exercisetype type="walk" sensor_type="ex" exercise_num="3" auto_start="true" auto_stop="1">
    <datatype type="walking"/><datatype type="swimming"/><datatype/></exercisetype>
  <exercisetype type="run" sensor_type="ex" exercise_num="9" auto_pause="yes"><datatype type="RUNNING"/></exercisetype>
  <exercisetype sensor_type="ex" exercise_num="5" auto_start="true"/></autoExerciseType></configuration>
<configuration type="KIV_oem_datatype"><datatypes><datatype sensor_type="w" type="walking" data_type_value="0x1010"/>
  </datatypes><autoExerciseType><exercisetype type="second" sensor_type="b" exercise_num="9" auto_pause="true"
  auto_start="true"><datatype type="Walking"/></exercisetype></autoExerciseType></configuration>)"));

    std::vector<kt::DataType> walking;
    for (const auto& [key, info] : kt::dataTypeMap) {
        if (info.typeName == "WALKING") walking.push_back(key);
    }
    ASSERT_EQ(kt::exerTypeMap.size(), 2u);
    EXPECT_EQ(exercise(3).typeName, "WALK");
    EXPECT_TRUE(exercise(3).autoStart && exercise(3).autoStop && !exercise(3).autoPause);
    EXPECT_THAT(exercise(3).autoStartDataTypes, UnorderedElementsAre(dt(0x1000), dt(0x1008)));
    EXPECT_EQ(exercise(9).typeName, "SECOND");
    EXPECT_TRUE(exercise(9).autoPause && exercise(9).autoStart);
    EXPECT_EQ(exercise(9).autoStartDataTypes, walking);
}

TEST_F(CatalogueTest,
       LoadFailuresAndMissingDataTypesReturnFalseAMissingValueAbortsAndMissingNamesStall) {
    EXPECT_FALSE(factory.parseOEMConfig(root.host_path("/vendor/etc/sensors/none.xml").c_str()));
    EXPECT_FALSE(parse(R"(<configuration type="KIV_oem_datatype"><datatypes>)"));
    EXPECT_EQ(log_lines_containing("XML Config File Not Opened", ANDROID_LOG_ERROR).size(), 2u);
    EXPECT_FALSE(parse("<config><datatypes/></config>"));
    // The last element without data types ends the parse at once while the table is empty.
    EXPECT_FALSE(parse(R"(<configuration><autoExerciseType>
  <exercisetype type="w" sensor_type="s" exercise_num="1"/></autoExerciseType></configuration>
  <configuration><datatypes/></configuration>)"));
    EXPECT_EQ(kt::exerTypeMap.size(), 1u);
    EXPECT_EQ(factory.discoveryList.size(), 2u);
    kt::dataTypeMap[dt(1)] = kt::dataTypeInfo{};
    EXPECT_TRUE(parse("<configuration/>"));

    GTEST_FLAG_SET(death_test_style, "threadsafe");  // a data type without a value is not guarded
    EXPECT_EXIT(
        {
            kiv_log::set_stderr_logging(true);
            parse(
                R"(<configuration type="t"><datatypes><datatype sensor_type="s" type="t"/></datatypes></configuration>)");
        },
        ::testing::KilledBySignal(SIGABRT), "hexStrToDec:[0-9]+, missing hexadecimal value\n");
    // One without its names stalls the parse for good: still running after 200 ms.
    EXPECT_EXIT(
        {
            std::thread([&] {
                parse(
                    R"(<configuration><datatypes><datatype type="t"/></datatypes></configuration>)");
                _exit(1);
            }).detach();
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            _exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

// "steps" and "heart" have attributes ("heart" through two sensors); "silent"
// was discovered but its attributes never arrived; "gone" was never discovered.
class CatalogueQueriesTest : public CatalogueTest {
  protected:
    void SetUp() override {
        CatalogueTest::SetUp();
        const sensor_uid steps = {1, 1}, heart = {2, 2}, heart2 = {2, 3}, silent = {3, 3};
        factory.suidMap = {{"steps", {steps}}, {"heart", {heart, heart2}}, {"silent", {silent}}};
        for (const sensor_uid& suid : {steps, heart, heart2})
            factory.attributesMap.emplace(suid, sensor_attributes());
        ASSERT_TRUE(parse(R"(<configuration type="KIV_oem_datatype"><datatypes>
  <datatype sensor_type="steps" type="a" data_type_value="0x1000"/><datatype sensor_type="heart" type="b"
    data_type_value="0x1001"/><datatype sensor_type="heart" type="c" data_type_value="0x10000"/>
  <datatype sensor_type="steps" type="d" data_type_value="0x5001"/><datatype sensor_type="silent" type="e"
    data_type_value="0x1008"/></datatypes><goals>
  <goal data_type_value="0x1000"><threshold type="int" type_value="5000" comparison_type="GREATER_THAN_OR_EQUAL"/>
    <threshold type="int" type_value="60" comparison_type="LESS_THAN_OR_EQUAL"/><threshold type="int"
      type_value="10" comparison_type="GREATER_THAN_OR_EQUAL"/></goal>
  <goal data_type_value="0x1001"><threshold type="float" type_value="1.5" comparison_type="LESS_THAN_OR_EQUAL"/>
    <threshold type="float" type_value="-1.5" comparison_type="GREATER_THAN_OR_EQUAL"/></goal>
  <goal data_type_value="0x10000"><threshold type="byte" type_value="A&#xFF;" comparison_type="LESS_THAN_OR_EQUAL"/></goal>
  <goal data_type_value="0x5001"><threshold type="int" type_value="1" comparison_type="LESS_THAN_OR_EQUAL"/></goal>
  <goal data_type_value="0x1008"><threshold type="float" type_value="2.5" comparison_type="LESS_THAN_OR_EQUAL"/></goal>
</goals><autoExerciseType>
  <exercisetype type="one" sensor_type="steps" exercise_num="1" auto_start="true" auto_stop="true"
    auto_pause="true"><datatype type="A"/><datatype type="B"/></exercisetype>
  <exercisetype type="two" sensor_type="silent" exercise_num="2" auto_start="true" auto_stop="true" auto_pause="true"/>
  <exercisetype type="three" sensor_type="heart" exercise_num="3" auto_pause="true"/>
  <exercisetype type="four" sensor_type="gone" exercise_num="4" auto_stop="true"/>
</autoExerciseType></configuration>)"));
    }
};

TEST_F(CatalogueQueriesTest, MetricsFollowDiscoveredAttributesNotTheRowFlag) {
    factory.setSensorAvailabilityStatus("heart", false);
    EXPECT_THAT(factory.listAvailableSensorTypes(), UnorderedElementsAre("steps", "heart"));
    EXPECT_THAT(factory.getSupportedMetricsTypes(),
                UnorderedElementsAre(dt(0x1000), dt(0x1001), dt(0x10000), dt(0x5001)));
    EXPECT_FALSE(factory.getSensorAvailabilityStatus("heart"));
    EXPECT_THAT(factory.getAllDatatypes("heart"), IsEmpty());
    EXPECT_TRUE(factory.getSensorAvailabilityStatus("silent"));
    EXPECT_THAT(factory.getAllDatatypes("silent"), ElementsAre(dt(0x1008)));
    factory.setSensorAvailabilityStatus("heart", true);
    EXPECT_THAT(factory.getAllDatatypes("heart"), UnorderedElementsAre(dt(0x1001), dt(0x10000)));
    factory.setSensorAvailabilityStatus("Heart", false);
    EXPECT_FALSE(factory.getSensorAvailabilityStatus("Heart"));
    EXPECT_TRUE(factory.getSensorAvailabilityStatus("heart"));
}

// The first goal of the comparison decides, whatever the availability; an
// unknown data type gets an empty row.
TEST_F(CatalogueQueriesTest, GoalCheckUsesFirstGoalOfTheComparisonAndOfferedGoalsNeedAttributes) {
    factory.setSensorAvailabilityStatus("steps", false);
    const std::pair<kt::DataTypeGoal, bool> cases[] = {
        {goal(0x1000, kGe, 6000), true},      {goal(0x1000, kGe, 5000), true},
        {goal(0x1000, kGe, 4000), false},     {goal(0x1000, kLe, 45), true},
        {goal(0x1000, kLe, 61), false},       {goal(0x1000, 2, 45), false},
        {goal(0x1008, kLe, 0, 2.5f), true},   {goal(0x1008, kLe, 0, 2.6f), false},
        {goal(0x1008, kGe, 0, 9.0f), false},  {goal(0x1001, kLe, 0, 1.5f), true},
        {goal(0x1001, kLe, 0, 1.6f), false},  {goal(0x1001, kGe, 0, -1.0f), true},
        {goal(0x1001, kGe, 0, -2.0f), false}, {goal(0x10000, kLe, 0), true},
        {goal(0x10000, kGe, 0), false},       {goal(0x5001, kLe, 1), false},
        {goal(0x1009, kLe, 1), false}};
    for (const auto& [g, supported] : cases) {
        EXPECT_EQ(factory.isGoalSupported(g), supported)
            << static_cast<int32_t>(g.dataType) << " " << g.comparisonType;
    }
    EXPECT_TRUE(row(0x1009).sensorType.empty());
    // Offered: every goal of a sensor type with attributes ("silent" has none).
    std::vector<std::pair<int32_t, uint32_t>> offered;
    for (const auto& g : factory.getSupportedGoals())
        offered.emplace_back(static_cast<int32_t>(g.dataType), g.comparisonType);
    EXPECT_THAT(offered,
                UnorderedElementsAre(Pair(0x1000, kGe), Pair(0x1000, kLe), Pair(0x1000, kGe),
                                     Pair(0x1001, kLe), Pair(0x1001, kGe), Pair(0x10000, kLe),
                                     Pair(0x5001, kLe)));
}

TEST_F(CatalogueQueriesTest, AutoStartIsUnfilteredWhileStopAndPauseNeedAvailability) {
    std::map<kt::ExerciseType, std::vector<kt::DataType>> start;
    for (const kt::AutoStartCapability& c : factory.getAutoStartList())
        start[c.exerciseType] = c.dataTypes;
    EXPECT_THAT(start, ElementsAre(Pair(ex(1), ElementsAre(dt(0x1000), dt(0x1001))),
                                   Pair(ex(2), IsEmpty())));
    EXPECT_THAT(factory.getAutoStopList(), ElementsAre(ex(1)));
    EXPECT_THAT(factory.getAutoPauseList(), UnorderedElementsAre(ex(1), ex(3)));
}

}  // namespace
