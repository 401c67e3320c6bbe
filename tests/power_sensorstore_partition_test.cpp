// The channel hash and the bounded packet copy of the sensorstore walk.

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "sensorstore_image.h"
#include "sensorstore_partition.h"

namespace {

using kivhal::test::make_stored_packet;
using kivhal::test::sensorstore_image;

TEST(SensorStoreChannelHashTest, WeighsEachCharacterByItsPosition) {
    EXPECT_EQ(sensorstore_channel_hash("ab", 2), 4758u);
    EXPECT_EQ(sensorstore_channel_hash("z", 1), 4660u);
    EXPECT_EQ(sensorstore_channel_hash("", 0), 4660u);
    EXPECT_EQ(sensorstore_channel_hash(nullptr, 5), 4660u);
    EXPECT_EQ(sensorstore_channel_hash("ab", 0), 4660u);
    // Bounded by the length and by the first NUL.
    EXPECT_EQ(sensorstore_channel_hash("abc", 2), 4758u);
    EXPECT_EQ(sensorstore_channel_hash("a\0c", 3), 4660u);
    EXPECT_EQ(sensorstore_channel_hash("sensors", 7),
              sensorstore_image::channel_hash("sensors"));
    // Bytes are unsigned.
    EXPECT_EQ(sensorstore_channel_hash("a\xff", 2), 4660u + 255u);
}

TEST(SensorStorePacketCopyTest, CopiesWhatIsReadableAndZeroesTheRest) {
    const std::vector<uint8_t> area =
        sensorstore_image().add_record(7, make_stored_packet(0x22, 40)).bytes();
    sensorstore_record record;
    ASSERT_EQ(read_sensorstore_record(area.data(), area.size(), 8, &record),
              sensorstore_record_status::ok);

    sns_ducto_packet packet;
    memset(&packet, 0xee, sizeof(packet));
    copy_sensorstore_packet(record, &packet);
    EXPECT_EQ(memcmp(&packet, area.data() + 12, 40), 0);
    const uint8_t* bytes = reinterpret_cast<const uint8_t*>(&packet);
    for (size_t i = 40; i < sizeof(packet); ++i) ASSERT_EQ(bytes[i], 0) << "byte " << i;
}

TEST(SensorStorePacketCopyTest, StopsAtAFullPacket) {
    // More readable bytes than a packet holds: exactly one packet is taken.
    std::vector<uint8_t> area(SNS_DUCTO_PACKET_LEN + 64, 0x5a);
    sensorstore_record record = {};
    record.packet = area.data();
    record.packet_readable = area.size();
    sns_ducto_packet packet;
    copy_sensorstore_packet(record, &packet);
    EXPECT_EQ(memcmp(&packet, area.data(), sizeof(packet)), 0);
}

}  // namespace
