#pragma once

// A packet log of the channel in pcapng, switched on by a debug property, so a
// field session can be read in Wireshark and replayed by kivhal-coresim.
//
// One section per file: interface 0 is the channel (LINKTYPE_USER0), interface
// 1 the sensorstore records the library walked (LINKTYPE_USER1: the 4-byte
// channel hash, then the stored packet; an 8-byte record is the partition
// header). Timestamps are nanoseconds since boot, the clock the report
// callbacks get. Outbound packets carry their send time (taken before the
// write), inbound ones their arrival time, so ordering by time puts every
// response after its request even when the reader logs it first.
//
// Capture never fails the library: a refused path or a failed write is one
// error line and capture off. The file holds health data: mode 0600, owned
// by this process's user, never anything but a regular file.

#include <android-base/unique_fd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "kiv_thread_annotations.h"

namespace kivhal {
namespace connection {

// Debug property naming the capture file; unset or empty: no capture.
constexpr char kCaptureProperty[] = "persist.vendor.debug.kiv.capture";
// At this size the file becomes <path>.1 (replacing an older one) and a new
// file starts.
constexpr uint64_t kCaptureRotateBytes = 16u * 1024 * 1024;

// pcapng constants shared with the replaying reader.
constexpr uint32_t kPcapngSectionHeader = 0x0A0D0D0A;
constexpr uint32_t kPcapngInterfaceDescription = 1;
constexpr uint32_t kPcapngEnhancedPacket = 6;
constexpr uint32_t kPcapngByteOrderMagic = 0x1A2B3C4D;
constexpr uint16_t kLinktypeChannel = 147;      // LINKTYPE_USER0
constexpr uint16_t kLinktypeSensorstore = 148;  // LINKTYPE_USER1
constexpr uint32_t kEpbFlagsInbound = 1;         // epb_flags direction bits
constexpr uint32_t kEpbFlagsOutbound = 2;
constexpr size_t kSensorstoreHeaderRecordLen = 8;

enum class capture_interface : uint32_t { channel = 0, sensorstore = 1 };

class channel_capture {
public:
    // The capture the property asks for, or null (unset, or refused with one
    // error line).
    static std::unique_ptr<channel_capture> from_property(const std::string& channel_name);
    // Opens `path` (as given: it is no compiled-in path) for `channel_name`.
    static std::unique_ptr<channel_capture> open(const std::string& path,
                                                 const std::string& channel_name,
                                                 uint64_t rotate_bytes = kCaptureRotateBytes);

    // One channel packet; no allocation, one writev.
    void channel_packet(uint32_t direction_flags, int64_t timestamp_ns, const uint8_t* data,
                        size_t len) EXCLUDES(_mutex);
    // One sensorstore record, stamped with the arrival of the packet being
    // handled (the write-info that made the library read the partition).
    void sensorstore_record(const uint8_t* data, size_t len) EXCLUDES(_mutex);

    struct status {
        std::string path;
        bool on;
        uint64_t records;
    };
    status get_status() const EXCLUDES(_mutex);

private:
    channel_capture(std::string path, const std::string& channel_name, uint64_t rotate_bytes);
    bool start_file(android::base::unique_fd fd) REQUIRES(_mutex);
    bool rotate() REQUIRES(_mutex);
    void append(capture_interface interface, uint32_t flags, int64_t timestamp_ns,
                const uint8_t* data, size_t len) REQUIRES(_mutex);
    void switch_off(const char* what, int error) REQUIRES(_mutex);

    const std::string _path;
    // Made once, so a rotation on the hot path allocates nothing.
    const std::string _rotated_path;
    const std::string _section_start;
    const uint64_t _rotate_bytes;
    // Tested before the lock, so a capture switched off costs no lock.
    std::atomic<bool> _on{false};
    mutable kivhal::mutex _mutex;
    android::base::unique_fd _fd GUARDED_BY(_mutex);
    uint64_t _file_bytes GUARDED_BY(_mutex) = 0;
    uint64_t _records GUARDED_BY(_mutex) = 0;
    int64_t _last_inbound_ns GUARDED_BY(_mutex) = 0;
};

}  // namespace connection
}  // namespace kivhal
