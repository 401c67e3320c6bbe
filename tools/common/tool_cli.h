#pragma once

// Argument handling shared by the bring-up tools: every tool exits 2 with a
// one-line message on bad arguments or unreadable files.

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>

namespace kivhal {
namespace tools {

constexpr int kExitUsage = 2;

// A bad argument or an unusable input file; the message is the whole line.
class usage_error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Good arguments, but the run failed; the message says what happened and,
// where it can, what to do about it. Printed without the pointer to --help.
class tool_error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Walks argv once. Options take their value either as the next argument or
// after '=' ("--root DIR", "--root=DIR").
class arg_reader {
  public:
    arg_reader(int argc, char** argv) : _argc(argc), _argv(argv) {}

    bool done() const { return _index >= _argc; }
    // The next argument; for "--name=value" only "--name".
    std::string next();
    // The value of the option just returned by next().
    std::string value();

  private:
    int _argc;
    char** _argv;
    int _index = 1;
    std::string _current;
    std::string _inline_value;
    bool _has_inline_value = false;
};

// A decimal number in [0, max]; throws usage_error naming the option.
uint64_t parse_number(const std::string& option, const std::string& text, uint64_t max);

// The whole content of a file; throws usage_error when it cannot be read.
std::string read_file(const std::string& path);

// Runs a tool's body: usage errors and uncaught exceptions become one line on
// standard error ("<tool>: <message>", usage errors pointing to --help) and
// exit status 2.
int run_tool(const char* tool_name, const std::function<int()>& body);

}  // namespace tools
}  // namespace kivhal
