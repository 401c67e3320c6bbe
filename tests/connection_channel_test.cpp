// Channel errors a socket cannot produce on its own, injected through the
// channel hooks: open time-outs, descriptor 0, busy and partial writes, read
// EAGAIN, the error counter, and the hang-up that ends the process.
#include <fcntl.h>
#include <unistd.h>

#include "connection_test_fixture.h"

namespace kivhal {
namespace test {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr size_t kPacketLen = 1013;

std::string create_error_text(const char* channel = kChannel) {
    return thrown_by([channel] { delete tav_interface::create(TAV_DUCTO_CONNECTION, {channel}); });
}

TEST_F(connection_test, OpenThatKeepsTimingOutFailsAfterThreeSeconds) {
    host::set_channel_hooks({failing(host::real_open_node, ETIMEDOUT), nullptr, nullptr, nullptr});
    const auto start = steady_clock::now();
    EXPECT_EQ("TAV_DUCTO_ERROR TAV_DUCTO_int open failed : Unknown error -110 (-110)",
              create_error_text());
    const auto elapsed = steady_clock::now() - start;
    EXPECT_GE(elapsed, milliseconds(2900));
    EXPECT_LT(elapsed, milliseconds(4500));
    EXPECT_EQ(3u, log_lines_containing("ducto channel open timeout", ANDROID_LOG_ERROR).size());
}

TEST_F(connection_test, OpenErrorsOtherThanTimeOutsFailAtOnce) {
    const auto start = steady_clock::now();
    EXPECT_EQ("TAV_DUCTO_ERROR TAV_DUCTO_int open failed : Unknown error -2 (-2)",
              create_error_text("absent"));
    EXPECT_LT(steady_clock::now() - start, milliseconds(500));
    EXPECT_FALSE(log_contains("open timeout"));

    host::set_channel_hooks({failing(host::real_open_node, ENXIO, INT_MAX, 0), nullptr, nullptr, nullptr});
    EXPECT_EQ("TAV_DUCTO_ERROR TAV_DUCTO_int open failed : Unknown error -6 (-6)",
              create_error_text());
    EXPECT_TRUE(log_contains("failed with errno = 6", ANDROID_LOG_ERROR));  // descriptor 0 is never accepted
    // A 0 that comes with a time-out is retried like any time-out.
    host::set_channel_hooks({failing(host::real_open_node, ETIMEDOUT, 1, 0), nullptr, nullptr, nullptr});
    ASSERT_NO_FATAL_FAILURE(connect());
    EXPECT_TRUE(log_contains("retries count =  1", ANDROID_LOG_ERROR));
}

TEST_F(connection_test, WritesAreRetriedAHundredTimesAndReadsThreeTimes) {
    ASSERT_NO_FATAL_FAILURE(connect());
    ASSERT_EQ(0, register_sensor(kAccel, accel));
    host::set_channel_hooks({nullptr, nullptr, failing(host::real_write_node, EBUSY, 2), nullptr});
    send(kAccel, 512);
    ASSERT_TRUE(core->wait_for_requests(1, kWait));
    EXPECT_EQ(kPacketLen, core->requests()[0].raw.size());
    EXPECT_TRUE(log_contains("complete bytes written= 1013 retries 2", ANDROID_LOG_INFO));
    core->send_response({});
    ASSERT_TRUE(accel.wait_responses(1));

    host::set_channel_hooks({nullptr, nullptr, failing(host::real_write_node, EAGAIN), nullptr});
    EXPECT_EQ("TAV_DUCTO_ERROR ducto_write failed : Unknown error -11 (-11)",
              thrown_by([&] { send(kAccel, 512); }));
    EXPECT_EQ(100u, log_lines_containing("write failed with errno = 11", ANDROID_LOG_ERROR).size());

    // The failed request left nothing pending: the next answer is the next request's.
    host::clear_channel_hooks();
    ASSERT_EQ(0, register_sensor(kGyro, gyro));
    send(kGyro, 512);
    core->send_response({});
    ASSERT_TRUE(gyro.wait_responses(1));
    EXPECT_EQ(1u, accel.responses().size());

    // A partial write is finished and its last piece's length returned.
    std::string written;
    host::channel_hooks hooks{nullptr, failing(host::real_read_node, EAGAIN), nullptr, nullptr};
    hooks.write = [&](int, const void* buf, size_t len) -> ssize_t {
        const size_t n = written.empty() ? 500 : len;
        written.append(static_cast<const char*>(buf), n);
        return static_cast<ssize_t>(n);
    };
    host::set_channel_hooks(hooks);
    std::vector<uint8_t> packet(kPacketLen);
    for (size_t i = 0; i < packet.size(); ++i) packet[i] = static_cast<uint8_t>(i * 7);
    EXPECT_EQ(513, ducto()->ducto_write(3, packet.data(), kPacketLen));
    EXPECT_EQ(std::string(packet.begin(), packet.end()), written);

    EXPECT_EQ(0, ducto()->ducto_read(3, packet.data(), 0));
    EXPECT_EQ(-EAGAIN, ducto()->ducto_read(3, packet.data(), 64));
    EXPECT_EQ(3u, log_lines_containing("read EAGAIN has occured on fd = 3", ANDROID_LOG_ERROR).size());
    conn.reset();  // the hooks refer to this scope
}

TEST_F(connection_test, ReaderSurvivesAnErrorStreakAndAStrayWakeUpByte) {
    kiv_log::set_level(kiv_log::DEBUG);
    // Twelve passes fail (a read and the handler count one each), then reads
    // work: the limit is crossed twice, and the counter starts over each time.
    constexpr int kFailingPasses = 12, kReadsPerPass = 3;  // a pass gives up after three EAGAINs
    std::atomic<int> pipe_read_end{-1};
    host::channel_hooks hooks{nullptr, failing(host::real_read_node, EAGAIN, kFailingPasses * kReadsPerPass),
                              nullptr, nullptr};
    hooks.poll = [&pipe_read_end](struct pollfd* fds, nfds_t nfds, int timeout) {
        pipe_read_end = fds[0].fd;
        return host::real_poll_nodes(fds, nfds, timeout);
    };
    host::set_channel_hooks(hooks);
    ASSERT_NO_FATAL_FAILURE(connect());
    ASSERT_EQ(0, register_sensor(kAccel, accel));
    core->send_event(core_stub::make_event(kAccel, 1, "after errors"));
    ASSERT_TRUE(accel.wait_for(1));
    const auto crossings = log_lines_containing("triggred ssr", ANDROID_LOG_DEBUG);
    EXPECT_EQ(2u, crossings.size());
    for (const auto& line : crossings) EXPECT_NE(std::string::npos, line.text.find("g_ducto_err_cnt = 12")) << line.text;

    // Opened through /proc, the pipe's read end yields a second write end.
    const std::string pipe_path = "/proc/self/fd/" + std::to_string(pipe_read_end);
    const int write_end = open(pipe_path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(write_end, 0);
    ASSERT_EQ(1, write(write_end, "x", 1));
    close(write_end);
    core->send_event(core_stub::make_event(kAccel, 1, "still reading"));
    EXPECT_TRUE(accel.wait_for(2));
    conn.reset();  // the poll hook refers to this scope
}

TEST_F(connection_test, HangUpEndsTheProcessWithStatusOne) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // The child mirrors its log to stderr, so the hang-up's own lines show
    // that the exit came from the reader thread.
    EXPECT_EXIT(
        {
            kiv_log::set_stderr_logging(true);
            ASSERT_NO_FATAL_FAILURE(connect());
            core->close_connection();
            std::this_thread::sleep_for(std::chrono::seconds(5));
        },
        ::testing::ExitedWithCode(1),
        "TAV_DUCTO_int POLLHUP event is received, AON CLIENT SSR occured\n"
        "(.*\n)*.*TAV_DUCTO_int ducto_error_handler received error = 16\n");
}

}  // namespace
}  // namespace test
}  // namespace kivhal
