// The channel capture end to end: a session recorded in this process, replayed
// by kivhal-coresim against a fresh connection, read by tshark with the
// dissector; and the capture on paths it must refuse or outgrow.
#include <android-base/unique_fd.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>

#include "capture_file.h"
#include "channel_capture.h"
#include "connection_test_fixture.h"
#include "sensorstore_image.h"
#include "sns_std_attr.pb.h"
#include "tool_process.h"
#include "utils/SystemClock.h"

namespace kivhal {
namespace test {
namespace {

using ::testing::AllOf;
using ::testing::Not;

const std::string kSim = tool("kivhal-coresim");
constexpr char kCaptureProperty[] = "persist.vendor.debug.kiv.capture";
constexpr uint32_t kAttributeRequest = 1;
constexpr size_t kEvents = 5;  // attributes, a report, two stored reports, a last report
// A report whose length field (0xffff) is past the packet buffer.
const std::vector<uint8_t> kOversize = {0x21, 0, 1, 0, 0xff, 0xff, 0, 0, 0, 0, 0, 0};

std::string attribute_request(bool stream_updates) {
    sns_std_attr_req inner;
    inner.set_streamupdates(stream_updates);
    sns_client_request_msg envelope;
    envelope.mutable_suid()->set_uidlow(kAccel.low);
    envelope.mutable_suid()->set_uidhigh(kAccel.high);
    envelope.set_msg_id(kAttributeRequest);
    envelope.mutable_request()->set_payload(inner.SerializeAsString());
    return envelope.SerializeAsString();
}

// The low-power part of the connection's dump: what the indications left.
std::string sessions_of(tav_interface& conn) {
    const std::string text = dump_of(conn);
    const size_t from = text.find("  low-power sessions");
    return text.substr(from, text.find("  wake lock") - from);
}

class CaptureTest : public connection_test {
  protected:
    void SetUp() override {
        connection_test::SetUp();
        enable_sensor_store();
        root.write_file("/data/vendor/.keep", "");
    }

    // The client's side, the same in the recorded and the replayed session.
    void drive(bool stream_updates) {
        ASSERT_EQ(0, register_sensor(kAccel, accel));
        conn->send_request(kAccel, true, attribute_request(stream_updates), 0);
    }

    // A session with a response, reports, low-power states and a write-info
    // whose stored reports the library replays, recorded to `capture`.
    void record() {
        host::set_property(kCaptureProperty, capture);
        core->set_auto_respond(true);
        sns_std_attr_event attributes;
        attributes.add_attributelist()->set_attributeid(0);
        attributes.mutable_attributelist(0)->mutable_value()->add_elementlist()->set_stringvalue(
            "accel");
        core->set_attributes(kAccel, attributes);
        ASSERT_NO_FATAL_FAILURE(connect());
        ASSERT_NO_FATAL_FAILURE(drive(false));
        ASSERT_TRUE(accel.wait_for(1));
        core->send_event(core_stub::make_event(kAccel, 1, "live"));
        core->send_packet(core_stub::make_low_power_state(SNS_LOW_POWER_STATE_OFF, 0));
        sensorstore_image image;
        for (const char* stored : {"stored 1", "stored 2"}) {
            image.add_record(sensorstore_image::channel_hash(kChannel),
                             core_stub::make_report(core_stub::make_event(kAccel, 1, stored), true));
        }
        image.add_record(sensorstore_image::channel_hash("other"), core_stub::make_report("", true));
        image.write(root);
        core->send_packet(
            core_stub::make_low_power_state(SNS_LOW_POWER_WRITE_INFO, 0, image.area_len() - 8));
        core->send_packet(kOversize);  // dropped, and captured with the reason
        core->send_event(core_stub::make_event(kAccel, 1, "last"));
        ASSERT_TRUE(accel.wait_for(kEvents));
        recorded_sessions = sessions_of(*conn);
        conn.reset();
        core.reset();
        host::set_property(kCaptureProperty, "");
    }

    // A replaying simulator on a fresh root.
    std::unique_ptr<tool_process> replay(const scoped_root& replay_root) {
        for (const char* file : {"/sys/power/wake_lock", "/sys/power/wake_unlock"})
            replay_root.write_file(file, "");
        auto sim = std::make_unique<tool_process>(
            kSim,
            std::vector<std::string>{"--root", replay_root.path(), "--replay", capture, "--fast"});
        EXPECT_TRUE(sim->wait_for_output("replaying")) << sim->stop(SIGKILL).err;
        return sim;
    }

    const std::string capture = root.host_path("/data/vendor/capture.pcapng");
    std::string recorded_sessions;
};

TEST_F(CaptureTest, ReplayedSessionGivesTheSameCallbacksAndEndsClean) {
    ASSERT_NO_FATAL_FAILURE(record());
    struct stat st;
    ASSERT_EQ(0, stat(capture.c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 0777);
    EXPECT_FALSE(log_contains("capture")) << "capture on must not change the library's log";
    const tools::capture recorded = tools::read_capture(capture);
    const auto dropped = std::find_if(recorded.records.begin(), recorded.records.end(),
                                      [](const tools::capture_record& r) { return r.reason != 0; });
    ASSERT_NE(recorded.records.end(), dropped);
    EXPECT_EQ(kOversize, dropped->bytes);
    EXPECT_EQ(1, dropped->reason);  // the length field past the buffer
    const auto recorded_payloads = accel.payloads();
    const auto recorded_responses = accel.responses();

    scoped_root replay_root;
    auto sim = replay(replay_root);
    event_recorder replayed;
    conn.reset(tav_interface::create(TAV_DUCTO_CONNECTION, tav_conn_config{kChannel}));
    ASSERT_EQ(
        0, conn->register_cb(kAccel, replayed.response_callback(), nullptr, replayed.callback()));
    conn->send_request(kAccel, true, attribute_request(false), 0);
    ASSERT_TRUE(replayed.wait_for(kEvents)) << sim->out();
    EXPECT_EQ(recorded_sessions, sessions_of(*conn));
    conn.reset();
    const tool_result result = sim->stop(0);
    EXPECT_EQ(0, result.exit_code) << result.out << result.err;
    EXPECT_THAT(last_line(result.out), HasSubstr("requests as recorded"));
    struct stat image;  // the stored health records the replay wrote
    ASSERT_EQ(0, stat(replay_root.host_path("/dev/block/bootdevice/by-name/sensorstore").c_str(),
                      &image));
    EXPECT_EQ(0600u, image.st_mode & 0777);

    EXPECT_EQ(recorded_payloads, replayed.payloads());
    EXPECT_EQ(recorded_responses, replayed.responses());
}

// A client that writes raw packets, so a divergence needs no library (which
// would end this process when the replay hangs up).
void send_raw(const std::string& socket_path, const std::vector<uint8_t>* packet) {
    android::base::unique_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, socket_path.c_str(), sizeof(addr.sun_path) - 1);
    ASSERT_EQ(0, connect(fd.get(), reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)));
    if (packet != nullptr) {
        ASSERT_EQ(ssize_t(packet->size()), send(fd.get(), packet->data(), packet->size(), 0));
    }
}

TEST_F(CaptureTest, AChangedRequestIsADivergenceNamingTheField) {
    expect_refused_at_once(kSim, {"--root", root.path(), "--replay", kExampleConfig});
    ASSERT_NO_FATAL_FAILURE(record());
    const tools::capture recorded = tools::read_capture(capture);
    ASSERT_TRUE(recorded.records.at(0).outbound);
    const std::vector<uint8_t> request = recorded.records[0].bytes;
    std::vector<uint8_t> other_session = request;
    other_session[6] = 7;
    std::vector<uint8_t> streaming = request;
    const std::string payload = attribute_request(true);
    std::copy(payload.begin(), payload.end(), streaming.begin() + SNS_DUCTO_REQ_HEAD_LEN);

    const std::string frame =
        "diverged at packet " + std::to_string(recorded.records[0].frame) + " (request 1): ";
    for (const auto& [packet, expected] :
         std::vector<std::pair<const std::vector<uint8_t>*, std::string>>{
             {&other_session, "head.session_id: recorded 0, actual 7"},
             {&streaming, "request.payload.streamUpdates: recorded false, actual true"},
             {nullptr, "the library hung up before sending it"}}) {
        scoped_root replay_root;
        auto sim = replay(replay_root);
        ASSERT_NO_FATAL_FAILURE(
            send_raw(replay_root.host_path("/dev/ductopkt_vorla_sensors"), packet));
        const tool_result result = sim->stop(0);
        EXPECT_EQ(1, result.exit_code) << expected;
        EXPECT_EQ("kivhal-coresim: replay " + frame + expected, last_line(result.out));
    }
}

TEST_F(CaptureTest, TsharkDecodesTheFramingAndTheProtobufPayloads) {
    if (std::string(KIVHAL_TSHARK).empty())
        GTEST_SKIP() << "tshark is not installed (scripts/install-deps.sh installs it)";
    ASSERT_NO_FATAL_FAILURE(record());
    const std::string source(KIVHAL_SOURCE_DIR),
        lua = source + "/tools/wireshark/kivhal_channel.lua";
    const tool_result result =
        run_program(KIVHAL_TSHARK, {"-r", capture, "-P", "-V", "-X", "lua_script:" + lua, "-o",
                                    "uat:protobuf_search_paths:\"" + source + "/proto\",\"TRUE\""});
    ASSERT_EQ(0, result.exit_code) << result.err;
    // Dates, not the boot clock's 1970.
    EXPECT_THAT(result.out, Not(HasSubstr("Arrival Time: Jan  1, 1970")));
    EXPECT_THAT(result.out, HasSubstr("Arrival Time: "));
    for (const char* text :
         {"-> 0x20 SNS_AON_CLIENT_REQ_V01 msg_id 1", "<- 0x20 SNS_AON_CLIENT_RESP_V01",
          "<- 0x21 SNS_AON_CLIENT_REPORT_IND_V01 event 128",
          "<- 0x31 SNS_AON_CLIENT_LOW_PWR_STATE_IND_V01 SNS_LOW_POWER_WRITE_INFO",
          "stored <- 0x22 SNS_AON_CLIENT_JUMBO_REPORT_IND_V01 event 1", "sensorstore header",
          "Client request id: 1", "Field(1): uidLow = 4369 (fixed64)",
          "Field(1): streamUpdates = false (bool)", "Field(1): attributeId = 0 (int32)",
          "Field(2): stringValue = accel (string)",
          "<- 0x21 SNS_AON_CLIENT_REPORT_IND_V01 [dropped: length field past the packet buffer]",
          "Dropped by the library: length field past the packet buffer (1)"}) {
        EXPECT_THAT(result.out, HasSubstr(text));
    }
    // A proto path that does not resolve is named, not silent.
    const tool_result unresolved =
        run_program(KIVHAL_TSHARK, {"-r", capture, "-V", "-X", "lua_script:" + lua, "-o",
                                    "uat:protobuf_search_paths:\"proto\",\"TRUE\""});
    EXPECT_THAT(
        unresolved.out,
        HasSubstr("protobuf type sns_client_request_msg not found: set protobuf_search_paths"));
}

// Anything but a private regular file of this user with one link is refused
// with one line; a write that fails switches capture off and leaves whole
// blocks. The connection carries on.
TEST_F(CaptureTest, HostilePathsAndAFullDiskLogOnceAndCarryOn) {
    const std::string dir = root.host_path("/dir"), fifo = root.host_path("/fifo");
    const std::string link = root.host_path("/link"), foreign = root.host_path("/foreign");
    const std::string limited = root.host_path("/limited"), hard = root.host_path("/hard");
    ASSERT_EQ(0, mkdir(dir.c_str(), 0700));
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    ASSERT_EQ(0, symlink(limited.c_str(), link.c_str()));
    root.write_file("/foreign", "");
    root.write_file("/victim", "keep");
    ASSERT_EQ(0, ::link(root.host_path("/victim").c_str(), hard.c_str()));
    constexpr rlim_t kFileLimit = 2048;  // the header and one request fit
    struct rlimit saved;
    ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &saved));
    signal(SIGXFSZ, SIG_IGN);
    core->set_auto_respond(true);
    for (const auto& [path, line] : std::vector<std::pair<std::string, std::string>>{
             {dir, "cannot be opened: Is a directory"},
             {fifo, "refused: not a regular file (mode 010600)"},
             {link, "cannot be opened: Too many levels of symbolic links"},
             {foreign, "refused: owned by uid 65534"},
             {hard, "refused: it has 2 links"},
             {limited, "write failed: "}}) {
        if (path == foreign && (geteuid() != 0 || chown(foreign.c_str(), 65534, 65534) != 0)) {
            std::cout << "[ SKIPPED  ] a file of another user: chown needs root\n";
            continue;
        }
        host::clear_captured_log();
        host::set_property(kCaptureProperty, path);
        struct rlimit limit = {kFileLimit, saved.rlim_max};
        ASSERT_EQ(0, path == limited ? setrlimit(RLIMIT_FSIZE, &limit) : 0);
        ASSERT_NO_FATAL_FAILURE(connect());
        event_recorder answers;
        ASSERT_EQ(0, conn->register_cb(kAccel, answers.response_callback(), nullptr, nullptr));
        for (int i = 0; i < 3; ++i) send(kAccel, kAttributeRequest);
        EXPECT_TRUE(answers.wait_responses(3)) << path;
        // The writer meets the limit within its second.
        EXPECT_TRUE(eventually([&] { return log_contains("TAV_DUCTO capture to " + path); }))
            << path;
        setrlimit(RLIMIT_FSIZE, &saved);
        const auto lines = log_lines_containing("TAV_DUCTO capture to " + path, ANDROID_LOG_ERROR);
        ASSERT_EQ(1u, lines.size()) << path;
        EXPECT_THAT(lines[0].text, AllOf(HasSubstr(line), HasSubstr("capture off")));
        EXPECT_THAT(dump_of(*conn),
                    HasSubstr(path == limited ? "  capture: off after an error, \"" + path
                                              : std::string("  capture: off\n")));
        conn.reset();
    }
    EXPECT_EQ("keep", root.read_file("/victim"));
    struct stat st;
    ASSERT_EQ(0, stat(limited.c_str(), &st));
    EXPECT_LE(st.st_size, off_t(kFileLimit));
    const tools::capture cut = tools::read_capture(limited);
    EXPECT_FALSE(cut.cut_short);
    EXPECT_FALSE(cut.records.empty());  // what fit, whole
    if (!std::string(KIVHAL_TSHARK).empty()) {
        const tool_result result = run_program(KIVHAL_TSHARK, {"-r", limited});
        EXPECT_EQ(0, result.exit_code) << result.err;
    }
}

// Outbound records of `channel` (or the inbound ones), in file order.
std::vector<const tools::capture_record*> packets(const tools::capture& c,
                                                  const std::string& channel, bool outbound) {
    std::vector<const tools::capture_record*> out;
    for (const auto& r : c.records) {
        if (!r.sensorstore && r.channel == channel && r.outbound == outbound) out.push_back(&r);
    }
    return out;
}

// Two senders on one connection and a second connection on its own channel,
// all into one file: in time order, each request before its response, each
// channel's packets on its own interface, byte for byte.
TEST_F(CaptureTest, SendersAndConnectionsShareOneFileInTimeOrderEachOnItsInterface) {
    constexpr int kPerThread = 500, kSecondRequests = 20;
    const char kSecond[] = "second";
    core_stub second_core(kSecond);
    event_recorder other;
    host::set_property(kCaptureProperty, capture);
    core->set_auto_respond(true);
    second_core.set_auto_respond(true);
    const auto answered = [&] {
        return accel.responses().size() + gyro.responses().size() + other.responses().size();
    };
    // Each request's write returns only once its answer has been read: the
    // reader records the response before the sender is back. (The stand-in
    // writes through the same hook: its packets are shorter.)
    std::atomic<size_t> writes{0};
    host::set_channel_hooks({nullptr, nullptr,
                             [&](int fd, const void* buf, size_t len) {
                                 const ssize_t n = host::real_write_node(fd, buf, len);
                                 if (len != 1013) return n;  // not a request
                                 const size_t sent = ++writes;
                                 eventually([&] { return answered() >= sent; }, kWait);
                                 return n;
                             },
                             nullptr});
    ASSERT_NO_FATAL_FAILURE(connect());
    std::unique_ptr<tav_interface> second(
        tav_interface::create(TAV_DUCTO_CONNECTION, tav_conn_config{kSecond}));
    ASSERT_TRUE(second_core.wait_connected(kWait));
    ASSERT_EQ(0, register_sensor(kAccel, accel));
    ASSERT_EQ(0, register_sensor(kGyro, gyro));
    ASSERT_EQ(0, second->register_cb(kGyro, other.response_callback(), nullptr, nullptr));
    std::thread sender([&] {
        for (int i = 0; i < kPerThread; ++i) send(kGyro, kAttributeRequest);
    });
    for (int i = 0; i < kPerThread; ++i) {
        send(kAccel, kAttributeRequest, i);
        if (i < kSecondRequests)
            second->send_request(kGyro, true, request_payload(kGyro, kAttributeRequest), i);
    }
    sender.join();
    ASSERT_TRUE(eventually([&] { return answered() == 2 * kPerThread + kSecondRequests; }));
    conn.reset();  // the first one out leaves the file to the other
    second.reset();

    const tools::capture c = tools::read_capture(capture);
    EXPECT_EQ(2u, c.channel_interfaces);
    EXPECT_EQ(0u, c.dropped);
    // read_capture sorts by time, stable: file order is time order when no frame moved.
    for (size_t i = 0; i < c.records.size(); ++i)
        ASSERT_EQ(i + 1, c.records[i].frame) << "record " << i;
    for (auto [stub, channel] :
         {std::pair<core_stub*, const char*>{core.get(), kChannel}, {&second_core, kSecond}}) {
        const auto sent = stub->take_requests();
        const auto requests = packets(c, channel, true), responses = packets(c, channel, false);
        ASSERT_EQ(sent.size(), requests.size()) << channel;
        ASSERT_EQ(sent.size(), responses.size()) << channel;
        // The core answers in order: the k-th response answers the k-th request.
        for (size_t k = 0; k < sent.size(); ++k) {
            EXPECT_EQ(sent[k].raw, requests[k]->bytes) << channel << " " << k;
            ASSERT_LT(requests[k]->frame, responses[k]->frame) << channel << " " << k;
        }
    }
    EXPECT_EQ(size_t(kSecondRequests), other.responses().size());
}

// How a child that captured ends: every record must be in the file.
enum class ending { exit_on_reader_thread, hang_up, kill_after_quiet_second };

TEST(CaptureEndTest, ExitAHangUpAndAKillAfterAQuietSecondLoseNothing) {
    constexpr size_t kRequests = 10;
    TemporaryDir dir;
    for (const auto& [how, expected_status] :
         std::vector<std::pair<ending, int>>{{ending::exit_on_reader_thread, 3 << 8},
                                             {ending::hang_up, 1 << 8},
                                             {ending::kill_after_quiet_second, SIGKILL}}) {
        const std::string path =
            std::string(dir.path) + "/end" + std::to_string(int(how)) + ".pcapng";
        const pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            // No gtest here: a failed step is the exit status.
            scoped_root root;
            for (const char* file : {"/sys/power/wake_lock", "/sys/power/wake_unlock"})
                root.write_file(file, "");
            auto core = std::make_unique<core_stub>(kChannel);
            core->set_auto_respond(true);
            host::set_property(kCaptureProperty, path);
            std::atomic<size_t> responses{0};
            std::unique_ptr<tav_interface> conn(
                tav_interface::create(TAV_DUCTO_CONNECTION, tav_conn_config{kChannel}));
            conn->register_cb(
                kAccel,
                [&](uint32_t, uint64_t) {
                    if (++responses == kRequests && how == ending::exit_on_reader_thread) exit(3);
                },
                nullptr, nullptr);
            for (size_t i = 0; i < kRequests; ++i)
                conn->send_request(kAccel, true, attribute_request(false), 0);
            if (!eventually([&] { return responses == kRequests; })) _exit(10);
            if (how == ending::hang_up) core.reset();
            if (how == ending::kill_after_quiet_second) {
                // Read as it grows: until the writer's first second, not a capture yet.
                eventually([&] {
                    try {
                        return tools::read_capture(path).records.size() == 2 * kRequests;
                    } catch (const std::exception&) {
                        return false;
                    }
                });
                raise(SIGKILL);
            }
            for (;;) pause();
        }
        int status = 0;
        ASSERT_TRUE(eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; },
                               std::chrono::seconds(10)))
            << "child " << int(how) << " hangs";
        EXPECT_EQ(expected_status, status) << int(how);
        const tools::capture c = tools::read_capture(path);
        EXPECT_EQ(kRequests, packets(c, kChannel, true).size()) << int(how);
        EXPECT_EQ(kRequests, packets(c, kChannel, false).size()) << int(how);
    }
}

TEST(CaptureRotationTest, AtTheLimitTheFileBecomesDotOneAndANewOneStarts) {
    scoped_root root;
    const std::string path = root.host_path("/capture.pcapng");
    // Rounds of 60 records of 500 bytes: less than a flush's 64 KiB, so each
    // round is written whole by the writer's second. The file's size after
    // the last round, before the capture ends.
    constexpr int kPerRound = 60;
    const auto rounds = [&](const std::string& file, uint64_t limit, uint8_t count) {
        auto capture = connection::channel_capture::open(file, "sensors", limit);
        EXPECT_TRUE(capture);
        std::vector<uint8_t> packet(500);
        for (uint8_t round = 0; capture && round < count; ++round) {
            packet[0] = round;
            for (int i = 0; i < kPerRound; ++i) capture->inbound(packet.data(), packet.size());
            EXPECT_TRUE(eventually([&] { return capture->get_status().pending_bytes == 0; }));
        }
        EXPECT_EQ(uint64_t(count * kPerRound), capture->get_status().records);
        EXPECT_EQ(0u, capture->get_status().all_dropped);
        struct stat st = {};
        stat(file.c_str(), &st);
        return uint64_t(st.st_size);
    };
    const std::string measured = root.host_path("/one-round.pcapng");
    const uint64_t started_ns = uint64_t(android::elapsedRealtimeNano());
    const uint64_t one_round = rounds(measured, UINT64_MAX, 1);
    // The channel's interface block: link type 147, snap length 65539, its
    // name (the device node) and nanosecond stamps (if_tsresol 9, one byte).
    std::string bytes;
    ASSERT_TRUE(android::base::ReadFileToString(measured, &bytes));
    EXPECT_NE(std::string::npos,
              bytes.find(std::string("\x93\x00\x00\x00\x03\x00\x01\x00\x02\x00\x16\x00"
                                     "ductopkt_vorla_sensors\x00\x00"
                                     "\x09\x00\x01\x00\x09\x00\x00\x00",
                                     42)));
    // Statistics of both interfaces close the file: 40 bytes each, stamped
    // on the boot clock while the capture ended, no drops.
    for (const char* head : {"\x05\0\0\0\x28\0\0\0\0\0\0\0", "\x05\0\0\0\x28\0\0\0\x01\0\0\0"}) {
        const size_t isb = bytes.find(std::string(head, 12));
        ASSERT_NE(std::string::npos, isb) << int(head[8]);
        uint32_t stamp[2];
        memcpy(stamp, &bytes[isb + 12], sizeof(stamp));
        EXPECT_LE(uint64_t(stamp[0]) << 32 | stamp[1], uint64_t(android::elapsedRealtimeNano()));
        EXPECT_GE(uint64_t(stamp[0]) << 32 | stamp[1], started_ns);
        EXPECT_EQ(std::string("\x05\x00\x08\x00\0\0\0\0\0\0\0\0\0\0\0\0\x28\x00\x00\x00", 20),
                  bytes.substr(isb + 20, 20));
    }
    // The second round ends exactly at the limit: a record is an enhanced
    // packet block of 28 + 500 + 16 bytes.
    rounds(path, one_round + kPerRound * 544, 3);
    const tools::capture current = tools::read_capture(path);
    const tools::capture previous = tools::read_capture(path + ".1");
    // The second round reached the limit: .1 holds rounds 0 and 1.
    ASSERT_EQ(size_t(kPerRound), current.records.size());
    ASSERT_EQ(size_t(2 * kPerRound), previous.records.size());
    EXPECT_EQ(2, current.records.front().bytes[0]);
    EXPECT_EQ(0, previous.records.front().bytes[0]);
    EXPECT_EQ(1, previous.records.back().bytes[0]);
    for (const std::string& file : {path, path + ".1"}) {
        struct stat st;
        ASSERT_EQ(0, stat(file.c_str(), &st));
        EXPECT_EQ(0600u, st.st_mode & 0777);
    }
    EXPECT_EQ("sensors", current.channel);

    // A new start moves the session aside; one that never wrote a record
    // does not, so the session is still there after a failed start.
    for (int start = 0; start < 2; ++start)
        ASSERT_TRUE(connection::channel_capture::open(path, "sensors"));
    const tools::capture kept = tools::read_capture(path + ".1");
    ASSERT_EQ(size_t(kPerRound), kept.records.size());
    EXPECT_EQ(2, kept.records.back().bytes[0]);
    // A lone record on a written-out ring wakes the writer.
    {
        auto capture = connection::channel_capture::open(root.host_path("/lone.pcapng"), "sensors");
        ASSERT_TRUE(eventually([&] { return capture->get_status().pending_bytes == 0; }));
        capture->inbound(reinterpret_cast<const uint8_t*>("x"), 1);
        EXPECT_TRUE(eventually([&] { return capture->get_status().pending_bytes == 0; }));
    }
    // The reused file was emptied first: it starts with its section header.
    EXPECT_EQ(std::string("\x0a\x0d\x0d\x0a", 4), root.read_file("/capture.pcapng").substr(0, 4));
}

// By default a file is rotated past 16 MiB, and a packet's padding is zeros
// even where the ring, gone round many times, held a record before.
TEST(CaptureRotationTest, TheDefaultLimitIs16MiBAndPaddingStaysZeroAfterTheRingWraps) {
    scoped_root root;
    const std::string path = root.host_path("/capture.pcapng");
    auto capture = connection::channel_capture::open(path, "sensors");
    ASSERT_TRUE(capture);
    // 4093 bytes: three of padding; 4140 bytes a block; 200 of them stay
    // within the 1 MiB ring.
    const std::vector<uint8_t> packet(4093, 0xff);
    const auto write = [&](int rounds) {
        for (int round = 0; round < rounds; ++round) {
            for (int i = 0; i < 200; ++i) capture->inbound(packet.data(), packet.size());
            ASSERT_TRUE(eventually([&] { return capture->get_status().pending_bytes == 0; }));
        }
    };
    write(19);  // 15.0 MiB
    EXPECT_NE(0, access((path + ".1").c_str(), F_OK));
    write(2);  // 16.6 MiB
    EXPECT_EQ(0u, capture->get_status().all_dropped);
    capture.reset();
    std::string bytes;
    ASSERT_TRUE(android::base::ReadFileToString(path + ".1", &bytes));
    ASSERT_GT(bytes.size(), 16u << 20);
    size_t packets = 0;
    for (size_t at = 0; at + 8 <= bytes.size();) {
        uint32_t head[6];
        memcpy(head, &bytes[at], std::min(sizeof(head), bytes.size() - at));
        if (head[0] == 6) {
            ASSERT_EQ(4093u, head[5]);
            EXPECT_EQ(std::string(3, '\0'), bytes.substr(at + 28 + 4093, 3)) << packets;
            ++packets;
        }
        ASSERT_GE(head[1], 12u);
        at += head[1];
    }
    EXPECT_GT(packets, 4000u);
}

}  // namespace
}  // namespace test
}  // namespace kivhal
