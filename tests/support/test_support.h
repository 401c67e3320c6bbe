#pragma once

// Helpers shared by the tests, benchmarks and tools.

#include <android/log.h>

#include <string>
#include <vector>

#include "kivhal/host.h"

namespace kivhal {
namespace test {

// A fresh directory that stands in for the device's root filesystem while it
// lives: $KIVHAL_ROOT points at it, and it is removed with its contents.
class scoped_root {
public:
    scoped_root();
    ~scoped_root();
    scoped_root(const scoped_root&) = delete;
    scoped_root& operator=(const scoped_root&) = delete;

    const std::string& path() const { return _path; }
    // Absolute host path of a device path such as "/sys/power/wake_lock".
    std::string host_path(const std::string& device_path) const;
    // Creates the parent directories and writes `contents`.
    void write_file(const std::string& device_path, const std::string& contents) const;
    std::string read_file(const std::string& device_path) const;
    bool exists(const std::string& device_path) const;

private:
    std::string _path;
    std::string _previous_root;
    bool _had_previous_root;
};

// Captured log lines whose text contains `needle`; with a priority, only the
// lines written at that Android log priority, so a line moved to another
// level no longer counts.
std::vector<host::log_line> log_lines_containing(const std::string& needle);
std::vector<host::log_line> log_lines_containing(const std::string& needle, int priority);
bool log_contains(const std::string& needle);
bool log_contains(const std::string& needle, int priority);

}  // namespace test
}  // namespace kivhal
