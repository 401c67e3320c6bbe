#include "sensorstore_partition.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

namespace {
template <typename T>
T load_le(const uint8_t* at) {
    T value;
    memcpy(&value, at, sizeof(value));
    return value;
}
}  // namespace

uint32_t sensorstore_channel_hash(const char* name, uint8_t len) {
    uint32_t hash = SNS_SENSORSTORE_CHANNEL_HASH_SEED;
    if (name == nullptr) return hash;
    for (uint32_t i = 0; i < len && name[i] != '\0'; ++i) {
        hash += i * static_cast<uint8_t>(name[i]);
    }
    return hash;
}

off_t sensorstore_partition_size(int fd) {
    // Works for block devices too, where fstat reports no size.
    const off_t position = lseek(fd, 0, SEEK_CUR);
    const off_t end = lseek(fd, 0, SEEK_END);
    if (position >= 0) lseek(fd, position, SEEK_SET);
    return end;
}

sensorstore_fd::~sensorstore_fd() {
    if (_fd >= 0) ::close(_fd);
}

int sensorstore_fd::close() {
    const int fd = _fd;
    _fd = -1;
    return ::close(fd);
}

sensorstore_mapping::sensorstore_mapping(int fd, size_t size) : _base(nullptr), _size(size) {
    void* base = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (base != MAP_FAILED) _base = static_cast<uint8_t*>(base);
}

sensorstore_mapping::~sensorstore_mapping() {
    if (_base != nullptr) munmap(_base, _size);
}

int sensorstore_mapping::unmap() {
    void* base = _base;
    _base = nullptr;
    return munmap(base, _size);
}

sensorstore_record_status read_sensorstore_record(const uint8_t* area, size_t readable,
                                                  uint32_t offset, sensorstore_record* record) {
    const size_t head_end =
        static_cast<size_t>(offset) + SNS_SENSORSTORE_RECORD_HASH_LEN + SNS_DUCTO_HEADER_LEN;
    if (offset >= readable || head_end > readable) {
        return sensorstore_record_status::head_out_of_bounds;
    }
    const uint8_t* packet = area + offset + SNS_SENSORSTORE_RECORD_HASH_LEN;
    record->channel_hash = load_le<uint32_t>(area + offset);
    record->msg_id = load_le<uint16_t>(packet + offsetof(sns_ducto_packet, msg_id));
    record->pkt_len = load_le<uint16_t>(packet + offsetof(sns_ducto_packet, pkt_len));
    record->packet = packet;
    record->packet_readable = readable - (offset + SNS_SENSORSTORE_RECORD_HASH_LEN);
    if (record->pkt_len < SNS_DUCTO_HEADER_LEN) return sensorstore_record_status::packet_too_short;
    if (record->pkt_len > record->packet_readable) {
        return sensorstore_record_status::packet_out_of_bounds;
    }
    return sensorstore_record_status::ok;
}

void copy_sensorstore_packet(const sensorstore_record& record, sns_ducto_packet* out) {
    const size_t copied =
        record.packet_readable < sizeof(*out) ? record.packet_readable : sizeof(*out);
    uint8_t* bytes = reinterpret_cast<uint8_t*>(out);
    memcpy(bytes, record.packet, copied);
    memset(bytes + copied, 0, sizeof(*out) - copied);
}
