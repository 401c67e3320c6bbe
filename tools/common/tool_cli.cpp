#include "tool_cli.h"

#include <cstdio>
#include <fstream>
#include <sstream>

namespace kivhal {
namespace tools {

std::string arg_reader::next() {
    _current = _argv[_index++];
    _has_inline_value = false;
    const size_t equals = _current.find('=');
    if (_current.rfind("--", 0) == 0 && equals != std::string::npos) {
        _inline_value = _current.substr(equals + 1);
        _has_inline_value = true;
        _current.resize(equals);
    }
    return _current;
}

std::string arg_reader::value() {
    if (_has_inline_value) {
        _has_inline_value = false;
        return _inline_value;
    }
    if (done()) throw usage_error("option " + _current + " needs a value");
    return _argv[_index++];
}

uint64_t parse_number(const std::string& option, const std::string& text, uint64_t max) {
    uint64_t value = 0;
    bool ok = !text.empty() && text.size() <= 19;
    for (char c : text) {
        if (c < '0' || c > '9') ok = false;
        if (ok) value = value * 10 + static_cast<uint64_t>(c - '0');
    }
    if (!ok || value > max) {
        throw usage_error("option " + option + ": '" + text + "' is not a number from 0 to " +
                          std::to_string(max));
    }
    return value;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    if (in) content << in.rdbuf();
    if (!in || in.bad()) throw usage_error("cannot read " + path);
    return content.str();
}

int run_tool(const char* tool_name, const std::function<int()>& body) {
    try {
        return body();
    } catch (const usage_error& e) {
        fprintf(stderr, "%s: %s (see --help)\n", tool_name, e.what());
    } catch (const std::exception& e) {
        fprintf(stderr, "%s: %s\n", tool_name, e.what());
    }
    return kExitUsage;
}

}  // namespace tools
}  // namespace kivhal
