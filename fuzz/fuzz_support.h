#pragma once

// Shared set-up of the fuzz targets: a private device root, the packet channel
// as one end of a socket pair, and small helpers for building inputs. Every
// target runs inputs one after another in one process, so whatever it sets up
// here lives for the whole run.

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "tav_ducto.h"

namespace kivhal {
namespace fuzz {

// Points $KIVHAL_ROOT at a fresh temporary directory holding what the device
// has and the library never creates (wake-lock files, persist and partition
// directories). Removed at exit.
const std::string& device_root();
// Host path of a device path under device_root().
std::string host_path(const std::string& device_path);
// Writes `size` bytes to the device path, replacing it.
void write_device_file(const std::string& device_path, const uint8_t* data, size_t size);

// Ends an input: drops the log lines it left in the host's capture, so that
// every input frees what it allocated and libFuzzer's per-input leak check
// stays quiet unless something really leaks.
void end_input();

// Log level for the run: "KIVHAL_FUZZ_LOG_LEVEL" (0 silent .. 4 verbose),
// verbose by default so that every log statement's format is exercised.
void set_log_level_from_environment();

// A connection whose channel is one end of a SOCK_SEQPACKET pair; peer_fd()
// is the sensor core's end. Created once and kept for the process's life: a
// target that deleted it would only test teardown.
class channel_pair {
  public:
    static channel_pair& instance();
    tav_ducto& connection() { return *_conn; }
    int peer_fd() const { return _peer_fd; }

    // While the peer writes a stream, a read that finds no packet waits for
    // the next one instead of failing with EAGAIN, so a packet split over
    // several writes is read the same way however the threads interleave.
    void begin_stream() { _streaming.store(true); }
    void end_stream() { _streaming.store(false); }

  private:
    channel_pair();
    ssize_t read_channel(int fd, void* buf, size_t len);

    int _peer_fd = -1;
    std::atomic<bool> _streaming{false};
    tav_ducto* _conn = nullptr;
};

// Reads little-endian values from a fuzz input; past the end it yields zeros.
class input_reader {
  public:
    input_reader(const uint8_t* data, size_t size) : _data(data), _size(size) {}
    size_t remaining() const { return _size - _offset; }
    uint8_t u8();
    uint16_t u16();
    uint32_t u32();
    // Up to `count` bytes, fewer at the end of the input.
    std::string bytes(size_t count);
    std::string rest() { return bytes(remaining()); }

  private:
    const uint8_t* _data;
    size_t _size;
    size_t _offset = 0;
};

}  // namespace fuzz
}  // namespace kivhal
