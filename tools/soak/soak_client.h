#pragma once

// The library's client in the soak: looks sensors up through the lookup
// service, streams some of them, disables and re-registers them in turn, and
// counts what is delivered.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "kiv_thread_annotations.h"
#include "tav_ducto.h"

namespace kivhal {
namespace tools {

class soak_client {
  public:
    // Connects on `channel`; throws ducto_error.
    explicit soak_client(const std::string& channel);

    // Looks every type up; `streamed` are registered and enabled, `replay_only`
    // get callbacks and no request (they only receive what a write-info
    // replays). Throws tool_error when a type is not found.
    void start(const std::vector<std::string>& streamed,
               const std::vector<std::string>& replay_only);
    // Disables the next streamed sensor, waits until its registration is gone,
    // then registers and enables it again: nothing is lost by design.
    void cycle();
    // Disables every stream and waits until each registration is gone: the
    // core answers a disable after the sensor's last report, so every report
    // sent has been delivered by then.
    void stop();
    void disconnect() { _conn.reset(); }

    uint64_t delivered() const { return _delivered; }
    uint64_t replayed() const { return _replayed; }

  private:
    void look_up(const std::vector<std::string>& types);
    void on_lookup_event(const uint8_t* data, uint32_t len);
    sensor_uid found(const std::string& type);
    void register_sensor(sensor_uid suid, std::atomic<uint64_t>* counter);
    void send(sensor_uid suid, uint32_t msg_id, const std::string& payload = "");
    void disable_and_wait(sensor_uid suid);

    std::atomic<uint64_t> _delivered{0};
    std::atomic<uint64_t> _replayed{0};
    kivhal::mutex _mutex;
    std::condition_variable _answered;
    std::map<std::string, sensor_uid> _found GUARDED_BY(_mutex);
    std::vector<sensor_uid> _streams;
    size_t _next = 0;
    // Last: destroyed first, so no callback outlives what it counts into.
    std::unique_ptr<tav_ducto> _conn;
};

}  // namespace tools
}  // namespace kivhal
