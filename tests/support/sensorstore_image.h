#pragma once

// The library's partition images, written under a test root.

#include <string>
#include <vector>

#include "sensorstore_partition.h"
#include "test_support.h"

namespace kivhal {
namespace test {

class sensorstore_image : public ::sensorstore_image {
  public:
    // The channel hash a connection on `channel_name` looks for.
    static uint32_t channel_hash(const std::string& channel_name);
    void write(const scoped_root& root) const;
};

// Writes `image` as the partition under `root`, zero-padded to `size` bytes
// when that is larger.
void write_partition(const scoped_root& root, const ::sensorstore_image& image, size_t size = 0);

// A channel packet of `pkt_len` (at least 6) bytes with the given id; the body is filled
// with a running byte pattern.
std::vector<uint8_t> make_stored_packet(uint16_t msg_id, uint16_t pkt_len);

constexpr const char* kSensorStorePartition = SNS_SENSORSTORE_PARTITION;

}  // namespace test
}  // namespace kivhal
