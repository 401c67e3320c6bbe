#include <gtest/gtest.h>

#include <cstring>

#include "tav_interface.h"

namespace {

// MurmurHash2 over a byte buffer, written from the published algorithm
// (16-byte keys only, so no tail), independently of the library's word loop.
uint32_t reference_murmur2(const sensor_uid& suid) {
    const uint32_t m = 0x5bd1e995;
    unsigned char data[sizeof(suid)];
    memcpy(data, &suid, sizeof(data));
    uint32_t h = sizeof(data);
    for (const unsigned char* p = data; p < data + sizeof(data); p += 4) {
        uint32_t k = p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24;
        k *= m;
        k ^= k >> 24;
        k *= m;
        h = (h * m) ^ k;
    }
    h ^= h >> 13;
    h *= m;
    return h ^ (h >> 15);
}

TEST(SensorUidTest, HashIsMurmur2OfTheSixteenBytesLowHalfFirst) {
    const sensor_uid ids[] = {{0, 0}, {0xabababababababab, 0xabababababababab}, {1, 0}, {0, 1},
                              {0x0123456789abcdef, 0xfedcba9876543210}, {~0ull, ~0ull}};
    for (const sensor_uid& id : ids) {
        EXPECT_EQ(sensor_uid_hash()(id), static_cast<size_t>(reference_murmur2(id)))
            << std::hex << id.high << ":" << id.low;
    }
    // Sixteen zero bytes with initial value 16.
    EXPECT_EQ(sensor_uid_hash()(sensor_uid{0, 0}), 0x2018c55bu);
}

}  // namespace
