#pragma once

// Collects what a connection hands to one sensor's event callback, from
// whichever thread delivers it.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
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

    tav_event_cb callback() {
        return [this](const uint8_t* data, uint32_t length, uint64_t timestamp) {
            std::lock_guard<std::mutex> lock(_mutex);
            _events.push_back({std::string(reinterpret_cast<const char*>(data), length), timestamp});
            _changed.notify_all();
        };
    }

    bool wait_for(size_t count, std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(_mutex);
        return _changed.wait_for(lock, timeout, [&] { return _events.size() >= count; });
    }

    std::vector<event> events() const {
        std::lock_guard<std::mutex> lock(_mutex);
        return _events;
    }

private:
    mutable std::mutex _mutex;
    std::condition_variable _changed;
    std::vector<event> _events;
};

}  // namespace test
}  // namespace kivhal
