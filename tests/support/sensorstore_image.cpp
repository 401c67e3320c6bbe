#include "sensorstore_image.h"

#include <stdexcept>

namespace kivhal {
namespace test {
namespace {

constexpr uint32_t kHeaderLen = 8;
constexpr uint32_t kHashSeed = 0x1234;

void append_le32(std::vector<uint8_t>& out, uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) out.push_back(static_cast<uint8_t>(value >> shift));
}

uint32_t load_le32(const std::string& bytes, size_t offset) {
    uint32_t value = 0;
    for (size_t i = 4; i-- > 0;) value = (value << 8) | static_cast<uint8_t>(bytes[offset + i]);
    return value;
}

}  // namespace

uint32_t sensorstore_image::channel_hash(const std::string& channel_name) {
    // Written out independently of the library: seed + sum of i * name[i],
    // over at most 255 characters.
    uint32_t hash = kHashSeed;
    for (size_t i = 0; i < (channel_name.size() & 0xff); ++i) {
        hash += static_cast<uint32_t>(i) * static_cast<uint8_t>(channel_name[i]);
    }
    return hash;
}

sensorstore_image& sensorstore_image::add_record(uint32_t hash, const std::vector<uint8_t>& packet) {
    append_le32(_records, hash);
    return add_raw(packet);
}

sensorstore_image& sensorstore_image::add_raw(const std::vector<uint8_t>& bytes) {
    _records.insert(_records.end(), bytes.begin(), bytes.end());
    return *this;
}

uint32_t sensorstore_image::area_len() const {
    return kHeaderLen + static_cast<uint32_t>(_records.size());
}

std::vector<uint8_t> sensorstore_image::bytes() const {
    std::vector<uint8_t> out;
    append_le32(out, _data_len.value_or(area_len()));
    append_le32(out, _reset_data_len);
    out.insert(out.end(), _records.begin(), _records.end());
    return out;
}

void sensorstore_image::write(const scoped_root& root, size_t size) const {
    std::vector<uint8_t> image = bytes();
    if (image.size() < size) image.resize(size, 0);
    root.write_file(kSensorStorePartition, std::string(image.begin(), image.end()));
}

std::vector<uint8_t> make_stored_packet(uint16_t msg_id, uint16_t pkt_len) {
    if (pkt_len < 6) throw std::invalid_argument("a packet holds at least its 6-byte head");
    std::vector<uint8_t> packet(pkt_len);
    for (size_t i = 6; i < packet.size(); ++i) packet[i] = static_cast<uint8_t>(i);
    packet[0] = static_cast<uint8_t>(msg_id);
    packet[1] = static_cast<uint8_t>(msg_id >> 8);
    packet[2] = 1;
    packet[4] = static_cast<uint8_t>(pkt_len);
    packet[5] = static_cast<uint8_t>(pkt_len >> 8);
    return packet;
}

sensorstore_header read_sensorstore_header(const scoped_root& root) {
    const std::string bytes = root.read_file(kSensorStorePartition);
    if (bytes.size() < kHeaderLen) throw std::runtime_error("partition shorter than its header");
    return {load_le32(bytes, 0), load_le32(bytes, 4)};
}

}  // namespace test
}  // namespace kivhal
