#pragma once

// Reads a capture written by the library (persist.vendor.debug.kiv.capture):
// one pcapng section with the channel and sensorstore interfaces. Every read
// is bounded by the file; anything else is refused as not a capture.

#include <cstdint>
#include <string>
#include <vector>

namespace kivhal {
namespace tools {

// A capture rotates at 16 MiB; one record may end past that.
constexpr uint64_t kMaxCaptureFileSize = 32 * 1024 * 1024;

struct capture_record {
    size_t frame = 0;          // 1-based position in the file, as Wireshark numbers it
    bool sensorstore = false;  // a partition record, not a channel packet
    bool outbound = false;     // written by the library
    uint64_t timestamp_ns = 0;
    std::string channel;  // of a channel packet: its interface's channel
    uint8_t reason = 0;   // a kivhal::connection::capture_reason: why it was dropped
    std::vector<uint8_t> bytes;
};

struct capture {
    std::string channel;                  // the first channel interface's channel
    size_t channel_interfaces = 0;        // one per connection that captured
    uint64_t dropped = 0;                 // the interfaces' isb_ifdrop, summed
    std::vector<capture_record> records;  // in time order (file order among equals)
    bool cut_short = false;               // the last block was incomplete
};

// Throws usage_error ("... is not a capture of the library: ...") when `data`
// is not one.
capture parse_capture(const std::string& name, const uint8_t* data, size_t size);
// The file at `path`, checked as a regular file of at most kMaxCaptureFileSize.
capture read_capture(const std::string& path);

}  // namespace tools
}  // namespace kivhal
