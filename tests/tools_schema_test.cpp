// The OEM configuration schema against the linter: what the linter accepts
// validates, and each error the linter reports is one the schema rejects
// wherever XML Schema 1.0 can say it.
#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "oem_config_fixtures.h"
#include "test_support.h"
#include "tool_process.h"

namespace kivhal {
namespace test {
namespace {

const std::string kLint = tool("kivhal-lint");
const std::string kSchema = std::string(KIVHAL_SOURCE_DIR) + "/schema/oem_config.xsd";

// One of everything, correct.
constexpr char kValid[] = R"(<configuration type="KIV_oem_datatype"><datatypes>
  <datatype sensor_type="hr" type="heart_rate" data_type_value="0x1000"/>
  <datatype sensor_type="temp" type="skin_temperature" data_type_value="0x1001"/></datatypes><goals>
  <goal datatype="heart_rate" data_type_value="0x1000"><threshold type="int" type_value="180" comparison_type="LESS_THAN_OR_EQUAL"/></goal></goals>
  <autoExerciseType><exercisetype type="walk" sensor_type="hr" exercise_num="1" auto_start="true"><datatype type="heart_rate"/></exercisetype>
  </autoExerciseType></configuration>
)";

class SchemaTest : public ::testing::Test {
protected:
    std::string write(const std::string& contents) {
        root.write_file("/oem_config.xml", contents);
        return root.host_path("/oem_config.xml");
    }
    // xmllint's verdict, and the linter's exit status and output, on `contents`.
    tool_result validate(const std::string& contents) {
        return run_program(KIVHAL_XMLLINT, {"--noout", "--schema", kSchema, write(contents)});
    }
    tool_result lint(const std::string& contents) { return run_program(kLint, {write(contents)}); }

    scoped_root root;
};

std::string example_config() {
    std::string text;
    EXPECT_TRUE(android::base::ReadFileToString(kExampleConfig, &text));
    return text;
}

// `kValid` with `from` replaced by `to`.
std::string with(const std::string& from, const std::string& to) {
    std::string text = kValid;
    const size_t at = text.find(from);
    EXPECT_NE(std::string::npos, at) << from;
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

TEST_F(SchemaTest, TheExampleAndEveryFileTheLinterAcceptsValidate) {
    const std::vector<std::string> accepted = {
        example_config(),
        kValid,
        kWarningsOnlyConfig,
        // Forms the parser reads as tinyxml2 does: words by their prefix,
        // numbers with trailing text, booleans as numbers and in three cases.
        with(R"(type="int" type_value="180" comparison_type="LESS_THAN_OR_EQUAL")",
             R"(type="integer" type_value="180" comparison_type="LESS_THAN_OR_EQUALS")"),
        with(R"(exercise_num="1" auto_start="true")",
             R"(exercise_num="0x10" auto_start="1" auto_stop="FALSE" auto_pause="True")"),
        with("data_type_value=\"0x1001\"", "data_type_value=\"0X10aF\""),
    };
    for (const std::string& contents : accepted) {
        const tool_result linted = lint(contents);
        EXPECT_EQ(0, linted.exit_code) << linted.out << contents;
        const tool_result checked = validate(contents);
        EXPECT_EQ(0, checked.exit_code) << checked.err << contents;
    }
}

struct mistake {
    std::string contents;
    const char* lint_error;  // part of the linter's error line
};

TEST_F(SchemaTest, RejectsEachLinterErrorASchemaCanSay) {
    const std::vector<mistake> mistakes = {
        {"<configuration type=\"x\"><datatypes>", "not well-formed XML"},
        {"<settings/>\n", "no <configuration> element"},
        {"<configuration type=\"x\"><goals/></configuration>\n", "no data type is defined"},
        {with("configuration type=\"KIV_oem_datatype\"", "configuration"), "holds data types but has no \"type\""},
        {with("sensor_type=\"hr\" type=\"heart_rate\"", "type=\"heart_rate\""), "without \"sensor_type\""},
        {with("sensor_type=\"hr\" type=\"heart_rate\"", "sensor_type=\"hr\""), "<datatype> without \"type\""},
        {with("data_type_value=\"0x1001\"", ""), "without \"data_type_value\""},
        {with("data_type_value=\"0x1001\"", "data_type_value=\"0x\""), "has no digits"},
        {with("data_type_value=\"0x1001\"", "data_type_value=\"1001\""), "lacks the 0x prefix"},
        {with("data_type_value=\"0x1001\"", "data_type_value=\"0x10g1\""), "has non-hex digits"},
        {with("type=\"int\"", "type=\"double\""), "is not int, float or byte"},
        {with("type=\"int\" ", ""), "<threshold> without \"type\""},
        {with("comparison_type=\"LESS_THAN_OR_EQUAL\"", "comparison_type=\"EQUAL\""), "is neither"},
        {with("comparison_type=\"LESS_THAN_OR_EQUAL\"", ""), "without \"comparison_type\""},
        {with("exercisetype type=\"walk\"", "exercisetype"), "<exercisetype> without \"type\""},
        {with("sensor_type=\"hr\" exercise_num", "exercise_num"), "<exercisetype> without \"sensor_type\""},
        {with("exercise_num=\"1\"", "exercise_num=\"one\""), "exercise_num \"one\" is not an integer"},
        {with("auto_start=\"true\"", "auto_start=\"yes\""), "auto_start \"yes\" is not a boolean"},
    };
    for (const mistake& m : mistakes) {
        const tool_result linted = lint(m.contents);
        EXPECT_EQ(1, linted.exit_code) << m.lint_error;
        EXPECT_THAT(linted.out, ::testing::HasSubstr(m.lint_error));
        const tool_result checked = validate(m.contents);
        EXPECT_NE(0, checked.exit_code) << "the schema accepts: " << m.lint_error << "\n" << m.contents;
    }
}

TEST_F(SchemaTest, LeavesToTheLinterWhatOnlyItCanSay) {
    const std::vector<mistake> mistakes = {
        {with("data_type_value=\"0x1001\"", "data_type_value=\"0x01000\""), "is defined again"},
        {with("<goal datatype=\"heart_rate\" data_type_value=\"0x1000\"",
              "<goal data_type_value=\"0x1002\""), "which is not defined"},
        {with("type=\"int\" type_value=\"180\"", "type=\"byte\""), "byte threshold without \"type_value\""},
        {with("type=\"int\" type_value=\"180\"", "type=\"int\" type_value=\"high\""), "is not an integer"},
        {with("type=\"int\" type_value=\"180\"", "type=\"float\" type_value=\"180\""),
         "threshold type \"float\" on data type 0x1000"},
        {with("<datatype type=\"heart_rate\"/>", "<datatype type=\"steps\"/>"), "matches no data type"},
    };
    for (const mistake& m : mistakes) {
        const tool_result linted = lint(m.contents);
        EXPECT_THAT(linted.out, ::testing::HasSubstr(m.lint_error));
        EXPECT_EQ(0, validate(m.contents).exit_code) << m.lint_error;
    }
}

}  // namespace
}  // namespace test
}  // namespace kivhal
