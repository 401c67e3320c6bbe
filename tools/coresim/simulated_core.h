#pragma once

// A sensor core in a process, built on the test stand-in: the stand-in owns
// the socket and records requests; this class answers them the way a core
// does and adds the timed behaviour (delays, restarts, low-power messages,
// streams of reports).

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "core_stub.h"

namespace kivhal {
namespace tools {

// One low-power-state indication, sent `after` a connection came up.
struct low_power_event {
    std::chrono::milliseconds after{0};
    uint8_t msg_id = 0;  // 0 off, 1 on
    uint8_t session = 0;
};

struct coresim_options {
    std::string channel = "sensors";
    std::vector<std::string> sensor_types;  // offered in this order
    std::chrono::milliseconds delay{0};     // every answer, responses included
    std::set<std::string> silent_types;     // lookups answered, never with an event
    bool registry_down = false;
    std::chrono::seconds restart_after{0};  // 0: never close the channel
    std::vector<low_power_event> low_power;
    bool write_info = false;
    std::chrono::milliseconds write_info_after{0};
    std::string partition_path;                    // host path of the sensorstore image
    std::chrono::milliseconds report_period{200};  // 0: as fast as the channel takes them
    std::chrono::milliseconds repeat_every{0};  // 0: low-power and write-info once per connection
    bool verbose = false;
};

class simulated_core {
  public:
    // Listens at once; throws std::runtime_error when it cannot.
    explicit simulated_core(coresim_options options);
    ~simulated_core();
    simulated_core(const simulated_core&) = delete;
    simulated_core& operator=(const simulated_core&) = delete;

    const std::string& socket_path() const { return _core.socket_path(); }
    size_t sensor_count() const { return _sensors.size(); }
    // Streamed reports the channel accepted.
    uint64_t reports_sent() const { return _reports_sent; }

  private:
    struct sensor {
        std::string type;
        sensor_uid suid;
        int64_t stream_type;
    };

    void handle_requests();
    void handle(const test::recorded_request& request);
    std::string answer_lookup(const test::recorded_request& request,
                              std::vector<std::vector<uint8_t>>& packets);
    std::string answer_sensor(const test::recorded_request& request,
                              std::vector<std::vector<uint8_t>>& packets);
    // Answers for connection number `connection` (0: the current one).
    void send(std::vector<std::vector<uint8_t>> packets, size_t connection = 0);
    void stream_reports();
    // One report per stream; false when none went out.
    bool stream_round();
    void watch_connection();
    void on_connected();
    void schedule_indications();
    // Writes the image and returns the bytes a write-info message counts: the
    // stored area without the partition header.
    uint32_t write_sensorstore_image() const;
    const sensor* find(sensor_uid suid) const;
    const sensor* find(const std::string& type) const;
    void say(const std::string& line) const;

    coresim_options _options;
    std::vector<sensor> _sensors;
    test::core_stub _core;
    const std::chrono::steady_clock::time_point _start = std::chrono::steady_clock::now();

    std::atomic<bool> _stopping{false};
    // Held while reports go out and while a disable request is answered, so
    // no report follows the answer to a disable.
    kivhal::mutex _stream_mutex;
    std::map<std::pair<uint64_t, uint64_t>, std::chrono::steady_clock::time_point> _streams
        GUARDED_BY(_stream_mutex);
    uint32_t _report_count GUARDED_BY(_stream_mutex) = 0;
    std::atomic<uint64_t> _reports_sent{0};
    // Set while a request is handled: a stream at full speed would otherwise
    // retake the stream lock (and the channel) before the request thread.
    std::atomic<bool> _request_waiting{false};
    std::atomic<uint32_t> _write_info_total{0};  // of the image written for this connection

    std::thread _requests_thread;
    std::thread _stream_thread;
    std::thread _connection_thread;
};

// The sensor types an OEM configuration names: those of its data types, then
// those of its exercises, each once, in file order. Throws usage_error.
std::vector<std::string> sensor_types_of_config(const std::string& path);

}  // namespace tools
}  // namespace kivhal
