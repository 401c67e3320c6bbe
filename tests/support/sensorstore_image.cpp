#include "sensorstore_image.h"

namespace kivhal {
namespace test {

uint32_t sensorstore_image::channel_hash(const std::string& channel_name) {
    // Written out independently of the library: seed + sum of i * name[i],
    // over at most 255 characters.
    uint32_t hash = 0x1234;
    for (size_t i = 0; i < (channel_name.size() & 0xff); ++i) {
        hash += static_cast<uint32_t>(i) * static_cast<uint8_t>(channel_name[i]);
    }
    return hash;
}

void sensorstore_image::write(const scoped_root& root) const {
    write_partition(root, *this);
}

void write_partition(const scoped_root& root, const ::sensorstore_image& partition, size_t size) {
    std::vector<uint8_t> image = partition.bytes();
    if (image.size() < size) image.resize(size, 0);
    root.write_file(kSensorStorePartition, std::string(image.begin(), image.end()));
}

std::vector<uint8_t> make_stored_packet(uint16_t msg_id, uint16_t pkt_len) {
    std::vector<uint8_t> packet(pkt_len);
    for (size_t i = 6; i < packet.size(); ++i) packet[i] = static_cast<uint8_t>(i);
    packet[0] = static_cast<uint8_t>(msg_id);
    packet[1] = static_cast<uint8_t>(msg_id >> 8);
    packet[2] = 1;
    packet[4] = static_cast<uint8_t>(pkt_len);
    packet[5] = static_cast<uint8_t>(pkt_len >> 8);
    return packet;
}

}  // namespace test
}  // namespace kivhal
