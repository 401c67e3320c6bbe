// The power subsystem behind a live connection: the sensorstore partition
// (walking and replaying stored packets, the header reset, the write loop,
// corrupt partitions) and the low-power-state indications.
#include <sys/resource.h>
#include <unistd.h>

#include <cstring>
#include <map>

#include "connection_test_fixture.h"
#include "fake_power_state_service.h"
#include "sensorstore_image.h"
#include "sensorstore_partition.h"
#include "sns_low_power_state_handler.h"

namespace kivhal {
namespace test {
namespace {

using namespace std::chrono_literals;
using bytes = std::vector<uint8_t>;

using image = ::sensorstore_image;
constexpr uint32_t kOwnHash = 7030;      // "sensors"
constexpr uint32_t kForeignHash = 5743;  // "other"

// One encoded event per sample (events carry the time they were made), so a
// replayed copy compares equal to it.
const std::string& stored_event(const std::string& sample) {
    static std::map<std::string, std::string> events;
    auto it = events.find(sample);
    if (it == events.end())
        it = events.emplace(sample, core_stub::make_event(kAccel, 1025, sample)).first;
    return it->second;
}
bytes jumbo(const std::string& sample) {
    return core_stub::make_report(stored_event(sample), true);
}

// The walk alone: which records reach the sink (offset, + for this channel's),
// where it ends and why.
TEST(sensorstore_walk, HandsOutWholeRecordsInOrderStopsAtTheFirstThatIsNotAndCopiesPackets) {
    const bytes three = image()
                            .add_record(kOwnHash, make_stored_packet(0x22, 40))
                            .add_record(kForeignHash, make_stored_packet(0x21, 20))
                            .add_record(kOwnHash, make_stored_packet(0x22, 10))
                            .bytes();
    using status = sensorstore_record_status;
    const struct {
        bytes area;
        size_t readable;  // 0: all of it
        uint32_t data_len;
        std::string seen;
        uint32_t end;
        status why;
    } cases[] = {
        {three, 0, 90, "8+ 52- 76+ ", 90, status::ok},
        {three, 0, 60, "8+ 52- ", 76, status::ok},  // passes a short data_len once
        {three, 0, 8, "8+ ", 52, status::ok},       // a record even behind data_len 8
        {three, 89, 90, "8+ 52- ", 76, status::packet_out_of_bounds},
        {three, 62, 90, "8+ ", 52, status::packet_out_of_bounds},
        {three, 61, 90, "8+ ", 52, status::head_out_of_bounds},
        {image().add_raw({0xf6, 0x1b, 0, 0, 0x22, 0, 0, 0, 5, 0}).bytes(), 0, 18, "", 8,
         status::packet_too_short},
    };
    for (const auto& c : cases) {
        std::string seen;
        const sensorstore_walk walk = walk_sensorstore(
            c.area.data(), c.readable ? c.readable : c.area.size(), c.data_len, kOwnHash,
            [&](const sensorstore_record& record, bool own) {
                seen += std::to_string(static_cast<uint32_t>(record.packet - c.area.data() - 4)) +
                        (own ? "+ " : "- ");
            });
        EXPECT_EQ(c.seen, seen) << c.seen;
        EXPECT_EQ(c.end, walk.end) << c.seen;
        EXPECT_EQ(c.why, walk.status) << c.seen;
    }

    // A packet copy takes what is readable, up to a whole packet, and zeroes the rest.
    sensorstore_record record;
    ASSERT_EQ(status::ok, read_sensorstore_record(three.data(), 52, 8, &record));
    bytes packet(SNS_DUCTO_PACKET_LEN, 0xee);
    copy_sensorstore_packet(record, packet.data(), packet.size());
    EXPECT_EQ(bytes(three.begin() + 12, three.begin() + 52),
              bytes(packet.begin(), packet.begin() + 40));
    EXPECT_EQ(bytes(packet.size() - 40, 0), bytes(packet.begin() + 40, packet.end()));
    const bytes large(SNS_DUCTO_PACKET_LEN + 64, 0x5a);
    copy_sensorstore_packet({0, 0, 0, large.data(), large.size()}, packet.data(), packet.size());
    EXPECT_EQ(bytes(packet.size(), 0x5a), packet);
}

class sensor_store_test : public connection_test {
  protected:
    void SetUp() override {
        connection_test::SetUp();
        enable_sensor_store();
        ASSERT_NO_FATAL_FAILURE(connect());
        ASSERT_EQ(0, register_sensor(kAccel, accel));
    }
    void process(uint32_t total, uint16_t shmem, uint16_t error = 0) {
        sns_aon_client_low_pwr_state_write_info info = {total, shmem, error};
        ducto()->tav_process_low_power_sensor_store_write_info(&info);
    }
    sns_sensorstore_hdr header() {
        sns_sensorstore_hdr header;
        memcpy(&header, root.read_file(kSensorStorePartition).c_str(), sizeof(header));
        return header;
    }
};

// Header bytes 4-5 are what a channel read would take for a packet length.
TEST_F(sensor_store_test, WithoutDataOrOnDeviceAnalysisThePartitionIsLeftAloneFailuresAreThrown) {
    write_partition(root, image(300).add_raw(bytes(100, 0)));
    process(500, 500);
    process(0, 0);
    EXPECT_THAT([&] { process(108, 0, 5); },
                ThrowsMessage<ducto_error>(::testing::MatchesRegex(
                    "TAV_DUCTO_ERROR TAV_SENSORSTORE WRITE_INFO_ERROR : .* \\(5\\)")));
    host::set_property("persist.vendor.kiv.ds_oda", "false");
    sns_aon_client_low_pwr_state_ind_msg_v01 msg = {SNS_LOW_POWER_WRITE_INFO, 0, {108, 8, 0}};
    ducto()->tav_handle_low_power_state_msg(&msg);
    ducto()->tav_update_sensorstore_header_reset_field(1);
    EXPECT_EQ(300u, header().reset_data_len);
    EXPECT_TRUE(accel.events().empty());
    host::set_property("persist.vendor.kiv.ds_oda", "true");
    ducto()->tav_update_sensorstore_header_reset_field(7);
    EXPECT_EQ(108u, header().data_len);
    EXPECT_EQ(7u, header().reset_data_len);
    host::set_channel_hooks({nullptr, failing(host::real_read_node, EPERM, 1), nullptr, nullptr});
    EXPECT_THROW(ducto()->tav_update_sensorstore_header_reset_field(1), ducto_error);

    // One byte shorter than its header: neither pass reads, maps or writes it.
    root.write_file(kSensorStorePartition, "abcdefg");
    EXPECT_THROW(process(100, 0), ducto_error);
    EXPECT_THROW(ducto()->tav_update_sensorstore_header_reset_field(1), ducto_error);
    EXPECT_EQ("abcdefg", root.read_file(kSensorStorePartition));

    host::set_channel_hooks({failing(host::real_open_node, EPERM), nullptr, nullptr, nullptr});
    EXPECT_THAT([&] { process(100, 0); },
                ThrowsMessage<ducto_error>(HasSubstr("TAV_SENSORSTORE open failed : ")));
    EXPECT_THAT(
        [&] { ducto()->tav_update_sensorstore_header_reset_field(1); },
        ThrowsMessage<ducto_error>(HasSubstr("TAV_DUCTO_ERROR TAV_SENSORSTORE open failure")));
}

// Live, stored (this channel's jumbo reports only), live: one callback, in
// order, on the reader thread; the pass ends with the header reset.
TEST_F(sensor_store_test, ConnectResetsTheHeaderAndStoredReportsOfThisChannelAreReplayed) {
    EXPECT_EQ(8u, header().data_len);
    EXPECT_EQ(1u, header().reset_data_len);
    ASSERT_TRUE(core->send_packet(jumbo("live")));
    ASSERT_TRUE(accel.wait_for(1));
    const image stored =
        image()
            .add_record(kOwnHash, core_stub::make_report(stored_event("plain"), false))
            .add_record(kForeignHash, jumbo("other channel"))
            .add_record(kOwnHash, jumbo("first"))
            .add_record(kOwnHash, jumbo("second"));
    write_partition(root, stored);
    // The message counts the stored bytes without the header.
    ASSERT_TRUE(core->send_packet(core_stub::make_low_power_state(SNS_LOW_POWER_WRITE_INFO, 0,
                                                                  stored.area_len() - 8 + 64, 64)));
    ASSERT_TRUE(eventually([&] { return header().reset_data_len == 1u; }));
    std::vector<std::string> replayed;
    for (const auto& event : accel.events()) replayed.push_back(event.payload);
    EXPECT_EQ((std::vector<std::string>{stored_event("live"), stored_event("first"),
                                        stored_event("second")}),
              replayed);
    EXPECT_GE(accel.events()[1].timestamp, accel.events()[0].timestamp);
    EXPECT_TRUE(log_contains("TAV_SENSORSTORE eMMC data parsing successfull, emmc_trvsd_len(" +
                             std::to_string(stored.area_len()) + ")"));
    // The plain report is the one error.
    EXPECT_EQ(1u, log_lines_containing("TAV_SENSORSTORE", ANDROID_LOG_ERROR).size());
    EXPECT_TRUE(log_contains("TAV_SENSORSTORE UNEXPECTED_MSG_ID(33)", ANDROID_LOG_ERROR));
    // Replayed under their own id: the handler's only trace of it.
    EXPECT_EQ(3u, log_lines_containing("TAV_DUCTO_int msg_id 34 ", ANDROID_LOG_VERBOSE).size());
}

// Headers that disagree with the message, and corrupt partitions: the pass
// stays inside what is mapped, names the damage and still resets the header.
TEST_F(sensor_store_test, CorruptPartitionsAreWalkedInsideTheMappingAndEndWithAnErrorLine) {
    const image one = image().add_record(kForeignHash, make_stored_packet(0x22, 40));  // 52 bytes
    const struct {
        image partition;
        size_t file_size;  // 0: as long as the image
        uint32_t total;    // the message's count; nothing in shared memory
        const char* reason;
    } cases[] = {
        {one, 72, 64, "data is missing emmc_byte_count(52) write_info_byte_count(72)"},
        {image(one).add_record(0, make_stored_packet(0x22, 40)), 0, 44,
         "record at emmc_trvsd_len(52) lies past the 52 readable bytes"},
        {image(one).set_data_len(50), 0, 44,
         "parsing FAILED, emmc_byte_count(50), emmc_trvsd_len(52)"},
        {image().add_raw({0x76, 0x1b, 0, 0, 0x22, 0, 0, 0, 0x88, 0x13}), 0, 10,
         "lps_pkt_len(5000) at emmc_trvsd_len(8) runs past the 18 readable bytes"},
        {image(one).add_raw(bytes(40, 0)).set_data_len(0xfffffff0u), 0, 84,
         "lps_pkt_len(0) at emmc_trvsd_len(52) is shorter than a packet head"},
        {image(one).set_data_len(4148), 0, 4140,
         "partition size(52) is smaller than write_info_byte_count(4148)"},
    };
    for (const auto& c : cases) {
        write_partition(root, c.partition, c.file_size);
        process(c.total, 0);
        EXPECT_TRUE(log_contains(c.reason, ANDROID_LOG_ERROR)) << c.reason;
        EXPECT_EQ(1u, header().reset_data_len) << c.reason;
    }
}

uint8_t kData[8] = {'s', 'e', 'n', 's', 'o', 'r', 's', '!'};

TEST_F(sensor_store_test, PartitionWritesRetryTenTimesFinishShortWritesAndStopAtOtherErrors) {
    android::base::unique_fd read_end, write_end;  // a pipe stands in for the partition
    ASSERT_TRUE(android::base::Pipe(&read_end, &write_end));
    const int fd = write_end.get();
    auto writes = std::make_shared<std::atomic<int>>(0);
    host::set_channel_hooks(
        {nullptr, nullptr, failing(host::real_write_node, EAGAIN, INT_MAX, -1, writes), nullptr});
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(-EAGAIN, ducto()->tav_sensorstore_write(fd, kData, sizeof(kData)));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 9 * 50ms);  // nine pauses between ten tries
    EXPECT_EQ(50000u, SNS_SENSORSTORE_WRITE_RETRY_US);
    EXPECT_EQ(10, writes->load());

    int calls = 0;
    host::channel_hooks hooks;
    hooks.write = [&calls](int fd, const void* buf, size_t len) -> ssize_t {
        if (fd == 0) return static_cast<ssize_t>(len);  // no descriptor is refused but negatives
        if (++calls > 2) return host::real_write_node(fd, buf, calls == 3 ? 7 : len);
        errno = EBUSY;
        return -1;
    };
    host::set_channel_hooks(hooks);
    // The last write's result, not the total, is returned.
    EXPECT_EQ(1, ducto()->tav_sensorstore_write(fd, kData, sizeof(kData)));
    EXPECT_TRUE(log_contains("TAV_SENSORSTORE complete bytes written= 8"));  // 7 + 1
    std::string data(8, '\0');
    EXPECT_EQ(8, read(read_end.get(), &data[0], 8));
    EXPECT_EQ("sensors!", data);
    EXPECT_EQ(8, ducto()->tav_sensorstore_write(0, kData, sizeof(kData)));

    writes->store(0);
    host::set_channel_hooks(
        {nullptr, nullptr, failing(host::real_write_node, EIO, INT_MAX, -1, writes), nullptr});
    EXPECT_EQ(-EIO, ducto()->tav_sensorstore_write(fd, kData, sizeof(kData)));
    EXPECT_EQ(0, ducto()->tav_sensorstore_write(-1, kData, sizeof(kData)));
    EXPECT_EQ(0, ducto()->tav_sensorstore_write(fd, kData, 0));
    EXPECT_EQ(1, writes->load());
    // A partition that takes nothing ends the write at once.
    hooks.write = [](int, const void*, size_t) -> ssize_t { return 0; };
    host::set_channel_hooks(hooks);
    EXPECT_EQ(0, ducto()->tav_sensorstore_write(fd, kData, sizeof(kData)));
    // The hash reads `len` characters, not up to the end of the name.
    EXPECT_EQ(ducto()->ducto_get_channel_hash("sensors", 7),
              ducto()->ducto_get_channel_hash("sensorsX", 7));
}

// In a child under a 3 GiB address-space limit, as a 32-bit process has: a
// write-info counting nearly 4 GiB (or wrapping past it) is walked within the
// partition, the next live report still arrives and the kernel lock is
// released as often as taken. 0 when all of that holds.
int huge_write_info_in_child(uint32_t total) {
    scoped_root root;
    for (const char* file : {"/sys/power/wake_lock", "/sys/power/wake_unlock"})
        root.write_file(file, "");
    host::set_property("persist.vendor.kiv.ds", "true");
    host::set_property("persist.vendor.kiv.ds_oda", "true");
    write_partition(root, image().add_record(kOwnHash, jumbo("stored")));
    core_stub core(kChannel);
    event_recorder accel;
    std::unique_ptr<tav_interface> conn(
        tav_interface::create(TAV_DUCTO_CONNECTION, tav_conn_config{kChannel}));
    if (!core.wait_connected(kWait) ||
        conn->register_cb(kAccel, nullptr, nullptr, accel.callback()) != 0)
        return 2;
    const rlimit limit = {3ull << 30, 3ull << 30};
    if (setrlimit(RLIMIT_AS, &limit) != 0) return 3;
    core.send_packet(core_stub::make_low_power_state(SNS_LOW_POWER_WRITE_INFO, 0, total, 0));
    core.send_packet(jumbo("live"));
    if (!accel.wait_for(2) || accel.events()[0].payload != stored_event("stored") ||
        accel.events()[1].payload != stored_event("live")) {
        return 4;
    }
    conn.reset();
    const size_t locks = root.read_file("/sys/power/wake_lock").size();
    return locks > 0 && locks == root.read_file("/sys/power/wake_unlock").size() ? 0 : 5;
}

TEST(sensor_store_limits, WriteInfoCountsBeyondThePartitionAreClampedToIt) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizers' shadow memory does not fit the limit";
#endif
    for (uint32_t total : {0xF0000000u, 0xFFFFFFFFu}) {
        EXPECT_EXIT(_exit(huge_write_info_in_child(total)), ::testing::ExitedWithCode(0), "")
            << total;
    }
}

// --- Low-power-state indications: the session table, the aggregate and the
// power-state service's wake lock, over a live connection and at the client.

using handler = sns_low_power_state_handler;
constexpr auto kOff = SNS_LOW_POWER_STATE_OFF;
constexpr auto kOn = SNS_LOW_POWER_STATE_ON;

class low_power_test : public connection_test {
  protected:
    void SetUp() override {
        connection_test::SetUp();
        host::set_property("persist.vendor.kiv.ds", "true");
    }
    // A connection whose table holds sessions 3 and 5.
    void connect_with_sessions() {
        ASSERT_NO_FATAL_FAILURE(connect());
        ASSERT_EQ(0, register_sensor(kAccel, accel));
        send(kAccel, 513, 3);
        send(kAccel, 513, 5);
        ASSERT_TRUE(core->wait_for_requests(2, kWait));
    }
    void handle(uint8_t msg_id, uint8_t session_id) {
        sns_aon_client_low_pwr_state_ind_msg_v01 msg = {msg_id, session_id, {}};
        ducto()->tav_handle_low_power_state_msg(&msg);
    }
    std::string sessions() {
        const std::string dump = dump_of(*conn);
        const size_t at = dump.find("  low-power sessions:");
        return dump.substr(at, dump.find("  wake lock") - at);
    }
};

TEST_F(low_power_test, AggregateIsOffWhileAnyKnownSessionIsOffAndOtherMessagesChangeNothing) {
    auto service = fake_power_state_service::register_default();
    ASSERT_NO_FATAL_FAILURE(connect_with_sessions());
    service->registration_accepted =
        false;  // no handler: the states are kept, the service left alone
    handle(kOff, 3);
    handle(kOn, 3);
    EXPECT_EQ(0, service->acquires + service->releases);
    service->registration_accepted = true;
    handle(kOff, 9);  // unknown session: not added, nothing else happens
    EXPECT_EQ(
        1u, log_lines_containing("SNS_LOW_PWR_STATE_MSG invalid lps_session_id", ANDROID_LOG_ERROR)
                .size());
    handle(3, 5);  // unknown message id
    EXPECT_THAT(sessions(), HasSubstr("sessions: 2, aggregate on\n"));
    EXPECT_EQ(0, service->acquires);

    handle(kOff, 3);
    handle(kOff, 5);
    send(kAccel, 513, 3);  // a known session keeps the state the core last reported
    EXPECT_THAT(sessions(), HasSubstr("session 3: off\n"));
    handle(kOn, 5);  // 3 still needs the processor
    EXPECT_THAT(sessions(), HasSubstr("aggregate off\n"));
    EXPECT_EQ(1, service->acquires);
    EXPECT_EQ(0, service->releases);
    handle(kOn, 3);
    EXPECT_THAT(sessions(), HasSubstr("aggregate on\n"));
    EXPECT_EQ(1, service->releases);
}

TEST_F(low_power_test, SensorStoreSwitchedOffDropsEveryMessage) {
    host::set_property("persist.vendor.kiv.ds", "false");
    auto service = fake_power_state_service::register_default();
    ASSERT_NO_FATAL_FAILURE(connect_with_sessions());
    for (uint8_t id : {0, 1, 2}) handle(id, 5);
    EXPECT_EQ(3u,
              log_lines_containing("TAV_DUCTO_int DS is not supported", ANDROID_LOG_ERROR).size());
    EXPECT_THAT(sessions(), HasSubstr("session 5: on\n"));
    EXPECT_EQ(0, service->registrations);
}

TEST_F(low_power_test, ClientRegistersUntilAcceptedAndSendsEachWakeLockChangeOnceItSucceeds) {
    EXPECT_FALSE(handler::acquire_wakelock());  // no service yet
    auto service = fake_power_state_service::register_default();
    service->registration_accepted = false;
    EXPECT_EQ(nullptr, handler::get_sns_low_power_state_handler());
    service->registration_accepted = true;
    handler* instance = handler::get_sns_low_power_state_handler();
    ASSERT_NE(nullptr, instance);
    EXPECT_EQ(instance, handler::get_sns_low_power_state_handler());
    EXPECT_EQ(2, service->registrations);
    EXPECT_FALSE(service->registered_callback()->isRemote());
    handler::release_wakelock();  // nothing held: nothing sent
    EXPECT_TRUE(handler::acquire_wakelock());
    EXPECT_TRUE(handler::acquire_wakelock());
    handler::release_wakelock();
    handler::release_wakelock();
    EXPECT_EQ(1, service->acquires);
    EXPECT_EQ(1, service->releases);
    EXPECT_EQ("MRSENSORS_KIV;MRSENSORS_KIV;MRSENSORS_KIV;MRSENSORS_KIV;", service->client_names());

    // A failed call leaves the client's flag as it was, so the next is sent again.
    service->wakelock_calls_fail = true;
    EXPECT_FALSE(handler::acquire_wakelock());
    service->wakelock_calls_fail = false;
    EXPECT_TRUE(handler::acquire_wakelock());
    EXPECT_EQ(3, service->acquires);
    service->wakelock_calls_fail = true;
    handler::release_wakelock();
    service->wakelock_calls_fail = false;
    handler::release_wakelock();
    handler::release_wakelock();
    EXPECT_EQ(3, service->releases);
}

}  // namespace
}  // namespace test
}  // namespace kivhal
