#pragma once

// Sends packets through the stand-in at a later time, in due order (equal
// times in the order given). The stand-in has its own timed sends, but its
// scheduler waits on a reference into a vector that a concurrent schedule
// may reallocate; the simulator schedules from several threads, so it keeps
// its own queue until that is fixed.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "core_stub.h"

namespace kivhal {
namespace tools {

class delayed_sender {
public:
    explicit delayed_sender(test::core_stub& core);
    ~delayed_sender();
    delayed_sender(const delayed_sender&) = delete;
    delayed_sender& operator=(const delayed_sender&) = delete;

    void send_after(std::chrono::milliseconds delay, std::vector<uint8_t> packet);

private:
    void run();

    test::core_stub& _core;
    std::mutex _mutex;
    std::condition_variable _changed;
    bool _stopping = false;
    std::multimap<std::chrono::steady_clock::time_point, std::vector<uint8_t>> _queue;
    std::thread _thread;
};

}  // namespace tools
}  // namespace kivhal
