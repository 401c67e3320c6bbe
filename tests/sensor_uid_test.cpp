#include <gtest/gtest.h>

#include <cstring>
#include <unordered_set>

#include "tav_interface.h"

namespace {

// Reference MurmurHash2 (32-bit), written from the published algorithm over a
// plain byte buffer, independently of the library's word loop.
uint32_t reference_murmur2(const void* key, int len, uint32_t seed) {
    const uint32_t m = 0x5bd1e995;
    const int r = 24;
    uint32_t h = seed ^ static_cast<uint32_t>(len);
    const unsigned char* data = static_cast<const unsigned char*>(key);
    while (len >= 4) {
        uint32_t k;
        memcpy(&k, data, 4);
        k *= m;
        k ^= k >> r;
        k *= m;
        h *= m;
        h ^= k;
        data += 4;
        len -= 4;
    }
    switch (len) {
        case 3: h ^= static_cast<uint32_t>(data[2]) << 16; [[fallthrough]];
        case 2: h ^= static_cast<uint32_t>(data[1]) << 8; [[fallthrough]];
        case 1: h ^= data[0]; h *= m;
    }
    h ^= h >> 13;
    h *= m;
    h ^= h >> 15;
    return h;
}

uint32_t expected_hash(const sensor_uid& suid) {
    // Seed 0 xor length 16 is the length itself, as the standard library seeds it.
    return reference_murmur2(&suid, sizeof(suid), 0);
}

TEST(SensorUidTest, HashIsMurmur2OfTheSixteenBytesLowHalfFirst) {
    const sensor_uid ids[] = {
        {0, 0},
        {0xabababababababab, 0xabababababababab},
        {1, 0},
        {0, 1},
        {0x0123456789abcdef, 0xfedcba9876543210},
        {~0ull, ~0ull},
    };
    sensor_uid_hash hash;
    for (const sensor_uid& id : ids) {
        EXPECT_EQ(hash(id), static_cast<size_t>(expected_hash(id)))
            << std::hex << id.high << ":" << id.low;
        EXPECT_LE(hash(id), 0xffffffffu);
    }
}

TEST(SensorUidTest, AllZeroIdHashesToTheKnownValue) {
    // MurmurHash2 of sixteen zero bytes with initial value 16.
    EXPECT_EQ(sensor_uid_hash()(sensor_uid{0, 0}), 0x2018c55bu);
}

TEST(SensorUidTest, IdsDifferingOnlyInHighAreUnequalAndHashApart) {
    sensor_uid a{42, 1};
    sensor_uid b{42, 2};
    EXPECT_FALSE(a == b);
    EXPECT_TRUE(a != b);
    EXPECT_TRUE(a == (sensor_uid{42, 1}));
    EXPECT_NE(sensor_uid_hash()(a), sensor_uid_hash()(b));

    std::unordered_set<sensor_uid, sensor_uid_hash> set{a, b, a};
    EXPECT_EQ(set.size(), 2u);
}

TEST(SensorUidTest, EmptyCallbackRecordIsHarmlessToDestroy) {
    auto* record = new tav_register_cb(tav_resp_cb(), tav_error_cb(), tav_event_cb());
    EXPECT_FALSE(record->event_cb);
    delete record;
}

}  // namespace
