// Channel errors a socket cannot produce on its own, injected through the
// channel hooks: open time-outs, descriptor 0, busy and partial writes, read
// EAGAIN, the error counter, and the hang-up that ends the process; and the
// interface's slots as a service built against it calls them.
#include <android-base/file.h>
#include <android-base/scopeguard.h>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include "connection_test_fixture.h"
#include "sns_wakelock.h"

namespace kivhal {
namespace test {

// The interface as services are built against it: the two operations, then
// the destructor pair, and nothing between. Outside the unnamed namespace:
// there, no other class could derive from it, and the compiler would take
// every call for a pure virtual one.
class service_view {
  public:
    virtual int register_cb(sensor_uid suid, tav_resp_cb resp_cb, tav_error_cb error_cb,
                            tav_event_cb event_cb) = 0;
    virtual int send_request(sensor_uid suid, bool flag, std::string payload, int session_id) = 0;
    virtual ~service_view() {}
};

namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using counter = std::shared_ptr<std::atomic<int>>;

constexpr size_t kPacketLen = 1013;

size_t entries(const char* dir) {
    std::unique_ptr<DIR, int (*)(DIR*)> d(opendir(dir), closedir);
    size_t n = 0;
    while (d && readdir(d.get()) != nullptr) ++n;
    return n;
}

std::string open_error(int code) {
    return "TAV_DUCTO_ERROR TAV_DUCTO_int open failed : Unknown error " + std::to_string(code) +
           " (" + std::to_string(code) + ")";
}

// Only time-outs are retried, three tries a second apart; descriptor 0 is never the channel.
TEST_F(connection_test, OpenRetriesOnlyTimeOutsAndNeverTakesDescriptorZero) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // descriptor 1 is: stdout becomes the channel
    EXPECT_EXIT(
        {
            host::set_channel_hooks({[](const char* path, int flags) {
                                         return dup2(host::real_open_node(path, flags), 1);
                                     },
                                     nullptr, nullptr, nullptr});
            conn.reset(tav_interface::create(TAV_DUCTO_CONNECTION, {kChannel}));
            _exit(dump_of(*conn).find(", fd 1, reader thread running\n") == std::string::npos);
        },
        ::testing::ExitedWithCode(0), "");
    const struct {
        int error, result, failures, opens;
        std::chrono::milliseconds at_least;
        int thrown;  // 0: the connection opens
    } cases[] = {
        {ETIMEDOUT, -1, INT_MAX, 3, 2900ms, -ETIMEDOUT},
        {ENOENT, -1, INT_MAX, 1, 0ms, -ENOENT},
        {ENXIO, 0, INT_MAX, 1, 0ms, -ENXIO},
        {ETIMEDOUT, 0, 1, 2, 900ms, 0},  // a 0 that comes with a time-out is retried like any
    };
    for (const auto& c : cases) {
        const counter opens = std::make_shared<std::atomic<int>>(0);
        host::set_channel_hooks({failing(host::real_open_node, c.error, c.failures, c.result, opens),
                                 nullptr, nullptr, nullptr});
        const auto start = steady_clock::now();
        if (c.thrown != 0) {
            EXPECT_THAT([] { delete tav_interface::create(TAV_DUCTO_CONNECTION, {kChannel}); },
                        ThrowsMessage<ducto_error>(StrEq(open_error(c.thrown))));
        } else {
            ASSERT_NO_FATAL_FAILURE(connect());
        }
        EXPECT_GE(steady_clock::now() - start, c.at_least) << c.error;
        EXPECT_EQ(c.opens, opens->load()) << c.error;
    }
    EXPECT_THAT([] { delete tav_interface::create(TAV_DUCTO_CONNECTION, {nullptr}); },
                ThrowsMessage<ducto_error>(StrEq(open_error(-EINVAL))));
}

TEST_F(connection_test,
       WritesAreRetriedAHundredTimesFiveMillisecondsApartAndReadsJoinPiecesWithinThreeEagains) {
    ASSERT_NO_FATAL_FAILURE(connect());
    ASSERT_EQ(0, register_sensor(kAccel, accel));
    host::set_channel_hooks({nullptr, nullptr, failing(host::real_write_node, EBUSY, 2), nullptr});
    send(kAccel, 512);
    ASSERT_TRUE(core->wait_for_requests(1, kWait));
    EXPECT_EQ(kPacketLen, core->requests()[0].raw.size());
    EXPECT_TRUE(log_contains("complete bytes written= 1013 retries 2", ANDROID_LOG_INFO));
    core->send_response({});
    ASSERT_TRUE(accel.wait_responses(1));

    const counter writes = std::make_shared<std::atomic<int>>(0);
    host::set_channel_hooks(
        {nullptr, nullptr, failing(host::real_write_node, EAGAIN, INT_MAX, -1, writes), nullptr});
    const auto start = steady_clock::now();
    EXPECT_THAT([&] { send(kAccel, 512); },
                ThrowsMessage<ducto_error>(
                    StrEq("TAV_DUCTO_ERROR ducto_write failed : Unknown error -11 (-11)")));
    EXPECT_GE(steady_clock::now() - start, 99 * 5ms);
    EXPECT_EQ(100, writes->load());

    // A partial write is finished and its last piece's length returned; a
    // write that takes nothing ends the packet.
    std::vector<uint8_t> packet(kPacketLen);
    for (size_t i = 0; i < packet.size(); ++i) packet[i] = static_cast<uint8_t>(i * 7);
    auto closed =
        android::base::make_scope_guard([&] { conn.reset(); });  // the hooks refer to this scope
    const struct {
        std::vector<ssize_t> pieces;
        int result;
        size_t written;
    } writes_of[] = {{{500, 513}, 513, kPacketLen}, {{500, 0}, 0, 500}, {{0}, 0, 0}};
    for (const auto& c : writes_of) {
        std::string written;
        size_t call = 0;
        host::set_channel_hooks({nullptr, nullptr,
                                 [&](int, const void* buf, size_t) {
                                     const ssize_t n = c.pieces.at(call++);
                                     written.append(static_cast<const char*>(buf), n);
                                     return n;
                                 },
                                 nullptr});
        EXPECT_EQ(c.result, ducto()->ducto_write(3, packet.data(), kPacketLen));
        EXPECT_EQ(std::string(packet.begin(), packet.begin() + c.written), written);
        EXPECT_EQ(c.pieces.size(), call);
    }
    EXPECT_EQ(0u, sns_wakelock::get_instance()->get_state().count);

    // Reads: a packet in pieces is joined once its length field (bytes 4-5)
    // is in; three EAGAINs per packet, in a row or not, give up. -1: EAGAIN.
    EXPECT_EQ(0, ducto()->ducto_read(3, packet.data(), 0));
    const struct {
        uint16_t length;
        std::vector<ssize_t> pieces;
        int result;
        std::vector<size_t> asked;
    } reads_of[] = {{40, {3, 4, 33}, 40, {64, 61, 40}},
                    {40, {0, 7, 33}, 40, {64, 64, 40}},
                    {65, {7}, 0, {64}},
                    {40, {-1, 6, -1, 1, 33}, 40, {64, 64, 58, 58, 40}},
                    {40, {-1, 7, -1, 10, -1}, -EAGAIN, {64, 64, 40, 40, 40}},
                    {64, {40, 24}, 64, {64, 24}}};
    for (const auto& c : reads_of) {
        std::string device(c.length, 'p');
        device[4] = static_cast<char>(c.length);
        device[5] = 0;
        size_t at = 0;
        std::vector<size_t> asked;
        host::set_channel_hooks({nullptr,
                                 [&](int, void* buf, size_t len) -> ssize_t {
                                     asked.push_back(len);
                                     const ssize_t n = c.pieces.at(asked.size() - 1);
                                     errno = EAGAIN;
                                     memcpy(buf, device.data() + at, std::max<ssize_t>(n, 0));
                                     at += std::max<ssize_t>(n, 0);
                                     return n;
                                 },
                                 nullptr, nullptr});
        std::vector<uint8_t> buf(64);
        EXPECT_EQ(c.result, ducto()->ducto_read(3, buf.data(), 64)) << c.pieces.size();
        EXPECT_EQ(c.asked, asked) << c.pieces.size();
        const size_t joined = static_cast<size_t>(std::max(c.result, 0));
        EXPECT_EQ(device.substr(0, joined), std::string(buf.begin(), buf.begin() + joined));
    }

    // A closed channel takes no write.
    host::set_channel_hooks(
        {nullptr, nullptr, failing(host::real_write_node, EIO, INT_MAX, -1, writes), nullptr});
    ducto()->ducto_disconnect(false);
    EXPECT_EQ(0, ducto()->ducto_write(3, packet.data(), kPacketLen));
    EXPECT_EQ(100, writes->load());
}

// A disable request whose write fails is taken back, the newest of its sensor,
// and the two failures count as channel errors.
TEST_F(connection_test, AFailedDisableWriteLeavesTheEarlierRequestsAwaitingTheirAnswers) {
    ASSERT_NO_FATAL_FAILURE(connect());
    ASSERT_EQ(0, register_sensor(kAccel, accel));
    ASSERT_EQ(0, register_sensor(kGyro, gyro));
    send(kAccel, 10);
    send(kGyro, 10);
    host::set_channel_hooks({nullptr, nullptr, failing(host::real_write_node, EIO), nullptr});
    host::clear_captured_log();
    EXPECT_THROW(send(kAccel, 10), ducto_error);
    EXPECT_FALSE(log_contains("complete bytes written"));
    const std::string waiting =
        "    00000000000000a1:0000000000001111\n    00000000000000b2:0000000000002222\n";
    EXPECT_THAT(dump_of(*conn),
                HasSubstr("  channel errors: 2 in a row (limit 10)\n"
                          "  registered sensors: 2 (client request ids 2 in use, 253 free)\n"));
    EXPECT_THAT(dump_of(*conn),
                HasSubstr("  pending responses, oldest first: 2\n" + waiting +
                          "  disable requests awaiting their response: 2\n" + waiting));
}

// Refused because the partition header cannot be marked: no descriptor or
// thread of the half-built connection is left.
TEST_F(connection_test, AConnectionRefusedForItsPartitionLeavesNothingBehind) {
    enable_sensor_store();
    root.write_file(kSensorStorePartition, "abcd");
    sns_wakelock::get_instance();  // its files are not the connection's
    const size_t fds = entries("/proc/self/fd"), threads = entries("/proc/self/task");
    EXPECT_THAT([] { delete tav_interface::create(TAV_DUCTO_CONNECTION, {kChannel}); },
                ThrowsMessage<ducto_error>(HasSubstr("TAV_SENSORSTORE read failure")));
    // The core stand-in lets go of its end in its own time.
    EXPECT_TRUE(eventually(
        [&] { return entries("/proc/self/fd") == fds && entries("/proc/self/task") == threads; }));
    EXPECT_EQ("abcd", root.read_file(kSensorStorePartition));
}

TEST_F(connection_test, ErrorStreaksStartOverPastTheLimitAndEndWithACleanPass) {
    // Thirteen passes fail: a pass gives up after three EAGAINs, and the read
    // and the handler count one each. The count passes the limit of ten at 12
    // twice, starting over each time, and stands at 2 before the clean pass.
    constexpr int kFailingReads = 13 * 3;
    std::atomic<int> reads{0}, pipe_read_end{-1};
    std::atomic<bool> paused{false}, resume{false};
    host::channel_hooks hooks;
    hooks.read = [&](int fd, void* buf, size_t len) -> ssize_t {
        if (++reads <= kFailingReads) {
            errno = EAGAIN;
            return -1;
        }
        paused = true;
        while (!resume) std::this_thread::yield();
        return host::real_read_node(fd, buf, len);
    };
    hooks.poll = [&pipe_read_end](struct pollfd* fds, nfds_t nfds, int timeout) {
        pipe_read_end = fds[0].fd;
        return host::real_poll_nodes(fds, nfds, timeout);
    };
    host::set_channel_hooks(hooks);
    auto closed = android::base::make_scope_guard([&] {
        resume = true;
        conn.reset();  // the hooks refer to this scope
    });
    ASSERT_NO_FATAL_FAILURE(connect());
    ASSERT_EQ(0, register_sensor(kAccel, accel));
    core->send_event(core_stub::make_event(kAccel, 1, "after errors"));
    ASSERT_TRUE(eventually([&] { return paused.load(); }));
    EXPECT_THAT(dump_of(*conn), HasSubstr("  channel errors: 2 in a row (limit 10)\n"));
    resume = true;
    ASSERT_TRUE(accel.wait_for(1));
    EXPECT_TRUE(eventually(
        [&] { return dump_of(*conn).find("channel errors: 0 in a row") != std::string::npos; }));

    // A stray byte on the wake-up pipe stops nothing. Opened through /proc,
    // the pipe's read end yields a second write end.
    const std::string pipe_path = "/proc/self/fd/" + std::to_string(pipe_read_end);
    android::base::unique_fd write_end(open(pipe_path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    ASSERT_EQ(1, write(write_end, "x", 1));
    core->send_event(core_stub::make_event(kAccel, 1, "still reading"));
    EXPECT_TRUE(accel.wait_for(2));
}

// Calls through the service's table on purpose: the type differs from the
// object's, which is what the undefined-behaviour checker would object to.
__attribute__((no_sanitize("undefined"))) void end_through_service_view(tav_interface* conn,
                                                                        bool deleting) {
    auto* view = reinterpret_cast<service_view*>(conn);
    for (const int registered : {0, -1}) {
        ASSERT_EQ(registered,
                  view->register_cb(kAccel, tav_resp_cb(), tav_error_cb(), tav_event_cb()));
    }
    if (deleting) {
        delete view;
    } else {
        view->~service_view();
        ::operator delete(conn);
    }
}

TEST_F(connection_test, AServiceBuiltAgainstTheInterfaceEndsTheConnectionThroughItsSlots) {
    sns_wakelock::get_instance();  // its descriptors stay for the process's life
    for (const bool deleting : {true, false}) {
        const size_t threads = entries("/proc/self/task"), fds = entries("/proc/self/fd");
        tav_interface* raw = tav_interface::create(TAV_DUCTO_CONNECTION, tav_conn_config{kChannel});
        ASSERT_TRUE(core->wait_connected(kWait));
        EXPECT_EQ(threads + 2, entries("/proc/self/task"));  // the reader and the worker
        end_through_service_view(raw, deleting);
        EXPECT_TRUE(eventually([&] { return entries("/proc/self/task") == threads; })) << deleting;
        // The stand-in closes its side of the channel on its own thread.
        EXPECT_TRUE(eventually([&] { return entries("/proc/self/fd") == fds; })) << deleting;
    }
}

std::string g_exit_marker;
void write_exit_marker() {
    android::base::WriteStringToFile("atexit ran", g_exit_marker);
}

// A hang-up ends the process through exit(1): the service's own atexit
// handlers and static destructors run, and nothing the library deferred is
// lost: the wake lock's release and the capture's last packet. A connection
// that a static object owns is destroyed by exit() on the reader thread.
TEST_F(connection_test, AHangUpEndsTheProcessThroughExitAndLosesNothing) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // The child re-runs this body on a root of its own: it inherits the
    // parent's through the environment, where the results are read.
    constexpr char kParentRoot[] = "KIVHAL_TEST_PARENT_ROOT";
    setenv(kParentRoot, root.path().c_str(), 0);
    auto unset = android::base::make_scope_guard([&] { unsetenv(kParentRoot); });
    const std::string on(getenv(kParentRoot));
    const std::string name("KIVHAL_WAKEUP\0", 14);
    core.reset();  // the child serves the parent's channel
    for (const bool static_owner : {false, true}) {
        for (const char* file : {"/sys/power/wake_lock", "/sys/power/wake_unlock", "/marker"}) {
            android::base::WriteStringToFile("", on + file);
        }
        unlink((on + "/capture").c_str());
        EXPECT_EXIT(
            {
                setenv("KIVHAL_ROOT", on.c_str(), 1);
                g_exit_marker = on + "/marker";
                atexit(write_exit_marker);
                host::set_property("persist.vendor.kiv.wakelock_holdoff_ms", "10000");
                host::set_property("persist.vendor.debug.kiv.capture", on + "/capture");
                core = std::make_unique<core_stub>(kChannel);
                static std::unique_ptr<tav_interface> owner;
                ASSERT_NO_FATAL_FAILURE(connect());
                if (static_owner) owner = std::move(conn);
                tav_interface& c = static_owner ? *owner : *conn;
                ASSERT_EQ(0, c.register_cb(kAccel, nullptr, nullptr, accel.callback()));
                core->send_event(core_stub::make_event(kAccel, 1, "last before the hang-up"));
                ASSERT_TRUE(accel.wait_for(1));
                core->close_connection();
                std::this_thread::sleep_for(std::chrono::seconds(10));
            },
            ::testing::ExitedWithCode(1), "");
        std::string marker, lock, unlock, capture;
        android::base::ReadFileToString(on + "/marker", &marker);
        android::base::ReadFileToString(on + "/sys/power/wake_lock", &lock);
        android::base::ReadFileToString(on + "/sys/power/wake_unlock", &unlock);
        android::base::ReadFileToString(on + "/capture", &capture);
        EXPECT_EQ("atexit ran", marker) << static_owner;
        EXPECT_EQ(name, lock) << static_owner;
        EXPECT_EQ(name, unlock) << static_owner;
        EXPECT_THAT(capture, HasSubstr("last before the hang-up")) << static_owner;
    }
}

}  // namespace
}  // namespace test
}  // namespace kivhal
