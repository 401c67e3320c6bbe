// The bounded pieces under the sensorstore walk, on plain memory and files.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "sensorstore_image.h"
#include "sensorstore_partition.h"
#include "test_support.h"

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

TEST(SensorStoreRecordTest, ReadsConsecutiveRecords) {
    const std::vector<uint8_t> area = sensorstore_image()
                                          .add_record(7, make_stored_packet(0x22, 20))
                                          .add_record(9, make_stored_packet(0x21, 6))
                                          .bytes();
    sensorstore_record record;
    ASSERT_EQ(read_sensorstore_record(area.data(), area.size(), 8, &record),
              sensorstore_record_status::ok);
    EXPECT_EQ(record.channel_hash, 7u);
    EXPECT_EQ(record.msg_id, 0x22);
    EXPECT_EQ(record.pkt_len, 20);
    EXPECT_EQ(record.packet, area.data() + 12);
    EXPECT_EQ(record.packet_readable, area.size() - 12);

    ASSERT_EQ(read_sensorstore_record(area.data(), area.size(), 8 + 4 + 20, &record),
              sensorstore_record_status::ok);
    EXPECT_EQ(record.channel_hash, 9u);
    EXPECT_EQ(record.msg_id, 0x21);
    EXPECT_EQ(record.packet_readable, 6u);
}

TEST(SensorStoreRecordTest, RejectsRecordsPastTheEnd) {
    const std::vector<uint8_t> area =
        sensorstore_image().add_record(7, make_stored_packet(0x22, 20)).bytes();
    sensorstore_record record;
    // The packet is cut off one byte early.
    EXPECT_EQ(read_sensorstore_record(area.data(), area.size() - 1, 8, &record),
              sensorstore_record_status::packet_out_of_bounds);
    // Not even the hash and packet head fit.
    EXPECT_EQ(read_sensorstore_record(area.data(), 8 + 9, 8, &record),
              sensorstore_record_status::head_out_of_bounds);
    EXPECT_EQ(read_sensorstore_record(area.data(), area.size(), area.size(), &record),
              sensorstore_record_status::head_out_of_bounds);
    EXPECT_EQ(read_sensorstore_record(area.data(), area.size(), UINT32_MAX, &record),
              sensorstore_record_status::head_out_of_bounds);
}

TEST(SensorStoreRecordTest, RejectsLengthsShorterThanAPacketHead) {
    std::vector<uint8_t> packet = make_stored_packet(0x22, 6);
    for (uint8_t len : {0, 5}) {
        packet[4] = len;
        const std::vector<uint8_t> area = sensorstore_image().add_record(7, packet).bytes();
        sensorstore_record record;
        EXPECT_EQ(read_sensorstore_record(area.data(), area.size(), 8, &record),
                  sensorstore_record_status::packet_too_short)
            << "length " << int(len);
    }
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

TEST(SensorStoreMappingTest, MapsSharedAndReportsUnmap) {
    kivhal::test::scoped_root root;
    sensorstore_image().add_record(3, make_stored_packet(0x22, 12)).write(root);
    const std::string path = root.host_path(kivhal::test::kSensorStorePartition);

    sensorstore_fd fd(open(path.c_str(), O_RDWR));
    ASSERT_GE(fd.get(), 0);
    EXPECT_EQ(sensorstore_partition_size(fd.get()), 8 + 4 + 12);
    EXPECT_EQ(lseek(fd.get(), 0, SEEK_CUR), 0) << "the size query keeps the file position";
    {
        sensorstore_mapping mapping(fd.get(), 24);
        ASSERT_TRUE(mapping.valid());
        mapping.data()[4] = 1;  // reset_data_len, written through the mapping
        EXPECT_EQ(mapping.unmap(), 0);
        EXPECT_FALSE(mapping.valid());
    }
    EXPECT_EQ(kivhal::test::read_sensorstore_header(root).reset_data_len, 1u);
    EXPECT_EQ(fd.close(), 0);
    EXPECT_EQ(fd.get(), -1);

    sensorstore_mapping failed(-1, 24);
    EXPECT_FALSE(failed.valid());
}

}  // namespace
