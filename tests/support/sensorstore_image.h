#pragma once

// Builds sensorstore partition images: the 8-byte header, then records of a
// channel hash and one channel packet each.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "test_support.h"

namespace kivhal {
namespace test {

class sensorstore_image {
  public:
    // The channel hash a connection on `channel_name` looks for.
    static uint32_t channel_hash(const std::string& channel_name);

    sensorstore_image& add_record(uint32_t channel_hash, const std::vector<uint8_t>& packet);
    // Bytes appended as they are, to make malformed areas.
    sensorstore_image& add_raw(const std::vector<uint8_t>& bytes);
    // Header fields; data_len defaults to the header plus everything added.
    sensorstore_image& set_data_len(uint32_t data_len) {
        _data_len = data_len;
        return *this;
    }
    sensorstore_image& set_reset_data_len(uint32_t reset_data_len) {
        _reset_data_len = reset_data_len;
        return *this;
    }

    // Header plus records; the area the write-info message reports.
    uint32_t area_len() const;
    std::vector<uint8_t> bytes() const;
    // Writes the image as the partition under `root`, zero-padded to `size`
    // bytes when that is larger.
    void write(const scoped_root& root, size_t size = 0) const;

  private:
    std::vector<uint8_t> _records;
    std::optional<uint32_t> _data_len;
    uint32_t _reset_data_len = 0;
};

// A channel packet of `pkt_len` bytes with the given id; the body is filled
// with a running byte pattern.
std::vector<uint8_t> make_stored_packet(uint16_t msg_id, uint16_t pkt_len);

// The partition's header as it is on disk under `root`.
struct sensorstore_header {
    uint32_t data_len;
    uint32_t reset_data_len;
};
sensorstore_header read_sensorstore_header(const scoped_root& root);

constexpr char kSensorStorePartition[] = "/dev/block/bootdevice/by-name/sensorstore";

}  // namespace test
}  // namespace kivhal
