// The sensorstore partition behind a live connection: walking and replaying
// stored packets, the header reset, the write loop, and corrupt partitions.

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "core_stub.h"
#include "event_recorder.h"
#include "kiv_log.h"
#include "sensorstore_image.h"
#include "tav_ducto.h"
#include "test_support.h"

namespace {

using kivhal::test::core_stub;
using kivhal::test::event_recorder;
using kivhal::test::log_contains;
using kivhal::test::log_lines_containing;
using kivhal::test::make_stored_packet;
using kivhal::test::read_sensorstore_header;
using kivhal::test::sensorstore_image;
using namespace std::chrono_literals;

constexpr char kChannel[] = "store";
constexpr sensor_uid kSensor = {0xabc, 0xdef};
constexpr uint32_t kEventMsgId = 1025;
constexpr uint16_t kJumboId = SNS_AON_CLIENT_JUMBO_REPORT_IND_V01;

const uint32_t kOwnHash = sensorstore_image::channel_hash(kChannel);
const uint32_t kForeignHash = sensorstore_image::channel_hash("other");

std::string stored_event(const std::string& sample) {
    return core_stub::make_event(kSensor, kEventMsgId, sample);
}

std::vector<uint8_t> jumbo_report(const std::string& encoded_event) {
    return core_stub::make_report(encoded_event, true);
}

uint16_t packet_len(const std::vector<uint8_t>& packet) {
    return static_cast<uint16_t>(packet[4] | (packet[5] << 8));
}

// The core's example: 108 bytes, header included, with a record of another
// channel before one of ours.
sensorstore_image example_image(const std::string& encoded_event) {
    const std::vector<uint8_t> ours = jumbo_report(encoded_event);
    const uint16_t foreign_len = static_cast<uint16_t>(108 - 8 - 4 - ours.size() - 4);
    sensorstore_image image;
    image.add_record(kForeignHash, make_stored_packet(0x22, foreign_len)).add_record(kOwnHash, ours);
    return image;
}

class SensorStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        kiv_log::set_level(kiv_log::VERBOSE);
        kivhal::host::set_property("persist.vendor.kiv.ds", "true");
        kivhal::host::set_property("persist.vendor.kiv.ds_oda", "true");
        _core = std::make_unique<core_stub>(kChannel);
        sensorstore_image().write(_root);
        _conn = std::make_unique<tav_ducto>(tav_ducto_config{kChannel});
        ASSERT_EQ(_conn->register_cb(kSensor, nullptr, nullptr, _events.callback()), 0);
    }

    void TearDown() override {
        _conn.reset();
        _core.reset();
        kivhal::host::clear_channel_hooks();
        kivhal::host::clear_properties();
    }

    // Stores `image` after the connect-time reset, so the pass's own reset shows.
    void store(const sensorstore_image& image, size_t size = 0) {
        image.write(_root, size);
        kivhal::host::clear_captured_log();
    }

    void process(uint32_t total, uint16_t shmem, uint16_t error = 0) {
        sns_aon_client_low_pwr_state_write_info info = {total, shmem, error};
        _conn->tav_process_low_power_sensor_store_write_info(&info);
    }

    kivhal::test::scoped_root _root;
    std::unique_ptr<core_stub> _core;
    std::unique_ptr<tav_ducto> _conn;
    event_recorder _events;
};

TEST_F(SensorStoreTest, NothingBeyondSharedMemoryLeavesThePartitionAlone) {
    store(example_image(stored_event("sample")));
    process(500, 500);
    process(0, 0);
    EXPECT_TRUE(log_contains("TAV_SENSORSTORE NO DATA in eMMC, total_byte_count=500 shmem_byte_count=500"));
    EXPECT_TRUE(log_contains("TAV_SENSORSTORE NO DATA in eMMC, total_byte_count=0 shmem_byte_count=0"));
    EXPECT_FALSE(log_contains("open successful"));
    EXPECT_EQ(read_sensorstore_header(_root).reset_data_len, 0u);
}

TEST_F(SensorStoreTest, WalksTheExampleAndHandsTheAreaBack) {
    const std::string event = stored_event("kept while asleep");
    const sensorstore_image image = example_image(event);
    ASSERT_EQ(image.area_len(), 108u);
    store(image);

    // The message counts the stored bytes without the 8-byte header.
    process(100, 0);

    EXPECT_TRUE(log_contains("TAV_SENSORSTORE mmap successful sns_str_map(0x"));
    EXPECT_TRUE(log_contains("TAV_SENSORSTORE emmc_byte_count(108) emmc_trvsd_len(8)"));
    EXPECT_TRUE(log_contains("TAV_SENSORSTORE channel_hash = " + std::to_string(kOwnHash)));
    const uint16_t own_len = packet_len(jumbo_report(event));
    EXPECT_TRUE(log_contains("TAV_SENSORSTORE skipping lps_pkt_channel_hash(" +
                             std::to_string(kForeignHash) + ") lps_pkt_len(" +
                             std::to_string(108 - 8 - 4 - own_len - 4) + ")"));
    EXPECT_TRUE(log_contains("TAV_SENSORSTORE parsing lps_pkt_channel_hash(" +
                             std::to_string(kOwnHash) + ") lps_pkt_len(" +
                             std::to_string(own_len) + ")"));
    EXPECT_TRUE(log_contains("TAV_SENSORSTORE eMMC data parsing successfull, emmc_trvsd_len(108)"));
    EXPECT_TRUE(log_contains("TAV_SENSORSTORE munmap successfull"));
    EXPECT_EQ(log_lines_containing("TAV_SENSORSTORE close successfull").size(), 2u);
    EXPECT_TRUE(log_contains("TAV_SENSORSTORE sensorstore_hdr data_len(108) reset_data_len(0)"));
    for (const auto& line : log_lines_containing("TAV_SENSORSTORE")) {
        EXPECT_NE(line.priority, ANDROID_LOG_ERROR) << line.text;
    }

    const auto header = read_sensorstore_header(_root);
    EXPECT_EQ(header.data_len, 108u);
    EXPECT_EQ(header.reset_data_len, 1u);

    // Replayed on this thread, to the callback a live report would reach.
    const auto events = _events.events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].payload, event);
    EXPECT_GT(events[0].timestamp, 0u);
}

TEST_F(SensorStoreTest, MessageCountingTheHeaderTooMapsMoreThanTheCoreWrote) {
    const std::string event = stored_event("kept while asleep");
    store(example_image(event), 4096);

    process(108, 0);

    EXPECT_TRUE(log_contains(
        "TAV_SENSORSTORE data is missing emmc_byte_count(108) write_info_byte_count(116)"));
    EXPECT_TRUE(log_contains("TAV_SENSORSTORE eMMC data parsing successfull, emmc_trvsd_len(108)"));
    EXPECT_EQ(_events.events().size(), 1u);
    EXPECT_EQ(read_sensorstore_header(_root).reset_data_len, 1u);
}

TEST_F(SensorStoreTest, OnlyJumboReportsOfThisChannelAreReplayed) {
    sensorstore_image image;
    image.add_record(kOwnHash, core_stub::make_report(stored_event("plain"), false))
        .add_record(kForeignHash, jumbo_report(stored_event("not ours")))
        .add_record(kOwnHash, jumbo_report(stored_event("first")))
        .add_record(kOwnHash, jumbo_report(stored_event("second")));
    store(image);

    process(image.area_len() - 8 + 40, 40);

    const auto unexpected = log_lines_containing("TAV_SENSORSTORE UNEXPECTED_MSG_ID(33)");
    ASSERT_EQ(unexpected.size(), 1u);
    EXPECT_EQ(unexpected[0].priority, ANDROID_LOG_ERROR);
    const auto events = _events.events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_NE(events[0].payload.find("first"), std::string::npos);
    EXPECT_NE(events[1].payload.find("second"), std::string::npos);
    EXPECT_TRUE(log_contains("eMMC data parsing successfull, emmc_trvsd_len(" +
                             std::to_string(image.area_len()) + ")"));
}

TEST_F(SensorStoreTest, HeaderShorterThanTheMessageSaysIsWalkedToItsOwnEnd) {
    sensorstore_image image;
    image.add_record(kOwnHash, jumbo_report(stored_event("sample")));
    const uint32_t area = image.area_len();
    store(image, area + 20);

    process(area - 8 + 20, 0);

    const auto missing = log_lines_containing(
        "TAV_SENSORSTORE data is missing emmc_byte_count(" + std::to_string(area) +
        ") write_info_byte_count(" + std::to_string(area + 20) + ")");
    ASSERT_EQ(missing.size(), 1u);
    EXPECT_EQ(missing[0].priority, ANDROID_LOG_ERROR);
    EXPECT_TRUE(log_contains("eMMC data parsing successfull, emmc_trvsd_len(" +
                             std::to_string(area) + ")"));
    EXPECT_EQ(_events.events().size(), 1u);
    EXPECT_EQ(read_sensorstore_header(_root).reset_data_len, 1u);
}

TEST_F(SensorStoreTest, HeaderLongerThanTheMessageSaysIsWalkedOnlyAsFarAsMapped) {
    const std::vector<uint8_t> first = jumbo_report(stored_event("mapped"));
    sensorstore_image image;
    image.add_record(kOwnHash, first).add_record(kOwnHash, jumbo_report(stored_event("beyond")));
    store(image);
    const uint32_t mapped = 8 + 4 + static_cast<uint32_t>(first.size());

    process(mapped - 8, 0);

    EXPECT_TRUE(log_contains("TAV_SENSORSTORE emmc_byte_count(" + std::to_string(image.area_len()) +
                             ") cannot be > than write_info_byte_count(" + std::to_string(mapped) +
                             ")"));
    const auto events = _events.events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_NE(events[0].payload.find("mapped"), std::string::npos);
    EXPECT_TRUE(log_contains("TAV_SENSORSTORE record at emmc_trvsd_len(" + std::to_string(mapped) +
                             ") lies past the " + std::to_string(mapped) + " readable bytes"));
    EXPECT_TRUE(log_contains("TAV_SENSORSTORE eMMC data parsing FAILED, emmc_byte_count(" +
                             std::to_string(image.area_len()) + "), emmc_trvsd_len(" +
                             std::to_string(mapped) + ")"));
    EXPECT_EQ(read_sensorstore_header(_root).reset_data_len, 1u);
}

TEST_F(SensorStoreTest, WalkOvershootingDataLenIsReportedAndStillReset) {
    sensorstore_image image;
    image.add_record(kForeignHash, make_stored_packet(0x22, 40))
        .add_record(kForeignHash, make_stored_packet(0x22, 56));
    const uint32_t area = image.area_len();
    image.set_data_len(area - 2);
    store(image);

    process(area - 8, 0);

    EXPECT_TRUE(log_contains("TAV_SENSORSTORE eMMC data parsing FAILED, emmc_byte_count(" +
                             std::to_string(area - 2) + "), emmc_trvsd_len(" +
                             std::to_string(area) + ")"));
    EXPECT_TRUE(log_contains("TAV_SENSORSTORE munmap successfull"));
    const auto header = read_sensorstore_header(_root);
    EXPECT_EQ(header.data_len, area - 2);
    EXPECT_EQ(header.reset_data_len, 1u);
}

TEST_F(SensorStoreTest, WriteInfoErrorIsThrown) {
    store(example_image(stored_event("sample")));
    try {
        process(108, 0, 5);
        FAIL() << "no ducto_error";
    } catch (const ducto_error& error) {
        const std::string what = error.what();
        EXPECT_EQ(what.rfind("TAV_DUCTO_ERROR TAV_SENSORSTORE WRITE_INFO_ERROR : ", 0), 0u) << what;
        EXPECT_EQ(what.substr(what.size() - 4), " (5)");
    }
    EXPECT_TRUE(log_contains("TAV_SENSORSTORE WRITE_INFO_ERROR(5)"));
    EXPECT_FALSE(log_contains("open successful"));
    EXPECT_EQ(read_sensorstore_header(_root).reset_data_len, 0u);
}

TEST_F(SensorStoreTest, HeaderResetNeedsOnDeviceAnalysis) {
    store(example_image(stored_event("sample")));
    kivhal::host::set_property("persist.vendor.kiv.ds_oda", "false");
    _conn->tav_update_sensorstore_header_reset_field(1);
    EXPECT_TRUE(log_contains("TAV_SENSORSTORE ODA not supported"));
    EXPECT_EQ(read_sensorstore_header(_root).reset_data_len, 0u);

    kivhal::host::set_property("persist.vendor.kiv.ds_oda", "true");
    _conn->tav_update_sensorstore_header_reset_field(7);
    const auto header = read_sensorstore_header(_root);
    EXPECT_EQ(header.data_len, 108u);
    EXPECT_EQ(header.reset_data_len, 7u);
}

TEST_F(SensorStoreTest, ConnectResetsTheHeader) {
    // The fixture's connection reset the empty image it found.
    EXPECT_EQ(read_sensorstore_header(_root).reset_data_len, 1u);
    EXPECT_EQ(read_sensorstore_header(_root).data_len, 8u);
}

TEST_F(SensorStoreTest, PartitionFailuresAreThrown) {
    // Shorter than its header: neither pass reads or maps it.
    _root.write_file(kivhal::test::kSensorStorePartition, "abcd");
    EXPECT_THROW(process(100, 0), ducto_error);
    EXPECT_FALSE(log_contains("mmap successful"));
    EXPECT_THROW(_conn->tav_update_sensorstore_header_reset_field(1), ducto_error);
    EXPECT_EQ(log_lines_containing("TAV_SENSORSTORE partition size(4) is smaller than its header").size(), 2u);
    EXPECT_TRUE(log_contains("TAV_SENSORSTORE read failure"));

    unlink(_root.host_path(kivhal::test::kSensorStorePartition).c_str());
    try {
        _conn->tav_update_sensorstore_header_reset_field(1);
        FAIL() << "no ducto_error";
    } catch (const ducto_error& error) {
        EXPECT_NE(std::string(error.what()).find("TAV_SENSORSTORE open failure"), std::string::npos);
    }
    EXPECT_TRUE(log_contains("TAV_SENSORSTORE open failure"));
}

TEST_F(SensorStoreTest, ResetFieldReadAsPacketLengthDoesNotOverrunTheHeader) {
    // Header bytes 4-5 are what the channel read takes for a packet length.
    store(example_image(stored_event("sample")).set_reset_data_len(300));
    _conn->tav_update_sensorstore_header_reset_field(1);
    const auto header = read_sensorstore_header(_root);
    EXPECT_EQ(header.data_len, 108u);
    EXPECT_EQ(header.reset_data_len, 1u);
}

// --- Corrupt partitions: an error line, no access outside the mapping -----

TEST_F(SensorStoreTest, CorruptLengthPastTheEndStopsTheWalk) {
    std::vector<uint8_t> packet = jumbo_report(stored_event("sample"));
    packet[4] = 0x88;
    packet[5] = 0x13;  // 5000
    sensorstore_image image;
    image.add_record(kOwnHash, packet);
    store(image);

    process(image.area_len() - 8, 0);

    EXPECT_TRUE(log_contains("TAV_SENSORSTORE lps_pkt_len(5000) at emmc_trvsd_len(8) runs past the"));
    EXPECT_TRUE(log_contains("eMMC data parsing FAILED"));
    EXPECT_TRUE(_events.events().empty());
    EXPECT_EQ(read_sensorstore_header(_root).reset_data_len, 1u);
}

TEST_F(SensorStoreTest, CorruptZeroLengthStopsTheWalk) {
    sensorstore_image image;
    image.add_record(kOwnHash, jumbo_report(stored_event("sample")))
        .add_raw(std::vector<uint8_t>(40, 0));
    image.set_data_len(0xfffffff0u);
    store(image);

    process(image.area_len() - 8, 0);

    EXPECT_EQ(_events.events().size(), 1u);
    EXPECT_TRUE(log_contains("TAV_SENSORSTORE lps_pkt_len(0) at emmc_trvsd_len("));
    EXPECT_TRUE(log_contains("is shorter than a packet head"));
    EXPECT_TRUE(log_contains("eMMC data parsing FAILED"));
}

TEST_F(SensorStoreTest, TruncatedPartitionIsReadOnlyAsFarAsItGoes) {
    const std::string event = stored_event("sample");
    sensorstore_image image;
    image.add_record(kOwnHash, jumbo_report(event));
    const uint32_t area = image.area_len();
    image.set_data_len(area + 4096);
    store(image);  // the file ends at `area`

    process(area - 8 + 4096, 0);

    EXPECT_TRUE(log_contains("TAV_SENSORSTORE partition size(" + std::to_string(area) +
                             ") is smaller than write_info_byte_count(" +
                             std::to_string(area + 4096) + ")"));
    const auto events = _events.events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].payload, event);
    EXPECT_TRUE(log_contains("lies past the " + std::to_string(area) + " readable bytes"));
    EXPECT_TRUE(log_contains("eMMC data parsing FAILED"));
}

// --- Partition write loop ---------------------------------------------------

class SensorStoreWriteTest : public SensorStoreTest {
protected:
    void SetUp() override {
        SensorStoreTest::SetUp();
        ASSERT_EQ(pipe(_pipe), 0);
        kivhal::host::clear_captured_log();
    }
    void TearDown() override {
        kivhal::host::clear_channel_hooks();
        close(_pipe[0]);
        close(_pipe[1]);
        SensorStoreTest::TearDown();
    }

    // Fails writes to the pipe with `error` until `failures` have been made,
    // then short-writes `partial` bytes once (0: none), then writes for real.
    void fail_pipe_writes(int error, int failures, size_t partial = 0) {
        const int target = _pipe[1];
        kivhal::host::channel_hooks hooks;
        hooks.write = [this, target, error, failures, partial](int fd, const void* buf,
                                                               size_t len) -> ssize_t {
            if (fd != target) return kivhal::host::real_write_node(fd, buf, len);
            const int call = _pipe_writes++;
            if (call < failures) {
                errno = error;
                return -1;
            }
            if (call == failures && partial > 0) {
                return kivhal::host::real_write_node(fd, buf, partial);
            }
            return kivhal::host::real_write_node(fd, buf, len);
        };
        kivhal::host::set_channel_hooks(hooks);
    }

    std::string read_pipe(size_t len) {
        std::string data(len, '\0');
        EXPECT_EQ(read(_pipe[0], &data[0], len), static_cast<ssize_t>(len));
        return data;
    }

    int _pipe[2] = {-1, -1};
    std::atomic<int> _pipe_writes{0};
    uint8_t _data[8] = {'s', 'e', 'n', 's', 'o', 'r', 's', '!'};
};

TEST_F(SensorStoreWriteTest, BusyPartitionGivesUpAfterTenAttempts) {
    fail_pipe_writes(EAGAIN, 1000);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(_conn->tav_sensorstore_write(_pipe[1], _data, sizeof(_data)), -EAGAIN);
    const auto elapsed = std::chrono::steady_clock::now() - start;

    EXPECT_EQ(_pipe_writes.load(), 10);
    EXPECT_GE(elapsed, 9 * 50ms);  // nine pauses between ten attempts
    EXPECT_EQ(log_lines_containing("TAV_SENSORSTORE write failed with errno = 11").size(), 10u);
    EXPECT_TRUE(log_contains("TAV_SENSORSTORE write MAX_SENSORSTORE_WRITE_RETRIES = 10 has finished on fd = " +
                             std::to_string(_pipe[1]) + " "));
}

TEST_F(SensorStoreWriteTest, RetriesAndShortWritesCompleteTheBuffer) {
    fail_pipe_writes(EBUSY, 2, 3);
    // The last write's result, not the total, is returned.
    EXPECT_EQ(_conn->tav_sensorstore_write(_pipe[1], _data, sizeof(_data)), 5);
    EXPECT_EQ(_pipe_writes.load(), 4);
    EXPECT_EQ(read_pipe(8), "sensors!");
    EXPECT_TRUE(log_contains("TAV_SENSORSTORE partial bytes written= 3"));
    EXPECT_TRUE(log_contains("TAV_SENSORSTORE partial bytes written= 5"));
    EXPECT_TRUE(log_contains("TAV_SENSORSTORE complete bytes written= 8"));
}

TEST_F(SensorStoreWriteTest, OtherErrorsAndBadArgumentsReturnAtOnce) {
    fail_pipe_writes(EIO, 1000);
    EXPECT_EQ(_conn->tav_sensorstore_write(_pipe[1], _data, sizeof(_data)), -EIO);
    EXPECT_EQ(_pipe_writes.load(), 1);
    EXPECT_TRUE(log_contains("TAV_SENSORSTORE write has failed with errno = 5 "));

    EXPECT_EQ(_conn->tav_sensorstore_write(-1, _data, sizeof(_data)), 0);
    EXPECT_TRUE(log_contains("TAV_SENSORSTORE invalid fd(-1)"));
    EXPECT_EQ(_conn->tav_sensorstore_write(_pipe[1], _data, 0), 0);
    EXPECT_EQ(_pipe_writes.load(), 1);
    EXPECT_TRUE(log_contains("TAV_SENSORSTORE complete bytes written= 0"));
}

// --- End to end ---------------------------------------------------------------

TEST_F(SensorStoreTest, StoredReportReachesTheSameCallbackAsALiveOne) {
    ASSERT_TRUE(_core->wait_connected(5s));
    const std::string live = stored_event("live sample");
    ASSERT_TRUE(_core->send_packet(jumbo_report(live)));
    ASSERT_TRUE(_events.wait_for(1, 5s));

    const std::string kept = stored_event("kept sample");
    sensorstore_image image;
    image.add_record(kForeignHash, jumbo_report(stored_event("other channel")))
        .add_record(kOwnHash, jumbo_report(kept));
    store(image);
    ASSERT_TRUE(_core->send_packet(core_stub::make_low_power_state(
        SNS_LOW_POWER_WRITE_INFO, 0, image.area_len() - 8 + 64, 64)));
    ASSERT_TRUE(_events.wait_for(2, 5s));

    const auto events = _events.events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].payload, live);
    EXPECT_EQ(events[1].payload, kept);
    EXPECT_GE(events[1].timestamp, events[0].timestamp);
    // The pass ends with the reset, after the replay.
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (read_sensorstore_header(_root).reset_data_len != 1u &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(5ms);
    }
    EXPECT_EQ(read_sensorstore_header(_root).reset_data_len, 1u);
}

}  // namespace
