#include "delayed_sender.h"

namespace kivhal {
namespace tools {

delayed_sender::delayed_sender(test::core_stub& core) : _core(core) {
    _thread = std::thread(&delayed_sender::run, this);
}

delayed_sender::~delayed_sender() {
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _stopping = true;
    }
    _changed.notify_all();
    _thread.join();
}

void delayed_sender::send_after(std::chrono::milliseconds delay, std::vector<uint8_t> packet) {
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _queue.emplace(std::chrono::steady_clock::now() + delay, std::move(packet));
    }
    _changed.notify_all();
}

void delayed_sender::run() {
    std::unique_lock<std::mutex> lock(_mutex);
    while (!_stopping) {
        if (_queue.empty()) {
            _changed.wait(lock);
            continue;
        }
        const auto due = _queue.begin()->first;  // a copy: the map may change while waiting
        if (due > std::chrono::steady_clock::now()) {
            _changed.wait_until(lock, due);
            continue;
        }
        std::vector<uint8_t> packet = std::move(_queue.begin()->second);
        _queue.erase(_queue.begin());
        lock.unlock();
        _core.send_packet(packet);
        lock.lock();
    }
}

}  // namespace tools
}  // namespace kivhal
