#include <android-base/test_utils.h>
#include <android-base/unique_fd.h>
#include <cutils/properties.h>
#include <fcntl.h>
#include <gmock/gmock.h>
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
#include "test_support.h"

namespace {

using android::base::unique_fd;
using kivhal::platform::open_node;
using kivhal::platform::poll_nodes;
using kivhal::platform::read_node;
using kivhal::platform::resolve_path;

TEST(HostPlatformTest, PathsResolveUnderKivhalRootReadAtEachCall) {
    unsetenv("KIVHAL_ROOT");
    EXPECT_EQ(resolve_path("/sys/power/wake_lock"), "/sys/power/wake_lock");
    setenv("KIVHAL_ROOT", "", 1);
    EXPECT_EQ(resolve_path("/dev/block/x"), "/dev/block/x");
    setenv("KIVHAL_ROOT", "/tmp/r", 1);
    EXPECT_EQ(resolve_path("/vendor/etc/sensors/oem_config.xml"), "/tmp/r/vendor/etc/sensors/oem_config.xml");
}

TEST(HostPlatformTest, SocketNodeBehavesLikeThePacketDeviceAndOtherNodesAreFiles) {
    kivhal::test::scoped_root root;
    root.write_file("/dev/block/x", "12345678");
    const std::string node = root.host_path("/dev/ductopkt_vorla_test");
    unique_fd listener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", node.c_str());
    ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)));
    ASSERT_EQ(0, listen(listener, 1));

    unique_fd fd(open_node(node.c_str(), O_RDWR | O_NONBLOCK));
    ASSERT_GT(fd.get(), 0);
    unique_fd peer(accept(listener, nullptr, nullptr));
    ASSERT_GE(peer.get(), 0);
    // Non-blocking, and one write is one packet.
    char buf[64];
    errno = 0;
    EXPECT_EQ(read_node(fd, buf, sizeof(buf)), -1);
    EXPECT_EQ(errno, EAGAIN);
    ASSERT_EQ(write(peer, "abc", 3), 3);
    ASSERT_EQ(write(peer, "defgh", 5), 5);
    EXPECT_EQ(read_node(fd, buf, sizeof(buf)), 3);

    // The core goes away with a packet still queued: it is still readable.
    peer.reset();
    struct pollfd pfd = {fd, POLLIN | POLLHUP, 0};
    ASSERT_EQ(poll_nodes(&pfd, 1, 1000), 1);
    EXPECT_EQ(pfd.revents & (POLLIN | POLLHUP), POLLIN | POLLHUP);
    EXPECT_EQ(read_node(fd, buf, sizeof(buf)), 5);
    // Drained: hang-up alone, as on the device, and reads say EAGAIN, not 0.
    ASSERT_EQ(poll_nodes(&pfd, 1, 1000), 1);
    EXPECT_EQ(pfd.revents & (POLLIN | POLLHUP), POLLHUP);
    errno = 0;
    EXPECT_EQ(read_node(fd, buf, sizeof(buf)), -1);
    EXPECT_EQ(errno, EAGAIN);

    unique_fd file(open_node(root.host_path("/dev/block/x").c_str(), O_RDWR));
    EXPECT_EQ(read_node(file, buf, sizeof(buf)), 8);
    errno = 0;
    EXPECT_EQ(open_node(root.host_path("/dev/missing").c_str(), O_RDWR), -1);
    EXPECT_EQ(errno, ENOENT);
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
    CapturedStderr err;
    KIV_LOGE("boom %d", 7);
    err.Stop();
    EXPECT_THAT(err.str(), ::testing::MatchesRegex("E/KIVHAL-Sensors\\( *[0-9]+\\): TestBody:[0-9]+, boom 7\n"));
}

}  // namespace
