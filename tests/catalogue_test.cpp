#include "catalogue.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <limits>
#include <map>

#include "kiv_log.h"
#include "test_support.h"

// A "datatype" entry without "sensor_type" or "type" stalls the parser for
// good; that is the file's contract, checked by the configuration validator
// tool.

namespace catalogue = kivhal::catalogue;
namespace kt = vendor::zep::hardware::kiv_types;
using kivhal::test::log_lines_containing;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

namespace {

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

// Tables and a discovery list of the test's own; the list starts with a name
// that the files below name again, which the parse must append regardless.
class CatalogueTest : public ::testing::Test {
  protected:
    void SetUp() override { kiv_log::set_level(kiv_log::VERBOSE); }
    bool parse_file(const std::string& path) {
        return catalogue::parseOEMConfig(path.c_str(), dataTypes, exercises, discoveryList);
    }
    bool parse(const std::string& xml) {
        root.write_file("/oem_config.xml", xml);
        return parse_file(root.host_path("/oem_config.xml"));
    }
    bool parse_data(const std::string& name) {
        return parse_file(std::string(KIVHAL_TEST_DATA_DIR) + "/" + name);
    }
    const kt::dataTypeInfo& row(int32_t value) { return dataTypes.at(dt(value)); }
    const kt::exerTypeInfo& exercise(int32_t number) { return exercises.at(ex(number)); }

    kivhal::test::scoped_root root;
    kt::DataTypeTable dataTypes;
    kt::ExerciseTypeTable exercises;
    std::vector<std::string> discoveryList{"steps"};
};

TEST(CatalogueOutputFormatTest, FollowsRangesAndHoles) {
    // clang-format off
    const std::pair<int32_t, int> expected[] = {
        {-5, 0},
        {0, 0},
        {1, 1},
        {2, 2},
        {3, 2},
        {4, 0},
        {6, 2},
        {7, 2},
        {17, 1},
        {18, 0},
        {0x0FFF, 0},
        {0x1000, 1},
        {0x1001, 2},
        {0x1002, 2},
        {0x1003, 0},
        {0x1005, 2},
        {0x1007, 2},
        {0x1008, 1},
        {0x100C, 1},
        {0x100D, 0},
        {0x1013, 1},
        {0x1014, 0},
        {0x5000, 2},
        {0x5001, 3},
        {0x5003, 2},
        {0x5004, 0},
        {0x500C, 2},
        {0x5010, 1},
        {0x5015, 11},
        {0x5018, 10},
        {0x5019, 11},
        {0x501A, 0},
        {0xA000, 4},
        {0xA002, 4},
        {0xA003, 5},
        {0xA004, 7},
        {0xA005, 6},
        {0xA007, 8},
        {0xA008, 0},
        {0x10000, 9},
        {0x20000, 9},
        {0x30000, 9},
        {0x30001, 0},
        {INT32_MIN, 0},
        {kInt32Max, 0},
    };
    // clang-format on
    for (const auto& [value, code] : expected) {
        EXPECT_EQ(kt::datatype_output_format(dt(value)), code) << "value 0x" << std::hex << value;
    }
}

TEST(CatalogueHexTest, SkipsPrefixRepeatsDigitForNonHexSaturatesAndAbortsWithoutDigits) {
    const std::pair<std::string, int32_t> cases[] = {
        {"0x1f", 31},
        {"zz10", 16},
        {"0xABCDEF", 0xABCDEF},
        {"0xg1", 17},
        {"0x1g", 16},
        {"0x2-3", 0x233},
        {"0x7FFFFFFF", kInt32Max},
        {"0x80000000", kInt32Max},
        {"0x123456789ABCDEF0123", kInt32Max},
        // Leading zeros beyond any double exponent contribute nothing.
        {"0x" + std::string(400, '0') + "1", 1},
    };
    for (const auto& [text, value] : cases) {
        EXPECT_EQ(catalogue::hexStrToDec(text.c_str()), value) << text;
    }
    // The child logs to stderr too, so the parent sees the line written before the abort.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::pair<const char*, const char*> fatal[] = {
        {"0x", "no hexadecimal digits in '0x'"},
        {"0", "no hexadecimal digits in '0'"},
        {nullptr, "missing hexadecimal value"},
    };
    kiv_log::set_stderr_logging(true);
    for (const auto& [text, line] : fatal) {
        EXPECT_EXIT(catalogue::hexStrToDec(text), ::testing::KilledBySignal(SIGABRT),
                    std::string("hexStrToDec:[0-9]+, ") + line + "\n");
    }
    kiv_log::set_stderr_logging(false);
}

// Each row follows its own element's type; lookups insert empty rows for unknown keys.
TEST_F(CatalogueTest, RowsFollowTheirOwnConfigurationAndSensorTypesAppendOnce) {
    ASSERT_TRUE(parse_data("catalogue_rows.xml"));
    EXPECT_TRUE(row(0x1000).isSample && !row(0x1000).isOem);
    EXPECT_TRUE(catalogue::isSampleDataType(dataTypes, dt(0x1000)));
    EXPECT_TRUE(!row(0x1001).isSample && row(0x1001).isOem && row(0x1001).available);
    EXPECT_FALSE(row(0x2).isSample || row(0x2).isOem);
    EXPECT_EQ(catalogue::getSensorType(dataTypes, exercises, 0x1001, false), "Heart");
    std::sort(discoveryList.begin() + 1, discoveryList.end());
    EXPECT_THAT(discoveryList, ElementsAre("steps", "Heart", "spo2", "steps"));

    EXPECT_EQ(catalogue::getSensorType(dataTypes, exercises, 0x1001, true), "");
    EXPECT_FALSE(catalogue::isSampleDataType(dataTypes, dt(0x1009)));
    EXPECT_EQ(dataTypes.size(), 5u);
    EXPECT_EQ(exercises.size(), 1u);
}

// Goals of data types defined so far, by threshold kind; a later redefinition clears them.
TEST_F(CatalogueTest, GoalsOfKnownDataTypesByThresholdKind) {
    ASSERT_TRUE(parse_data("catalogue_goals.xml"));
    EXPECT_FALSE(row(0x1008).goalSupported);  // defined only after its goal
    const auto& a = row(0x1000).goals;
    ASSERT_EQ(a.size(), 2u);
    EXPECT_TRUE(a[0].dataType == dt(0x1000) && a[0].threshold.intValue == 5000 &&
                a[0].comparisonType == kGe);
    EXPECT_TRUE(a[1].threshold.intValue == -3 && a[1].comparisonType == kLe);
    ASSERT_EQ(row(0x10000).goals.size(), 2u);
    EXPECT_EQ(bytes_of(row(0x10000).goals[0]), "A&B");  // entities are decoded
    EXPECT_EQ(bytes_of(row(0x10000).goals[1]), "123");
    ASSERT_EQ(row(0x1001).goals.size(), 2u);
    EXPECT_FLOAT_EQ(row(0x1001).goals[0].threshold.floatValue, 2.5f);
    EXPECT_FLOAT_EQ(row(0x1001).goals[1].threshold.floatValue, 0.0f);

    catalogue::setSensorAvailabilityStatus(dataTypes, "a", false);
    ASSERT_TRUE(parse(R"(<configuration type="KIV_sample_datatype"><datatypes>
  <datatype sensor_type="new" type="new" data_type_value="0x1000"/></datatypes></configuration>)"));
    EXPECT_EQ(row(0x1000).sensorType, "new");
    EXPECT_TRUE(row(0x1000).goals.empty());
    EXPECT_FALSE(row(0x1000).goalSupported || row(0x1000).isOem);
    EXPECT_TRUE(row(0x1000).isSample && row(0x1000).available);
}

// Every row of a matching name, in the table's own order, also a row the
// exercise's own element added; a later definition of a number wins; one
// without a sensor type is left out.
TEST_F(CatalogueTest, ExercisesCollectEveryMatchingDataTypeInTableOrderOnlyWhenAutoStart) {
    ASSERT_TRUE(parse_data("catalogue_exercises.xml"));
    std::vector<kt::DataType> walking;
    for (const auto& [key, info] : dataTypes) {
        if (info.typeName == "WALKING") walking.push_back(key);
    }
    ASSERT_EQ(exercises.size(), 2u);
    EXPECT_EQ(exercise(3).typeName, "WALK");
    EXPECT_TRUE(exercise(3).autoStart && exercise(3).autoStop && !exercise(3).autoPause);
    EXPECT_THAT(exercise(3).autoStartDataTypes, UnorderedElementsAre(dt(0x1000), dt(0x1008)));
    EXPECT_EQ(exercise(9).typeName, "SECOND");
    EXPECT_TRUE(exercise(9).autoPause && exercise(9).autoStart);
    EXPECT_EQ(exercise(9).autoStartDataTypes, walking);
}

TEST_F(CatalogueTest,
       LoadFailuresAndMissingDataTypesReturnFalseAMissingValueAbortsAndMissingNamesStall) {
    EXPECT_FALSE(parse_file(root.host_path("/none.xml")));
    EXPECT_FALSE(parse(R"(<configuration type="KIV_oem_datatype"><datatypes>)"));
    EXPECT_EQ(log_lines_containing("XML Config File Not Opened", ANDROID_LOG_ERROR).size(), 2u);
    EXPECT_FALSE(parse("<config><datatypes/></config>"));
    // The last element without data types ends the parse at once while the table is empty.
    EXPECT_FALSE(parse(R"(<configuration><autoExerciseType>
  <exercisetype type="w" sensor_type="s" exercise_num="1"/></autoExerciseType></configuration>
  <configuration><datatypes/></configuration>)"));
    EXPECT_EQ(exercises.size(), 1u);
    EXPECT_EQ(discoveryList.size(), 1u);
    dataTypes[dt(1)] = kt::dataTypeInfo{};
    EXPECT_TRUE(parse("<configuration/>"));

    GTEST_FLAG_SET(death_test_style, "threadsafe");  // a data type without a value is not guarded
    EXPECT_EXIT(
        {
            kiv_log::set_stderr_logging(true);
            parse(R"(<configuration type="t"><datatypes><datatype sensor_type="s" type="t"/>
</datatypes></configuration>)");
        },
        ::testing::KilledBySignal(SIGABRT), "hexStrToDec:[0-9]+, missing hexadecimal value\n");
    // One without its names stalls the parse for good: still running after 200 ms.
    EXPECT_EXIT(
        {
            ualarm(200 * 1000, 0);
            parse(R"(<configuration><datatypes><datatype type="t"/></datatypes></configuration>)");
            _exit(0);
        },
        ::testing::KilledBySignal(SIGALRM), "");
}

// "steps" and "heart" have attributes ("heart" through two sensors); "silent"
// was discovered but its attributes never arrived; "gone" was never discovered.
class CatalogueQueriesTest : public CatalogueTest {
  protected:
    void SetUp() override {
        CatalogueTest::SetUp();
        const sensor_uid steps = {1, 1}, heart = {2, 2}, heart2 = {2, 3}, silent = {3, 3};
        suids = {{"steps", {steps}}, {"heart", {heart, heart2}}, {"silent", {silent}}};
        attributes = {{steps, {}}, {heart, {}}, {heart2, {}}};
        ASSERT_TRUE(parse_data("catalogue_queries.xml"));
    }

    catalogue::SuidMap suids;
    catalogue::AttributesMap attributes;
    const catalogue::discovered found{suids, attributes};
};

TEST_F(CatalogueQueriesTest, MetricsFollowDiscoveredAttributesNotTheRowFlag) {
    catalogue::setSensorAvailabilityStatus(dataTypes, "heart", false);
    EXPECT_THAT(catalogue::listAvailableSensorTypes(found), UnorderedElementsAre("steps", "heart"));
    EXPECT_THAT(catalogue::getSupportedMetricsTypes(dataTypes, found),
                UnorderedElementsAre(dt(0x1000), dt(0x1001), dt(0x10000), dt(0x5001)));
    EXPECT_FALSE(catalogue::getSensorAvailabilityStatus(dataTypes, "heart"));
    EXPECT_THAT(catalogue::getAllDatatypes(dataTypes, "heart"), IsEmpty());
    EXPECT_TRUE(catalogue::getSensorAvailabilityStatus(dataTypes, "silent"));
    EXPECT_THAT(catalogue::getAllDatatypes(dataTypes, "silent"), ElementsAre(dt(0x1008)));
    EXPECT_FALSE(catalogue::getSensorAvailabilityStatus(dataTypes, "Heart"));
    catalogue::setSensorAvailabilityStatus(dataTypes, "heart", true);
    EXPECT_THAT(catalogue::getAllDatatypes(dataTypes, "heart"),
                UnorderedElementsAre(dt(0x1001), dt(0x10000)));
    catalogue::setSensorAvailabilityStatus(dataTypes, "Heart", false);
    EXPECT_TRUE(catalogue::getSensorAvailabilityStatus(dataTypes, "heart"));
}

// The first goal of the comparison decides, whatever the availability; an
// unknown data type gets an empty row.
TEST_F(CatalogueQueriesTest, GoalCheckUsesFirstGoalOfTheComparisonAndOfferedGoalsNeedAttributes) {
    catalogue::setSensorAvailabilityStatus(dataTypes, "steps", false);
    const std::pair<kt::DataTypeGoal, bool> cases[] = {
        // Integers: the first GREATER_THAN_OR_EQUAL goal is 5000, the LESS_THAN_OR_EQUAL one 60.
        {goal(0x1000, kGe, 6000), true},
        {goal(0x1000, kGe, 5000), true},
        {goal(0x1000, kGe, 4000), false},
        {goal(0x1000, kLe, 45), true},
        {goal(0x1000, kLe, 61), false},
        {goal(0x1000, 2, 45), false},
        // Floats, also of a sensor type without attributes.
        {goal(0x1008, kLe, 0, 2.5f), true},
        {goal(0x1001, kLe, 0, 1.5f), true},
        {goal(0x1001, kLe, 0, 1.6f), false},
        {goal(0x1001, kGe, 0, -1.0f), true},
        {goal(0x1001, kGe, 0, -2.0f), false},
        // Bytes are not compared; other formats and unknown types are refused.
        {goal(0x10000, kLe, 0), true},
        {goal(0x10000, kGe, 0), false},
        {goal(0x5001, kLe, 1), false},
        {goal(0x1009, kLe, 1), false},
    };
    for (const auto& [g, supported] : cases) {
        EXPECT_EQ(catalogue::isGoalSupported(dataTypes, g), supported)
            << static_cast<int32_t>(g.dataType) << " " << g.comparisonType;
    }
    EXPECT_TRUE(row(0x1009).sensorType.empty());
    // Offered: every goal of a sensor type with attributes ("silent" has none).
    std::vector<std::pair<int32_t, uint32_t>> offered;
    for (const auto& g : catalogue::getSupportedGoals(dataTypes, found)) {
        offered.emplace_back(static_cast<int32_t>(g.dataType), g.comparisonType);
    }
    EXPECT_THAT(offered,
                UnorderedElementsAre(Pair(0x1000, kGe), Pair(0x1000, kLe), Pair(0x1000, kGe),
                                     Pair(0x1001, kLe), Pair(0x1001, kGe), Pair(0x10000, kLe),
                                     Pair(0x5001, kLe)));
    // Each goal is logged as its data type's output format reads it; bytes as
    // unsigned values (U+00FF is C3 BF in UTF-8).
    for (const char* line :
         {"Sensor = steps, DataType = 4096, Threshold = 5000, Comparison Type = 0",
          "Sensor = heart, DataType = 4097, Threshold = -1.500000, Comparison "
          "Type = 0",
          "Sensor = heart, DataType = 65536, Comparison Type = 1", "byteArrayThreshold[1] = 195"}) {
        EXPECT_EQ(log_lines_containing(line, ANDROID_LOG_DEBUG).size(), 1u) << line;
    }
}

TEST_F(CatalogueQueriesTest, AutoStartIsUnfilteredWhileStopAndPauseNeedAvailability) {
    std::map<kt::ExerciseType, std::vector<kt::DataType>> start;
    for (const kt::AutoStartCapability& c : catalogue::getAutoStartList(exercises)) {
        start[c.exerciseType] = c.dataTypes;
    }
    EXPECT_THAT(start, ElementsAre(Pair(ex(1), ElementsAre(dt(0x1000), dt(0x1001))),
                                   Pair(ex(2), IsEmpty())));
    EXPECT_THAT(catalogue::getAutoStopList(exercises, found), ElementsAre(ex(1)));
    EXPECT_THAT(catalogue::getAutoPauseList(exercises, found), UnorderedElementsAre(ex(1), ex(3)));
}

}  // namespace
