#pragma once

// Tells the user what discovery is waiting for while it runs (it can take
// seconds) and, on a host, prints the library's log lines at the chosen level.

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

#include "kiv_log.h"
#include "kiv_thread_annotations.h"

namespace kivhal {
namespace tools {

// The progress text a library log line stands for, or "" when it marks no
// step of discovery.
std::string describe_discovery_step(const std::string& log_text);

class discovery_monitor {
  public:
    // Sets the library's log level; lines at or above `print_level` go to `out`.
    discovery_monitor(kiv_log::log_level print_level, bool progress, FILE* out);
    ~discovery_monitor();
    discovery_monitor(const discovery_monitor&) = delete;
    discovery_monitor& operator=(const discovery_monitor&) = delete;

    // Stops the thread after a last pass over the log; returns the seconds
    // since construction.
    double stop();
    double elapsed() const;

  private:
    void run();
    void drain_log();

    const kiv_log::log_level _print_level;
    const bool _progress;
    FILE* const _out;
    const std::chrono::steady_clock::time_point _start = std::chrono::steady_clock::now();
    // The monitor's thread only, and stop() after joining it.
    std::string _step = "connecting to the sensor core";
    size_t _lines_seen = 0;

    kivhal::mutex _mutex;
    std::condition_variable _wake;
    bool _stopping GUARDED_BY(_mutex) = false;
    std::thread _thread;
};

}  // namespace tools
}  // namespace kivhal
