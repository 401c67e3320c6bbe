#pragma once

// Checks an OEM configuration against everything the library's parser
// assumes but does not check: what would hang or crash it, what it drops or
// overwrites without a word, and goals it can never decode.

#include <string>
#include <vector>

namespace kivhal {
namespace tools {

struct lint_finding {
    int line = 0;
    bool error = true;
    // The parser rejects the file, hangs or aborts on it: discovery never runs.
    bool fatal = false;
    std::string message;
};

// Findings in file order. Throws usage_error when the file cannot be read.
std::vector<lint_finding> lint_config(const std::string& path);

}  // namespace tools
}  // namespace kivhal
