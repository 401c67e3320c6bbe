#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "kiv_log.h"
#include "kivhal/host.h"
#include "kivhal/platform.h"
#include <cutils/properties.h>
#include "test_support.h"

namespace {

using kivhal::platform::open_node;
using kivhal::platform::poll_nodes;
using kivhal::platform::read_node;
using kivhal::platform::resolve_path;
using kivhal::platform::write_node;

// Listening SOCK_SEQPACKET socket at a path, as a test plays the sensor core.
class listener {
public:
    explicit listener(const std::string& path) {
        fd_ = socket(AF_UNIX, SOCK_SEQPACKET, 0);
        struct sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
        EXPECT_EQ(listen(fd_, 1), 0);
    }
    ~listener() { close(fd_); }
    int accept_one() { return accept(fd_, nullptr, nullptr); }

private:
    int fd_;
};

TEST(HostPlatformTest, PathsResolveUnderKivhalRootReadAtEachCall) {
    unsetenv("KIVHAL_ROOT");
    EXPECT_EQ(resolve_path("/sys/power/wake_lock"), "/sys/power/wake_lock");
    setenv("KIVHAL_ROOT", "", 1);
    EXPECT_EQ(resolve_path("/dev/block/x"), "/dev/block/x");
    setenv("KIVHAL_ROOT", "/tmp/r", 1);
    EXPECT_EQ(resolve_path("/vendor/etc/sensors/oem_config.xml"),
              "/tmp/r/vendor/etc/sensors/oem_config.xml");
    unsetenv("KIVHAL_ROOT");
}

TEST(HostPlatformTest, SocketNodeBehavesLikeThePacketDevice) {
    kivhal::test::scoped_root root;
    root.write_file("/dev/.keep", "");
    const std::string node = root.host_path("/dev/ductopkt_vorla_test");
    listener core(node);

    int fd = open_node(node.c_str(), O_RDWR | O_NONBLOCK);
    ASSERT_GT(fd, 0);
    int peer = core.accept_one();
    ASSERT_GE(peer, 0);

    // Non-blocking, and one write is one packet.
    char buf[64];
    errno = 0;
    EXPECT_EQ(read_node(fd, buf, sizeof(buf)), -1);
    EXPECT_EQ(errno, EAGAIN);
    ASSERT_EQ(write(peer, "abc", 3), 3);
    ASSERT_EQ(write(peer, "defgh", 5), 5);
    EXPECT_EQ(read_node(fd, buf, sizeof(buf)), 3);
    EXPECT_EQ(write_node(fd, "xy", 2), 2);
    EXPECT_EQ(read(peer, buf, sizeof(buf)), 2);

    // The core goes away with a packet still queued: it is still readable.
    close(peer);
    struct pollfd pfd = {fd, POLLIN | POLLHUP, 0};
    ASSERT_EQ(poll_nodes(&pfd, 1, 1000), 1);
    EXPECT_EQ(pfd.revents & (POLLIN | POLLHUP), POLLIN | POLLHUP);
    EXPECT_EQ(read_node(fd, buf, sizeof(buf)), 5);

    // Drained: hang-up alone, as on the device, and reads say EAGAIN, not 0.
    pfd.revents = 0;
    ASSERT_EQ(poll_nodes(&pfd, 1, 1000), 1);
    EXPECT_EQ(pfd.revents & (POLLIN | POLLHUP), POLLHUP);
    errno = 0;
    EXPECT_EQ(read_node(fd, buf, sizeof(buf)), -1);
    EXPECT_EQ(errno, EAGAIN);
    close(fd);
}

TEST(HostPlatformTest, OtherNodesAreOpenedAsFiles) {
    kivhal::test::scoped_root root;
    root.write_file("/dev/block/x", "12345678");
    int fd = open_node(root.host_path("/dev/block/x").c_str(), O_RDWR);
    ASSERT_GT(fd, 0);
    char buf[8];
    EXPECT_EQ(read_node(fd, buf, sizeof(buf)), 8);
    close(fd);
    errno = 0;
    EXPECT_EQ(open_node(root.host_path("/dev/missing").c_str(), O_RDWR), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(HostPlatformTest, HooksReplaceSingleCallsUntilCleared) {
    int opens = 0;
    kivhal::host::channel_hooks hooks;
    hooks.open = [&opens](const char*, int) {
        ++opens;
        errno = ETIMEDOUT;
        return -1;
    };
    kivhal::host::set_channel_hooks(hooks);
    errno = 0;
    EXPECT_EQ(open_node("/nonexistent", O_RDWR), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(opens, 1);

    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    EXPECT_EQ(write_node(fds[1], "z", 1), 1);  // no write hook: the real call
    kivhal::host::clear_channel_hooks();
    errno = 0;
    EXPECT_EQ(open_node("/nonexistent", O_RDWR), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(opens, 1);
    close(fds[0]);
    close(fds[1]);
}

TEST(HostPlatformTest, PropertiesFallBackToTheDefaultAndAreCutTo92Bytes) {
    char value[PROPERTY_VALUE_MAX];
    kivhal::host::set_property("some.long", std::string(200, 'a'));
    EXPECT_EQ(property_get("some.long", value, "d"), PROPERTY_VALUE_MAX - 1);
    EXPECT_EQ(std::string(value), std::string(PROPERTY_VALUE_MAX - 1, 'a'));
    kivhal::host::clear_properties();
    EXPECT_EQ(property_get("some.long", value, "dflt"), 4);
    EXPECT_STREQ(value, "dflt");
}

TEST(HostPlatformTest, LogcatMirroringUsesTheBriefFormat) {
    setenv("KIVHAL_LOGCAT", "1", 1);
    testing::internal::CaptureStderr();
    KIV_LOGE("boom %d", 7);
    std::string err = testing::internal::GetCapturedStderr();
    unsetenv("KIVHAL_LOGCAT");
    EXPECT_EQ(err.rfind("E/KIVHAL-Sensors(", 0), 0u) << err;
    EXPECT_NE(err.find("): TestBody:"), std::string::npos) << err;
    EXPECT_NE(err.find(", boom 7\n"), std::string::npos) << err;
}

}  // namespace
