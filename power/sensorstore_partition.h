#pragma once

// Layout of the sensorstore partition and the bounded pieces the connection
// uses to read it. The partition is written by the sensor core and trusted by
// nothing here: every read is checked against what is mapped.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <type_traits>
#include <vector>

constexpr char SNS_SENSORSTORE_PARTITION[] = "/dev/block/bootdevice/by-name/sensorstore";

// Bytes the core has written (header included), and the field this library
// sets to 1 once it has consumed them.
struct __attribute__((packed)) sns_sensorstore_hdr {
    uint32_t data_len;
    uint32_t reset_data_len;
};
constexpr uint32_t SNS_SENSORSTORE_HDR_LEN = sizeof(sns_sensorstore_hdr);
constexpr uint32_t SNS_SENSORSTORE_RESET_DONE = 1;

// Each record: the channel hash, then one channel packet, whose head holds the
// message id and the packet's whole length.
constexpr uint32_t SNS_SENSORSTORE_RECORD_HASH_LEN = sizeof(uint32_t);
constexpr size_t SNS_SENSORSTORE_PKT_MSG_ID_OFFSET = 0;
constexpr size_t SNS_SENSORSTORE_PKT_LEN_OFFSET = 4;
constexpr size_t SNS_SENSORSTORE_PKT_HEAD_LEN = 6;
constexpr uint32_t SNS_SENSORSTORE_CHANNEL_HASH_SEED = 0x1234;

constexpr int MAX_SENSORSTORE_WRITE_RETRIES = 10;
constexpr unsigned int SNS_SENSORSTORE_WRITE_RETRY_US = 50000;

// Seed plus i * name[i] over the first `len` characters up to a NUL; the
// first character never counts.
uint32_t sensorstore_channel_hash(const char* name, uint8_t len);

// Size of the partition behind `fd`, or -1 when it cannot be told.
off_t sensorstore_partition_size(int fd);

// Owns a descriptor of the partition. close() reports the result so the
// caller can log it; the destructor closes silently on early exits.
class sensorstore_fd {
  public:
    explicit sensorstore_fd(int fd) : _fd(fd) {}
    ~sensorstore_fd();
    sensorstore_fd(const sensorstore_fd&) = delete;
    sensorstore_fd& operator=(const sensorstore_fd&) = delete;

    int get() const { return _fd; }
    // 0 or -1 with errno, as close(2).
    int close();

  private:
    int _fd;
};

// A shared read-write mapping of the partition's first bytes.
class sensorstore_mapping {
  public:
    sensorstore_mapping(int fd, size_t size);
    ~sensorstore_mapping();
    sensorstore_mapping(const sensorstore_mapping&) = delete;
    sensorstore_mapping& operator=(const sensorstore_mapping&) = delete;

    bool valid() const { return _base != nullptr; }
    uint8_t* data() const { return _base; }
    size_t size() const { return _size; }
    // 0 or -1 with errno, as munmap(2).
    int unmap();

  private:
    uint8_t* _base;
    size_t _size;
};

// One stored record as found at `offset`.
struct sensorstore_record {
    uint32_t channel_hash;
    uint16_t msg_id;
    uint16_t pkt_len;
    const uint8_t* packet;
    size_t packet_readable;  // bytes from the packet's start to the end of what may be read
};

enum class sensorstore_record_status {
    ok,
    head_out_of_bounds,    // the hash or the packet head is not readable
    packet_too_short,      // the length does not even cover the packet head
    packet_out_of_bounds,  // the packet runs past what may be read
};

// Reads the record at `offset` of an area of which `readable` bytes may be
// read. Never reads outside them; any thread.
sensorstore_record_status read_sensorstore_record(const uint8_t* area, size_t readable,
                                                  uint32_t offset, sensorstore_record* record);

// Copies `out_len` bytes from the record's packet start, as far as they are
// readable, and zeroes the rest of `out`. Any thread.
void copy_sensorstore_packet(const sensorstore_record& record, uint8_t* out, size_t out_len);

// Borrows a callable for one walk: no copy, no allocation. `own` tells whether
// the record carries the walk's channel hash.
class sensorstore_record_sink {
  public:
    template <typename F>
    sensorstore_record_sink(F&& f)  // NOLINT(google-explicit-constructor): passed as a lambda
        : _target(const_cast<void*>(static_cast<const void*>(&f))),
          _call([](void* target, const sensorstore_record& record, bool own) {
              (*static_cast<std::remove_reference_t<F>*>(target))(record, own);
          }) {}
    void operator()(const sensorstore_record& r, bool own) const { _call(_target, r, own); }

  private:
    void* _target;
    void (*_call)(void*, const sensorstore_record&, bool);
};

// How a walk ended: at `end`, with `status` ok when every record read whole,
// else why the record at `end` stopped it. `last` is the last record read (as
// far as it could be read).
struct sensorstore_walk {
    uint32_t end;
    sensorstore_record_status status;
    sensorstore_record last;
};

// Walks the records of a mapped partition from behind its header: at least
// one, and on while the offset is below `data_len`, of which `readable` bytes
// may be read. Hands each whole record to `sink` in order and stops at the
// first that is not. Ends the process when the offset overflows 32 bits (the
// header lies). Any thread; allocates nothing.
sensorstore_walk walk_sensorstore(const uint8_t* area, size_t readable, uint32_t data_len,
                                  uint32_t channel_hash, sensorstore_record_sink sink);

// Builds partition images for the tools that stand in for the core, and for
// tests: the header (data_len covers all that is appended unless set), then
// the records. Throws std::bad_alloc only.
class sensorstore_image {
  public:
    explicit sensorstore_image(uint32_t reset_data_len = 0) : _reset(reset_data_len) {}
    sensorstore_image& add_record(uint32_t channel_hash, const std::vector<uint8_t>& packet);
    // Bytes as they are, to make malformed areas.
    sensorstore_image& add_raw(const std::vector<uint8_t>& bytes);
    sensorstore_image& set_data_len(uint32_t data_len) {
        _data_len = data_len;
        return *this;
    }
    // Header plus records: the area a write-info message reports.
    uint32_t area_len() const { return static_cast<uint32_t>(_bytes.size()); }
    std::vector<uint8_t> bytes() const;

  private:
    std::vector<uint8_t> _bytes = std::vector<uint8_t>(SNS_SENSORSTORE_HDR_LEN);
    std::optional<uint32_t> _data_len;
    uint32_t _reset;
};
