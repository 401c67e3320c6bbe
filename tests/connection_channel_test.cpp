// Channel errors a socket cannot produce on its own, injected through the
// channel hooks: open time-outs, descriptor 0, busy and partial writes, read
// EAGAIN, the error counter, and the hang-up that ends the process.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "connection_test_fixture.h"

namespace kivhal {
namespace test {
namespace {

using std::chrono::steady_clock;

constexpr size_t kPacketLen = 1013;

host::channel_hooks failing_open(int err, int result = -1) {
    host::channel_hooks hooks;
    hooks.open = [err, result](const char*, int) {
        errno = err;
        return result;
    };
    return hooks;
}

std::string create_error_text() {
    try {
        delete tav_interface::create(TAV_DUCTO_CONNECTION, tav_conn_config{kChannel});
    } catch (const ducto_error& e) {
        return e.what();
    }
    return "no error";
}

// The write end of the pipe whose read end is `read_fd`.
int pipe_write_end(int read_fd) {
    struct stat target;
    if (fstat(read_fd, &target) != 0) return -1;
    DIR* dir = opendir("/proc/self/fd");
    int found = -1;
    while (struct dirent* entry = readdir(dir)) {
        const int fd = atoi(entry->d_name);
        struct stat st;
        if (fd == read_fd || fstat(fd, &st) != 0 || st.st_ino != target.st_ino) continue;
        if ((fcntl(fd, F_GETFL) & O_ACCMODE) == O_WRONLY) found = fd;
    }
    closedir(dir);
    return found;
}

TEST_F(connection_test, OpenThatKeepsTimingOutFailsAfterThreeSeconds) {
    host::set_channel_hooks(failing_open(ETIMEDOUT));
    const auto start = steady_clock::now();
    EXPECT_EQ("TAV_DUCTO_ERROR TAV_DUCTO_int open failed : Unknown error -110 (-110)",
              create_error_text());
    const auto elapsed = steady_clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::milliseconds(2900));
    EXPECT_LT(elapsed, std::chrono::milliseconds(4500));
    EXPECT_EQ(3u, log_lines_containing("ducto channel open timeout").size());
    EXPECT_TRUE(log_contains("retries count =  3"));
}

TEST_F(connection_test, DescriptorZeroIsNeverAccepted) {
    host::set_channel_hooks(failing_open(ENXIO, 0));
    EXPECT_EQ("TAV_DUCTO_ERROR TAV_DUCTO_int open failed : Unknown error -6 (-6)",
              create_error_text());
    EXPECT_TRUE(log_contains("failed with errno = 6"));

    // A 0 that comes with a time-out is retried like any time-out.
    std::atomic<int> opens{0};
    host::channel_hooks hooks;
    hooks.open = [&opens](const char* path, int flags) {
        if (opens++ > 0) return host::real_open_node(path, flags);
        errno = ETIMEDOUT;
        return 0;
    };
    host::set_channel_hooks(hooks);
    connect();
    EXPECT_EQ(2, opens);
    EXPECT_TRUE(log_contains("retries count =  1"));
}

TEST_F(connection_test, OtherOpenErrorsFailAtOnce) {
    const auto start = steady_clock::now();
    try {
        delete tav_interface::create(TAV_DUCTO_CONNECTION, tav_conn_config{"absent"});
        FAIL() << "opened a missing node";
    } catch (const ducto_error& e) {
        EXPECT_STREQ("TAV_DUCTO_ERROR TAV_DUCTO_int open failed : Unknown error -2 (-2)",
                     e.what());
    }
    EXPECT_LT(steady_clock::now() - start, std::chrono::milliseconds(500));
    EXPECT_FALSE(log_contains("open timeout"));
}

TEST_F(connection_test, BusyWritesAreRetried) {
    connect();
    callback_log accel;
    ASSERT_EQ(0, register_sensor(kAccel, accel));
    std::atomic<int> writes{0};
    host::channel_hooks hooks;
    hooks.write = [&writes](int fd, const void* buf, size_t len) -> ssize_t {
        const int n = writes++;
        if (n >= 2) return host::real_write_node(fd, buf, len);
        errno = n == 0 ? EBUSY : EAGAIN;
        return -1;
    };
    host::set_channel_hooks(hooks);

    send(kAccel, 512);
    ASSERT_TRUE(core->wait_for_requests(1, kWait));
    EXPECT_EQ(1013u, core->requests()[0].raw.size());
    EXPECT_TRUE(log_contains("write failed with errno = 16"));
    EXPECT_TRUE(log_contains("write failed with errno = 11"));
    EXPECT_TRUE(log_contains("complete bytes written= 1013 retries 2"));
}

TEST_F(connection_test, WriteGivesUpAfterAHundredRetriesAndForgetsTheRequest) {
    connect();
    callback_log accel;
    ASSERT_EQ(0, register_sensor(kAccel, accel));
    host::channel_hooks hooks;
    hooks.write = [](int, const void*, size_t) -> ssize_t {
        errno = EAGAIN;
        return -1;
    };
    host::set_channel_hooks(hooks);

    try {
        send(kAccel, 512);
        FAIL() << "a write that never went out succeeded";
    } catch (const ducto_error& e) {
        EXPECT_STREQ("TAV_DUCTO_ERROR ducto_write failed : Unknown error -11 (-11)",
                     e.what());
    }
    EXPECT_EQ(100u, log_lines_containing("write failed with errno = 11").size());
    EXPECT_TRUE(log_contains("write MAX_DUCTO_WRITE_RETRIES = 100 has finished"));

    // The failed request left nothing pending: the next answer is the next request's.
    host::clear_channel_hooks();
    core->set_auto_respond(true);
    send(kAccel, 512);
    ASSERT_TRUE(accel.wait_responses(1));
    EXPECT_EQ(1u, accel.responses()[0].second);  // the stand-in answers with the client id
}

TEST_F(connection_test, PartialWriteReturnsTheLastPiece) {
    connect();
    std::string written;
    std::atomic<int> writes{0};
    host::channel_hooks hooks;
    hooks.write = [&](int, const void* buf, size_t len) -> ssize_t {
        const size_t n = writes++ == 0 ? 500 : len;
        written.append(static_cast<const char*>(buf), n);
        return static_cast<ssize_t>(n);
    };
    host::set_channel_hooks(hooks);

    std::vector<uint8_t> packet(kPacketLen);
    for (size_t i = 0; i < packet.size(); ++i) packet[i] = static_cast<uint8_t>(i * 7);
    EXPECT_EQ(513, ducto()->ducto_write(3, packet.data(), kPacketLen));
    EXPECT_EQ(std::string(packet.begin(), packet.end()), written);
    EXPECT_TRUE(log_contains("complete bytes written= 1013 retries 0"));
}

TEST_F(connection_test, ReadGivesUpAfterThreeEagains) {
    connect();
    std::atomic<int> reads{0};
    host::channel_hooks hooks;
    hooks.read = [&reads](int, void*, size_t) -> ssize_t {
        ++reads;
        errno = EAGAIN;
        return -1;
    };
    host::set_channel_hooks(hooks);

    uint8_t buf[64];
    EXPECT_EQ(0, ducto()->ducto_read(3, buf, 0));
    EXPECT_EQ(0, reads);
    EXPECT_EQ(-EAGAIN, ducto()->ducto_read(3, buf, sizeof(buf)));
    EXPECT_EQ(3, reads);
    EXPECT_EQ(3u, log_lines_containing("read EAGAIN has occured on fd = 3").size());
    EXPECT_TRUE(log_contains("read MAX_DUCTO_READ_RETRIES = 3 has finished"));
}

TEST_F(connection_test, ErrorCounterIsResetAfterMoreThanTenConsecutiveErrors) {
    kiv_log::set_level(kiv_log::DEBUG);
    // Six passes fail (a read and the handler count one each), then reads work.
    std::atomic<int> reads{0};
    host::channel_hooks hooks;
    hooks.read = [&reads](int fd, void* buf, size_t len) -> ssize_t {
        if (reads++ >= 18) return host::real_read_node(fd, buf, len);
        errno = EAGAIN;
        return -1;
    };
    host::set_channel_hooks(hooks);
    connect();
    callback_log accel;
    ASSERT_EQ(0, register_sensor(kAccel, accel));

    core->send_event(core_stub::make_event(kAccel, 1, "after errors"));
    ASSERT_TRUE(accel.wait_events(1));
    EXPECT_EQ(1u, log_lines_containing("triggred ssr").size());
    EXPECT_TRUE(log_contains("triggred ssr g_ducto_err_cnt = 12"));
    conn.reset();  // the hook refers to this scope
    kiv_log::set_level(kiv_log::INFO);
}

TEST_F(connection_test, StrayByteOnTheWakeUpPipeDoesNotStopTheReader) {
    std::atomic<int> pipe_read_end{-1};
    host::channel_hooks hooks;
    hooks.poll = [&pipe_read_end](struct pollfd* fds, nfds_t nfds, int timeout) {
        pipe_read_end = fds[0].fd;
        return host::real_poll_nodes(fds, nfds, timeout);
    };
    host::set_channel_hooks(hooks);
    connect();
    callback_log accel;
    ASSERT_EQ(0, register_sensor(kAccel, accel));
    ASSERT_TRUE(eventually([&] { return pipe_read_end >= 0; }));

    const int write_end = pipe_write_end(pipe_read_end);
    ASSERT_GE(write_end, 0);
    ASSERT_EQ(1, write(write_end, "x", 1));
    core->send_event(core_stub::make_event(kAccel, 1, "still reading"));
    EXPECT_TRUE(accel.wait_events(1));
    conn.reset();  // the hook refers to this scope
}

TEST_F(connection_test, HangUpEndsTheProcessWithStatusOne) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            connect();
            core->close_connection();
            std::this_thread::sleep_for(std::chrono::seconds(5));
        },
        ::testing::ExitedWithCode(1), "");
}

}  // namespace
}  // namespace test
}  // namespace kivhal
