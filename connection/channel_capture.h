#pragma once

// A packet log of the channel in pcapng, switched on by a debug property, so a
// field session can be read in Wireshark and replayed by kivhal-coresim.
//
// One file per process: the capture sink. Interface 0 holds the sensorstore
// records the library walked (LINKTYPE_USER1: the 4-byte channel hash, then
// the stored packet; an 8-byte record is the partition header); every
// connection adds an interface of its own (LINKTYPE_USER0) named after its
// channel. Timestamps are nanoseconds since boot, the clock the report
// callbacks get; each interface's if_tsoffset turns them into dates.
//
// Recording copies the record into a preallocated ring under one mutex and
// takes its timestamp there, so the file is in timestamp order across
// threads; an outbound packet is reserved with its send time before the
// channel write and committed after it, so it precedes its answer. A writer
// thread, alive while capture is on, writes the ring out at 64 KiB or a
// second after the first record it has not written. A full ring drops the
// record and counts it (the dump; isb_ifdrop when the file ends).
//
// Capture never fails the library: a refused path or a failed write is one
// error line and capture off; a failed write is cut back to the last whole
// block. The file holds health data: mode 0600, owned by this process's user,
// never anything but a regular file with one link.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace kivhal {
namespace connection {

// Debug property naming the capture file; unset or empty: no capture.
constexpr char kCaptureProperty[] = "persist.vendor.debug.kiv.capture";
// At this size the file becomes <path>.1 (replacing an older one) and a new
// file starts.
constexpr uint64_t kCaptureRotateBytes = 16u * 1024 * 1024;
// The ring the recording threads copy into (a power of two), and the fill at
// which the writer is woken.
constexpr size_t kCaptureBufferBytes = 1024 * 1024;
constexpr size_t kCaptureFlushBytes = 64 * 1024;

// pcapng constants shared with the replaying reader.
constexpr uint32_t kPcapngSectionHeader = 0x0A0D0D0A;
constexpr uint32_t kPcapngInterfaceDescription = 1;
constexpr uint32_t kPcapngInterfaceStatistics = 5;
constexpr uint32_t kPcapngEnhancedPacket = 6;
constexpr uint32_t kPcapngByteOrderMagic = 0x1A2B3C4D;
constexpr uint16_t kLinktypeChannel = 147;      // LINKTYPE_USER0
constexpr uint16_t kLinktypeSensorstore = 148;  // LINKTYPE_USER1
constexpr uint32_t kEpbFlagsInbound = 1;        // epb_flags direction bits
constexpr uint32_t kEpbFlagsOutbound = 2;
// Why the library dropped an inbound packet (or did not send an outbound
// one): a capture_reason in the link-layer-dependent bits of epb_flags, and
// its text as the packet's comment.
constexpr uint32_t kEpbReasonShift = 16;
constexpr uint32_t kEpbReasonMask = 0xff;
constexpr size_t kSensorstoreHeaderRecordLen = 8;

enum class capture_reason : uint8_t {
    none = 0,
    length_past_buffer = 1,  // its length field is larger than the packet buffer
    short_packet = 2,        // fewer bytes came than its length field says
    short_report = 3,        // a report without its payload length
    payload_past_read = 4,   // a report whose payload runs past the bytes read
    unknown_msg_id = 5,      // a message id the library does not handle
    write_failed = 6,        // outbound: the channel write failed, not sent
};
// "dropped: ..." (or "not sent: ..."); "" for none.
const char* capture_reason_text(capture_reason reason);

class capture_sink;

// One connection's interface in the process's capture. Every operation may
// be called from any thread; none throws.
class channel_capture {
  public:
    // The capture the property asks for, or null (unset, or refused with one
    // error line).
    static std::unique_ptr<channel_capture> from_property(const std::string& channel_name);
    // Joins (or starts) the sink writing `path` (as given: it is no
    // compiled-in path) with an interface for `channel_name`. Null with one
    // error line when the file is refused, or when the sink writes another
    // path. `buffer_bytes` must be a power of two.
    static std::unique_ptr<channel_capture> open(const std::string& path,
                                                 const std::string& channel_name,
                                                 uint64_t rotate_bytes = kCaptureRotateBytes,
                                                 size_t buffer_bytes = kCaptureBufferBytes);
    // The last interface to go writes out the ring and the statistics, closes
    // the file and joins the writer thread.
    ~channel_capture();
    channel_capture(const channel_capture&) = delete;
    channel_capture& operator=(const channel_capture&) = delete;

    // An inbound packet as read, with the reason it is dropped. No allocation,
    // no system call.
    void inbound(const uint8_t* data, size_t len, capture_reason reason = capture_reason::none);

    // An outbound packet, stamped now, before the channel write. The writer
    // holds every later record back until commit_outbound: call it exactly
    // once for every reservation, right after the write. No allocation, no
    // system call.
    struct reservation {
        uint64_t position;
        bool valid;
    };
    reservation reserve_outbound(const uint8_t* data, size_t len);
    void commit_outbound(reservation r, bool sent);

    // A sensorstore record, stamped now, on the sensorstore interface.
    void sensorstore_record(const uint8_t* data, size_t len);

    struct status {
        std::string path;
        bool on;
        uint32_t interface_id;
        uint64_t records;        // of this interface, taken into the ring
        uint64_t dropped;        // of this interface, the ring being full
        uint64_t file_writes;    // of the sink
        uint64_t pending_bytes;  // recorded, not yet in the file
        uint64_t all_dropped;    // of every interface
    };
    status get_status() const;

  private:
    friend class capture_sink;
    channel_capture(capture_sink* sink, uint32_t interface_id);
    capture_sink* const _sink;
    const uint32_t _interface;
};

// Writes out what is recorded and the statistics and closes the file;
// capture stays off for the rest of the process. For the hang-up path and
// exit() (registered with atexit when capture starts): callable from any
// thread while others record, idempotent, and never waits on anything but
// a file write in progress.
void finish_capture();

}  // namespace connection
}  // namespace kivhal
