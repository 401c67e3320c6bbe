#include <cstring>

#include "tav_interface.h"

namespace {
constexpr uint32_t kMurmurMultiplier = 0x5bd1e995;
constexpr int kMurmurShift = 24;

uint32_t load_le32(const unsigned char* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}
}  // namespace

size_t sensor_uid_hash::operator()(const sensor_uid& suid) const {
    unsigned char bytes[sizeof(sensor_uid)];
    memcpy(bytes, &suid, sizeof(bytes));

    uint32_t h = sizeof(bytes);
    for (size_t i = 0; i < sizeof(bytes); i += 4) {
        uint32_t k = load_le32(bytes + i);
        k *= kMurmurMultiplier;
        k ^= k >> kMurmurShift;
        k *= kMurmurMultiplier;
        h *= kMurmurMultiplier;
        h ^= k;
    }
    h ^= h >> 13;
    h *= kMurmurMultiplier;
    h ^= h >> 15;
    return h;
}
