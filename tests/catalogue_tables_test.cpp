#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "kiv_sensor_factory.h"
#include "kiv_types.h"

namespace kt = vendor::zep::hardware::kiv_types;

namespace {

constexpr int32_t kInt32Max = std::numeric_limits<int32_t>::max();

class CatalogueTablesTest : public ::testing::Test {
protected:
    void SetUp() override { clear_tables(); }
    void TearDown() override { clear_tables(); }
    static void clear_tables() {
        kt::dataTypeMap.clear();
        kt::exerTypeMap.clear();
    }

    kiv_sensor_factory factory;
};

TEST(CatalogueOutputFormatTest, FollowsRangesAndHoles) {
    const std::vector<std::pair<int32_t, int>> expected = {
            {-5, 0},       {0, 0},       {1, 1},       {2, 2},
            {3, 2},        {4, 0},       {6, 2},       {7, 2},
            {17, 1},       {18, 0},      {0x0FFF, 0},  {0x1000, 1},
            {0x1001, 2},   {0x1002, 2},  {0x1003, 0},  {0x1005, 2},
            {0x1007, 2},   {0x1008, 1},  {0x100C, 1},  {0x100D, 0},
            {0x1013, 1},   {0x1014, 0},  {0x5000, 2},  {0x5001, 3},
            {0x5003, 2},   {0x5004, 0},  {0x500C, 2},  {0x5010, 1},
            {0x5015, 11},  {0x5018, 10}, {0x5019, 11}, {0x501A, 0},
            {0xA000, 4},   {0xA002, 4},  {0xA003, 5},  {0xA004, 7},
            {0xA005, 6},   {0xA007, 8},  {0xA008, 0},  {0x10000, 9},
            {0x20000, 9},  {0x30000, 9}, {0x30001, 0}, {std::numeric_limits<int32_t>::min(), 0},
            {kInt32Max, 0}};
    for (const auto& [value, code] : expected) {
        EXPECT_EQ(kt::datatype_output_format(static_cast<kt::DataType>(value)), code)
                << "value 0x" << std::hex << value;
    }
}

TEST_F(CatalogueTablesTest, HexStrToDecSkipsPrefixRepeatsDigitForNonHexAndSaturates) {
    EXPECT_FLOAT_EQ(kt::dataTypeMap.max_load_factor(), 1.0f);
    EXPECT_FLOAT_EQ(kt::exerTypeMap.max_load_factor(), 1.0f);

    EXPECT_EQ(factory.hexStrToDec("0x1f"), 31);
    EXPECT_EQ(factory.hexStrToDec("0X0A"), 10);
    EXPECT_EQ(factory.hexStrToDec("zz10"), 16);
    EXPECT_EQ(factory.hexStrToDec("0xABCDEF"), 0xABCDEF);
    EXPECT_EQ(factory.hexStrToDec("0xg1"), 17);
    EXPECT_EQ(factory.hexStrToDec("0x1g"), 16);
    EXPECT_EQ(factory.hexStrToDec("0x2-3"), 0x233);
    EXPECT_EQ(factory.hexStrToDec("0x7FFFFFFF"), kInt32Max);
    EXPECT_EQ(factory.hexStrToDec("0x80000000"), kInt32Max);
    EXPECT_EQ(factory.hexStrToDec("0x123456789ABCDEF0123"), kInt32Max);
    // Leading zeros beyond any double exponent contribute nothing.
    EXPECT_EQ(factory.hexStrToDec(("0x" + std::string(400, '0') + "1").c_str()), 1);
}

TEST_F(CatalogueTablesTest, HexStrToDecAbortsWithoutDigits) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(factory.hexStrToDec("0x"), "");
    EXPECT_DEATH(factory.hexStrToDec("0"), "");
    EXPECT_DEATH(factory.hexStrToDec(nullptr), "");
}

TEST_F(CatalogueTablesTest, LookupsReadRowsAndInsertEmptyOnesForUnknownKeys) {
    kt::dataTypeInfo row;
    row.sensorType = "step_count";
    row.isSample = true;
    kt::dataTypeMap[static_cast<kt::DataType>(0x1000)] = row;
    kt::exerTypeMap[static_cast<kt::ExerciseType>(7)].sensorType = "exercise_detect";

    EXPECT_EQ(factory.getSensorType(0x1000, false), "step_count");
    EXPECT_TRUE(factory.isSampleDataType(static_cast<kt::DataType>(0x1000)));
    EXPECT_EQ(factory.getSensorType(7, true), "exercise_detect");
    EXPECT_EQ(kt::dataTypeMap.size(), 1u);

    EXPECT_EQ(factory.getSensorType(7, false), "");
    EXPECT_FALSE(factory.isSampleDataType(static_cast<kt::DataType>(0x1009)));
    EXPECT_EQ(factory.getSensorType(42, true), "");
    EXPECT_EQ(kt::dataTypeMap.size(), 3u);
    EXPECT_EQ(kt::exerTypeMap.size(), 2u);
    EXPECT_FALSE(kt::dataTypeMap.at(static_cast<kt::DataType>(7)).available);
}

}  // namespace
