#pragma once

// Runs a built program for end-to-end tests: its standard output and error
// go to files read back afterwards, so a chatty child never blocks on a pipe.

#include <android-base/file.h>
#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace kivhal {
namespace test {

struct tool_result {
    int exit_code = -1;  // -1 when a signal or the time-out ended it
    std::string out;
    std::string err;
};

class tool_process {
  public:
    // Starts `path` with `args`; throws std::runtime_error when it cannot.
    tool_process(const std::string& path, const std::vector<std::string>& args);
    ~tool_process();  // kills a program still running
    tool_process(const tool_process&) = delete;
    tool_process& operator=(const tool_process&) = delete;

    std::string out() const;
    // True once standard output contains `needle`.
    bool wait_for_output(const std::string& needle,
                         std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    // Sends `signal_number` (none when 0) and waits; after `timeout` the
    // program is killed. Once it has ended, later calls signal nothing and
    // return the same status. Throws std::runtime_error when the program's
    // status cannot be collected.
    tool_result stop(int signal_number,
                     std::chrono::milliseconds timeout = std::chrono::seconds(10));

  private:
    pid_t _pid = -1;
    bool _reaped = false;  // from then on _pid is no child of ours
    int _exit_code = -1;
    TemporaryFile _out;
    TemporaryFile _err;
};

tool_result run_program(const std::string& path, const std::vector<std::string>& args,
                        std::chrono::milliseconds timeout = std::chrono::seconds(60));

// Exactly one line, with its line end.
inline bool is_one_line(const std::string& text) {
    return !text.empty() && text.find('\n') == text.size() - 1;
}

}  // namespace test
}  // namespace kivhal

#ifdef KIVHAL_TOOLS_DIR
#include <gmock/gmock.h>
namespace kivhal {
namespace test {
inline std::string tool(const char* name) {
    return std::string(KIVHAL_TOOLS_DIR) + "/" + name;
}
const std::string kExampleConfig = std::string(KIVHAL_SOURCE_DIR) + "/examples/oem_config.xml";

// The last line of `text`, without its newline.
inline std::string last_line(std::string text) {
    if (!text.empty() && text.back() == '\n') text.pop_back();
    const size_t newline = text.rfind('\n');
    return newline == std::string::npos ? text : text.substr(newline + 1);
}

// `--help` prints the usage; each argument list in `bad` exits 2 with one
// line on standard error and nothing on standard output.
inline void expect_usage_errors(const std::string& path, const std::string& usage,
                                const std::vector<std::vector<std::string>>& bad) {
    const tool_result help = run_program(path, {"--help"});
    EXPECT_EQ(0, help.exit_code);
    EXPECT_THAT(help.out, ::testing::HasSubstr(usage));
    for (const auto& args : bad) {
        const tool_result result = run_program(path, args);
        EXPECT_EQ(2, result.exit_code) << (args.empty() ? "" : args.back()) << "\n" << result.err;
        EXPECT_EQ("", result.out);
        EXPECT_TRUE(is_one_line(result.err)) << result.err;
    }
}

// Hostile inputs (devices, directories, pipes, oversized files) are refused
// at once: exit 2, one line on standard error, within a few seconds.
inline void expect_refused_at_once(const std::string& path, const std::vector<std::string>& args) {
    const tool_result result = run_program(path, args, std::chrono::seconds(5));
    EXPECT_EQ(2, result.exit_code) << args.back() << "\n" << result.out << result.err;
    EXPECT_EQ("", result.out);
    EXPECT_TRUE(is_one_line(result.err)) << result.err;
}
}  // namespace test
}  // namespace kivhal
#endif
