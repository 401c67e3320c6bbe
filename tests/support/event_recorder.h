#pragma once

// Collects what a connection hands to one sensor's callbacks, from whichever
// thread delivers it. It must outlive the connection it is registered with.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "tav_interface.h"

namespace kivhal {
namespace test {

class event_recorder {
  public:
    struct event {
        std::string payload;
        uint64_t timestamp;
    };
    using response = std::pair<uint32_t, uint64_t>;  // result, client id

    tav_event_cb callback() {
        return [this](const uint8_t* data, uint32_t length, uint64_t timestamp) {
            record([&] {
                _events.push_back(
                    {std::string(reinterpret_cast<const char*>(data), length), timestamp});
            });
        };
    }
    tav_resp_cb response_callback() {
        return [this](uint32_t result, uint64_t client_id) {
            record([&] { _responses.emplace_back(result, client_id); });
        };
    }
    // At least `count` events (or responses) within two seconds.
    bool wait_for(size_t count) {
        return wait([&] { return _events.size() >= count; });
    }
    bool wait_responses(size_t count) {
        return wait([&] { return _responses.size() >= count; });
    }

    std::vector<event> events() const {
        std::lock_guard<std::mutex> lock(_mutex);
        return _events;
    }
    std::vector<std::string> payloads() const {
        std::lock_guard<std::mutex> lock(_mutex);
        std::vector<std::string> out;
        for (const event& e : _events) out.push_back(e.payload);
        return out;
    }
    std::vector<response> responses() const {
        std::lock_guard<std::mutex> lock(_mutex);
        return _responses;
    }

  private:
    template <typename F>
    void record(F add) {
        std::lock_guard<std::mutex> lock(_mutex);
        add();
        _changed.notify_all();
    }
    template <typename F>
    bool wait(F done) {
        std::unique_lock<std::mutex> lock(_mutex);
        return _changed.wait_for(lock, std::chrono::seconds(2), done);
    }

    mutable std::mutex _mutex;
    std::condition_variable _changed;
    std::vector<event> _events;
    std::vector<response> _responses;
};

}  // namespace test
}  // namespace kivhal
