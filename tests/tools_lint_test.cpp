#include <gtest/gtest.h>

#include <string>

#include "test_support.h"
#include "tool_process.h"

namespace {

using kivhal::test::run_program;

const std::string kLint = std::string(KIVHAL_TOOLS_DIR) + "/kivhal-lint";
const std::string kExample = std::string(KIVHAL_SOURCE_DIR) + "/examples/oem_config.xml";
constexpr char kConfigPath[] = "/vendor/etc/sensors/oem_config.xml";

// Every line below carries at most one kind of mistake; the test names the
// line numbers the linter must report.
constexpr char kBroken[] = R"(<configuration type="KIV_oem_datatype">
  <datatypes>
    <datatype sensor_type="hr" data_type_value="0x1000"/>
    <datatype sensor_type="hr" type="hr" data_type_value="1000"/>
    <datatype sensor_type="hr" type="hr2" data_type_value="0x10g0"/>
    <datatype sensor_type="spo2" type="spo2" data_type_value="0x1002"/>
    <datatype sensor_type="spo2" type="spo2b" data_type_value="0x1002"/>
    <datatype sensor_type="x" type="x" data_type_value="0x5004"/>
  </datatypes>
  <goals>
    <goal data_type_value="0x1001">
      <threshold type="int" type_value="5" comparison_type="LESS_THAN_OR_EQUAL"/>
    </goal>
    <goal data_type_value="0x1002">
      <threshold type="double" type_value="5" comparison_type="LESS_THAN_OR_EQUAL"/>
      <threshold type="float" type_value="95" comparison_type="EQUAL"/>
      <threshold type="int" type_value="95" comparison_type="GREATER_THAN_OR_EQUAL"/>
    </goal>
    <goal data_type_value="0x5004">
      <threshold type="byte" comparison_type="GREATER_THAN_OR_EQUAL"/>
    </goal>
  </goals>
  <autoExerciseType>
    <exercisetype type="walk" sensor_type="spo2" exercise_num="1" auto_start="true">
      <datatype type="Steps"/>
    </exercisetype>
    <exercisetype type="run" sensor_type="spo2" exercise_num="1" auto_start="yes"/>
  </autoExerciseType>
</configuration>
<configuration>
  <datatypes><datatype sensor_type="a" type="a" data_type_value="0x3"/></datatypes>
</configuration>
)";

class LintTest : public ::testing::Test {
protected:
    std::string write(const std::string& contents) {
        root.write_file(kConfigPath, contents);
        return root.host_path(kConfigPath);
    }
    kivhal::test::scoped_root root;
};

TEST_F(LintTest, HelpAndBadArgumentsExitWithOneLine) {
    auto help = run_program(kLint, {"--help"});
    EXPECT_EQ(help.exit_code, 0);
    EXPECT_NE(help.out.find("Usage: kivhal-lint FILE..."), std::string::npos);

    for (const auto& args : {std::vector<std::string>{}, {"--bogus"},
                             {root.host_path("/missing.xml")}}) {
        auto bad = run_program(kLint, args);
        EXPECT_EQ(bad.exit_code, 2);
        EXPECT_EQ(bad.out, "");
        ASSERT_FALSE(bad.err.empty());
        EXPECT_EQ(bad.err.find('\n'), bad.err.size() - 1) << bad.err;
        EXPECT_EQ(bad.err.rfind("kivhal-lint: ", 0), 0u) << bad.err;
    }
}

TEST_F(LintTest, ExampleConfigurationIsClean) {
    auto result = run_program(kLint, {kExample});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "");
}

TEST_F(LintTest, ReportsEveryMistakeAtItsLine) {
    const std::string path = write(kBroken);
    auto result = run_program(kLint, {path});
    EXPECT_EQ(result.exit_code, 1);

    const std::pair<int, const char*> expected[] = {
        {3, "error: <datatype> without \"type\": the parser never gets past it"},
        {4, "error: data_type_value \"1000\" lacks the 0x prefix"},
        {5, "error: data_type_value \"0x10g0\" has non-hex digits"},
        {7, "error: data type 0x1002 is defined again: this overwrites line 6"},
        {11, "error: goal for data type 0x1001, which is not defined"},
        {15, "error: threshold type \"double\" is not int, float or byte"},
        {16, "error: comparison_type \"EQUAL\" is neither"},
        {17, "error: threshold type \"int\" on data type 0x1002, whose output format is 2"},
        {20, "error: byte threshold without \"type_value\""},
        {20, "error: data type 0x5004 has output format 0"},
        {25, "error: exercise data type \"Steps\" matches no data type"},
        {27, "error: exercise 1 is defined again: this overwrites line 24"},
        {27, "error: auto_start \"yes\" is not a boolean"},
        {30, "error: <configuration> holds data types but has no \"type\""},
    };
    for (const auto& [line, text] : expected) {
        const std::string wanted = path + ":" + std::to_string(line) + ": " + text;
        EXPECT_NE(result.out.find(wanted), std::string::npos) << "missing: " << wanted;
    }
    // Nothing is reported for the lines that are right.
    EXPECT_EQ(result.out.find(path + ":6:"), std::string::npos);
    EXPECT_EQ(result.out.find(path + ":12:"), std::string::npos);
}

TEST_F(LintTest, WarningsAloneExitZero) {
    const std::string path = write(R"(<configuration type="KIV_oem_datatype">
  <datatypes>
    <datatype sensor_type="steps" type="steps" data_type_value="0x1" colour="red"/>
  </datatypes>
  <goals>
    <goal data_type_value="0x1">
      <threshold type="integer" type_value="5" comparison_type="GREATER_THAN_OR_EQUAL"/>
    </goal>
  </goals>
  <autoExerciseType>
    <exercisetype type="walk" sensor_type="exercise" exercise_num="2" auto_stop="true"/>
  </autoExerciseType>
</configuration>
)");
    auto result = run_program(kLint, {path});
    EXPECT_EQ(result.exit_code, 0) << result.out;
    EXPECT_NE(result.out.find(path + ":3: warning: unknown attribute \"colour\""), std::string::npos);
    EXPECT_NE(result.out.find(path + ":7: warning: threshold type \"integer\" is read as \"int\""),
              std::string::npos);
    EXPECT_NE(result.out.find(path + ":11: warning: sensor type \"exercise\" is no data type's"),
              std::string::npos);
    EXPECT_EQ(result.out.find("error"), std::string::npos) << result.out;
}

TEST_F(LintTest, UnparsableFilesAreErrorsAtTheirLine) {
    const std::string malformed = write("<configuration type=\"x\">\n  <datatypes>\n  <datatype\n");
    auto result = run_program(kLint, {malformed});
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_NE(result.out.find(malformed + ":3: error: not well-formed XML"), std::string::npos)
        << result.out;

    const std::string empty_of_types = write("<configuration type=\"x\">\n  <goals/>\n</configuration>\n");
    result = run_program(kLint, {empty_of_types});
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_NE(result.out.find(":1: error: no data type is defined"), std::string::npos)
        << result.out;
}

}  // namespace
