#pragma once

// Runs a built program for end-to-end tests: its standard output and error
// go to files read back afterwards, so a chatty child never blocks on a pipe.

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace kivhal {
namespace test {

struct tool_result {
    int exit_code = -1;    // -1 when the program did not exit normally
    int term_signal = 0;   // the signal that ended it, if any
    bool timed_out = false;
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

    // Output so far.
    std::string out() const;
    std::string err() const;
    // True once standard output contains `needle`.
    bool wait_for_output(const std::string& needle, std::chrono::milliseconds timeout) const;
    // Waits for the program to end; after `timeout` it is killed and the
    // result says so.
    tool_result wait(std::chrono::milliseconds timeout);
    // Sends `signal_number`, then waits as above.
    tool_result stop(int signal_number, std::chrono::milliseconds timeout);

private:
    pid_t _pid = -1;
    std::string _out_path;
    std::string _err_path;
};

// Starts the program and waits for it.
tool_result run_program(const std::string& path, const std::vector<std::string>& args,
                        std::chrono::milliseconds timeout = std::chrono::seconds(60));

}  // namespace test
}  // namespace kivhal
