#include "test_support.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace kivhal {
namespace test {

namespace fs = std::filesystem;

scoped_root::scoped_root() {
    const char* previous = getenv("KIVHAL_ROOT");
    _had_previous_root = previous != nullptr;
    if (_had_previous_root) _previous_root = previous;

    std::string pattern = (fs::temp_directory_path() / "kivhal-root-XXXXXX").string();
    if (mkdtemp(&pattern[0]) == nullptr) throw std::runtime_error("mkdtemp failed");
    _path = pattern;
    setenv("KIVHAL_ROOT", _path.c_str(), 1);
}

scoped_root::~scoped_root() {
    if (_had_previous_root) {
        setenv("KIVHAL_ROOT", _previous_root.c_str(), 1);
    } else {
        unsetenv("KIVHAL_ROOT");
    }
    std::error_code ignored;
    fs::remove_all(_path, ignored);
}

std::string scoped_root::host_path(const std::string& device_path) const {
    return _path + device_path;
}

void scoped_root::write_file(const std::string& device_path, const std::string& contents) const {
    fs::path target(host_path(device_path));
    fs::create_directories(target.parent_path());
    std::ofstream out(target, std::ios::binary | std::ios::trunc);
    out << contents;
}

std::string scoped_root::read_file(const std::string& device_path) const {
    std::ifstream in(host_path(device_path), std::ios::binary);
    std::ostringstream contents;
    contents << in.rdbuf();
    return contents.str();
}

bool scoped_root::exists(const std::string& device_path) const {
    return fs::exists(host_path(device_path));
}

std::vector<host::log_line> log_lines_containing(const std::string& needle) {
    std::vector<host::log_line> found;
    for (const host::log_line& line : host::captured_log()) {
        if (line.text.find(needle) != std::string::npos) found.push_back(line);
    }
    return found;
}

std::vector<host::log_line> log_lines_containing(const std::string& needle, int priority) {
    std::vector<host::log_line> found = log_lines_containing(needle);
    found.erase(std::remove_if(found.begin(), found.end(),
                               [priority](const host::log_line& line) { return line.priority != priority; }),
                found.end());
    return found;
}

bool log_contains(const std::string& needle) { return !log_lines_containing(needle).empty(); }

bool log_contains(const std::string& needle, int priority) {
    return !log_lines_containing(needle, priority).empty();
}

}  // namespace test
}  // namespace kivhal
