#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "test_support.h"
#include "tool_process.h"

namespace kivhal {
namespace test {
namespace {

const std::string kLint = tool("kivhal-lint");

// Configurations under tests/data: lint_broken.xml carries at most one kind
// of mistake per line; lint_warnings.xml only mistakes the linter warns about
// (an unknown attribute, a threshold type read by its prefix, an exercise on a
// sensor type no data type has); lint_values.xml values the parser silently
// changes; lint_valid.xml one of everything, correct; the others one mistake
// each.
std::string data_file(const char* name) {
    return std::string(KIVHAL_SOURCE_DIR) + "/tests/data/" + name;
}

std::string read_data(const char* name) {
    std::string text;
    EXPECT_TRUE(android::base::ReadFileToString(data_file(name), &text)) << name;
    return text;
}

// Lints the file at `path`; expects `exit_code`, each `path:line: text` and
// the verdict line.
void expect_lint(const std::string& path, int exit_code, const std::string& verdict,
                 const std::vector<std::pair<int, std::string>>& expected) {
    const tool_result result = run_program(kLint, {path});
    EXPECT_EQ(exit_code, result.exit_code) << result.out;
    for (const auto& [line, text] : expected) {
        const std::string wanted = path + ":" + std::to_string(line) + ": " + text;
        EXPECT_THAT(result.out, ::testing::HasSubstr(wanted));
    }
    // Nothing else: lines that are right stay unreported; the verdict ends it.
    EXPECT_EQ(expected.size() + 1,
              static_cast<size_t>(std::count(result.out.begin(), result.out.end(), '\n')));
    EXPECT_EQ(verdict, last_line(result.out));
}

TEST(LintTest, ReportsEveryMistakeAtItsLineAndWarningsAloneExitZero) {
    const tool_result example = run_program(kLint, {kExampleConfig});
    EXPECT_EQ(0, example.exit_code);
    EXPECT_EQ("no problems found\n", example.out + example.err);
    expect_lint(
        data_file("lint_broken.xml"), 1, "14 errors, 0 warnings",
        {
            {2, "error: <datatype> without \"type\": the parser never gets past it"},
            {3, "error: data_type_value \"1000\" lacks the 0x prefix"},
            {4, "error: data_type_value \"0x10g0\" has non-hex digits"},
            {6, "error: data type 0x1002 is defined again: this overwrites line 5"},
            {8, "error: goal for data type 0x1001, which is not defined"},
            {9, "error: threshold type \"double\" is not int, float or byte"},
            {10, "error: comparison_type \"EQUAL\" is neither"},
            {11, "error: threshold type \"int\" on data type 0x1002, whose output format is 2"},
            {12, "error: byte threshold without \"type_value\""},
            {12, "error: data type 0x5004 has output format 0"},
            {15, "error: exercise data type \"Steps\" matches no data type"},
            {16, "error: exercise 1 is defined again: this overwrites line 14"},
            {16, "error: auto_start \"yes\" is not a boolean"},
            {18, "error: <configuration> holds data types but has no \"type\""},
        });
    // Values the parser silently changes: clamped, wrapped, negative, not text.
    expect_lint(
        data_file("lint_values.xml"), 1, "4 errors, 0 warnings",
        {
            {2,
             "error: data_type_value \"0x1FFFFFFFF\" is beyond 0x7fffffff: the parser reads "
             "0x7fffffff"},
            {3, "error: sensor_type \"st\\xFF\" is not UTF-8 text"},
            // The parser's int read narrows strtol's long: LONG_MAX is -1 in 32 bits on a 64-bit ABI.
            {5,
             std::string("error: type_value \"99999999999999999999\" is beyond the 32-bit range: "
                         "the parser reads ") +
                 (sizeof(long) == 8 ? "-1" : "2147483647")},
            {7, "error: exercise_num \"-3\" is negative: exercise numbers count from 0"},
        });
    expect_lint(data_file("lint_not_xml.xml"), 1, "1 error, 0 warnings",
                {{3, "error: not well-formed XML"}});
    expect_lint(data_file("lint_no_datatype.xml"), 1, "1 error, 0 warnings",
                {{1, "error: no data type is defined"}});
    expect_lint(data_file("lint_warnings.xml"), 0, "0 errors, 3 warnings",
                {{2, "warning: unknown attribute \"colour\""},
                 {3, "warning: threshold type \"integer\" is read as \"int\""},
                 {5, "warning: sensor type \"exercise\" is no data type's"}});
}

TEST(LintTest, RefusesBadArgumentsAndWhatCannotBeAConfigurationAtOnce) {
    expect_usage_errors(kLint, "Usage: kivhal-lint FILE...", {{}, {"--bogus"}, {"/missing.xml"}});
    constexpr off_t kLimit = 16 * 1024 * 1024;
    scoped_root root;
    const std::string pipe = root.host_path("/pipe");
    ASSERT_EQ(0, mkfifo(pipe.c_str(), 0600));
    // Sparse files: a size is all the check looks at.
    root.write_file("/huge.xml", "");
    root.write_file("/limit.xml", "");
    ASSERT_EQ(0, truncate(root.host_path("/huge.xml").c_str(), kLimit + 1));
    ASSERT_EQ(0, truncate(root.host_path("/limit.xml").c_str(), kLimit));

    for (const std::string& path :
         {std::string("/dev/zero"), std::string("/tmp"), pipe, root.host_path("/huge.xml")}) {
        expect_refused_at_once(kLint, {path});
    }
    // At the limit the file is read: zero bytes are no XML, an error finding.
    const tool_result at_limit = run_program(kLint, {root.host_path("/limit.xml")});
    EXPECT_EQ(1, at_limit.exit_code) << at_limit.err;
}

// lint_valid.xml with `from` replaced by `to`.
std::string with(const std::string& from, const std::string& to) {
    std::string text = read_data("lint_valid.xml");
    const size_t at = text.find(from);
    EXPECT_NE(std::string::npos, at) << from;
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

// The configuration schema: what the linter accepts validates, and each error
// the linter reports is one the schema rejects wherever XML Schema 1.0 can say it.
TEST(SchemaTest, AgreesWithTheLinterAndLeavesItWhatOnlyItCanSay) {
    const struct {
        std::string contents;
        const char* lint_error;  // nullptr: the linter accepts it
        bool schema_rejects;
    } cases[] = {
        {read_data("../../examples/oem_config.xml"), nullptr, false},
        {read_data("lint_valid.xml"), nullptr, false},
        {read_data("lint_warnings.xml"), nullptr, false},
        // Forms the parser reads as tinyxml2 does: words by their prefix,
        // numbers with trailing text, booleans as numbers and in three cases.
        {with(R"(type="int" type_value="180" comparison_type="LESS_THAN_OR_EQUAL")",
              R"(type="integer" type_value="180" comparison_type="LESS_THAN_OR_EQUALS")"),
         nullptr, false},
        {with(R"(exercise_num="1" auto_start="true")",
              R"(exercise_num="0x10" auto_start="1" auto_stop="FALSE" auto_pause="True")"),
         nullptr, false},
        {with("data_type_value=\"0x1001\"", "data_type_value=\"0X10aF\""), nullptr, false},
        // Errors the schema says too.
        {"<configuration type=\"x\"><datatypes>", "not well-formed XML", true},
        {"<settings/>\n", "no <configuration> element", true},
        {"<configuration type=\"x\"><goals/></configuration>\n", "no data type is defined", true},
        {with("configuration type=\"KIV_oem_datatype\"", "configuration"),
         "holds data types but has no \"type\"", true},
        {with("sensor_type=\"hr\" type=\"heart_rate\"", "type=\"heart_rate\""),
         "without \"sensor_type\"", true},
        {with("sensor_type=\"hr\" type=\"heart_rate\"", "sensor_type=\"hr\""),
         "<datatype> without \"type\"", true},
        {with("data_type_value=\"0x1001\"", ""), "without \"data_type_value\"", true},
        {with("data_type_value=\"0x1001\"", "data_type_value=\"0x\""), "has no digits", true},
        {with("data_type_value=\"0x1001\"", "data_type_value=\"1001\""), "lacks the 0x prefix",
         true},
        {with("data_type_value=\"0x1001\"", "data_type_value=\"0x10g1\""), "has non-hex digits",
         true},
        {with("type=\"int\"", "type=\"double\""), "is not int, float or byte", true},
        {with("type=\"int\" ", ""), "<threshold> without \"type\"", true},
        {with("comparison_type=\"LESS_THAN_OR_EQUAL\"", "comparison_type=\"EQUAL\""), "is neither",
         true},
        {with("comparison_type=\"LESS_THAN_OR_EQUAL\"", ""), "without \"comparison_type\"", true},
        {with("exercisetype type=\"walk\"", "exercisetype"), "<exercisetype> without \"type\"",
         true},
        {with("sensor_type=\"hr\" exercise_num", "exercise_num"),
         "<exercisetype> without \"sensor_type\"", true},
        {with("exercise_num=\"1\"", "exercise_num=\"one\""),
         "exercise_num \"one\" is not an integer", true},
        {with("auto_start=\"true\"", "auto_start=\"yes\""), "auto_start \"yes\" is not a boolean",
         true},
        // Errors only the linter can say.
        {with("data_type_value=\"0x1001\"", "data_type_value=\"0x01000\""), "is defined again",
         false},
        {with("<goal datatype=\"heart_rate\" data_type_value=\"0x1000\"",
              "<goal data_type_value=\"0x1002\""),
         "which is not defined", false},
        {with("type=\"int\" type_value=\"180\"", "type=\"byte\""),
         "byte threshold without \"type_value\"", false},
        {with("type=\"int\" type_value=\"180\"", "type=\"int\" type_value=\"high\""),
         "is not an integer", false},
        {with("type=\"int\" type_value=\"180\"", "type=\"float\" type_value=\"180\""),
         "threshold type \"float\" on data type 0x1000", false},
        {with("<datatype type=\"heart_rate\"/>", "<datatype type=\"steps\"/>"),
         "matches no data type", false},
    };
    scoped_root root;
    const std::string path = root.host_path("/oem_config.xml");
    for (const auto& c : cases) {
        root.write_file("/oem_config.xml", c.contents);
        const tool_result linted = run_program(kLint, {path});
        EXPECT_EQ(c.lint_error != nullptr ? 1 : 0, linted.exit_code) << linted.out << c.contents;
        EXPECT_THAT(linted.out, ::testing::HasSubstr(c.lint_error != nullptr ? c.lint_error : ""));
        const tool_result checked = run_program(
            KIVHAL_XMLLINT, {"--noout", "--schema",
                             std::string(KIVHAL_SOURCE_DIR) + "/schema/oem_config.xsd", path});
        EXPECT_EQ(c.schema_rejects, checked.exit_code != 0) << checked.err << c.contents;
    }
}

}  // namespace
}  // namespace test
}  // namespace kivhal
