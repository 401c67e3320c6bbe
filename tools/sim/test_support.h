#pragma once

// Helpers shared by the tests, benchmarks and tools.

#include <android-base/file.h>
#include <android/log.h>

#include <chrono>
#include <functional>
#include <optional>
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

    std::string path() const { return _dir.path; }
    // Absolute host path of a device path such as "/sys/power/wake_lock".
    std::string host_path(const std::string& device_path) const { return path() + device_path; }
    // Creates the parent directories and writes `contents`; throws when it cannot.
    void write_file(const std::string& device_path, const std::string& contents) const;
    // Throws when the file cannot be read: a file never written is no empty one.
    std::string read_file(const std::string& device_path) const;
    bool exists(const std::string& device_path) const;

  private:
    TemporaryDir _dir;
    std::optional<std::string> _previous_root;
};

// Captured log lines whose text contains `needle`; with a priority, only the
// lines written at that Android log priority.
std::vector<host::log_line> log_lines_containing(const std::string& needle, int priority = -1);
inline bool log_contains(const std::string& needle, int priority = -1) {
    return !log_lines_containing(needle, priority).empty();
}

// Polls `condition` until it holds or `timeout` passes.
bool eventually(const std::function<bool()>& condition,
                std::chrono::milliseconds timeout = std::chrono::seconds(5));

}  // namespace test
}  // namespace kivhal
