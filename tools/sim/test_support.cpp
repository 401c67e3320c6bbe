#include "test_support.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <thread>

namespace kivhal {
namespace test {

scoped_root::scoped_root() {
    if (const char* previous = getenv("KIVHAL_ROOT")) _previous_root = previous;
    if (_dir.path[0] == '\0') throw std::runtime_error("cannot create a temporary directory");
    setenv("KIVHAL_ROOT", _dir.path, 1);
}

scoped_root::~scoped_root() {
    if (_previous_root) {
        setenv("KIVHAL_ROOT", _previous_root->c_str(), 1);
    } else {
        unsetenv("KIVHAL_ROOT");
    }
}

void scoped_root::write_file(const std::string& device_path, const std::string& contents) const {
    const std::string target = host_path(device_path);
    std::filesystem::create_directories(std::filesystem::path(target).parent_path());
    if (!android::base::WriteStringToFile(contents, target)) {
        throw std::runtime_error("cannot write " + target + ": " + strerror(errno));
    }
}

std::string scoped_root::read_file(const std::string& device_path) const {
    std::string contents;
    if (!android::base::ReadFileToString(host_path(device_path), &contents)) {
        throw std::runtime_error("cannot read " + host_path(device_path) + ": " + strerror(errno));
    }
    return contents;
}

bool scoped_root::exists(const std::string& device_path) const {
    return std::filesystem::exists(host_path(device_path));
}

std::vector<host::log_line> log_lines_containing(const std::string& needle, int priority) {
    std::vector<host::log_line> found;
    for (const host::log_line& line : host::captured_log()) {
        if (line.text.find(needle) != std::string::npos &&
            (priority < 0 || line.priority == priority)) {
            found.push_back(line);
        }
    }
    return found;
}

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

}  // namespace test
}  // namespace kivhal
