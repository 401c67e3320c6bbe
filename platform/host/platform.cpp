#include "kivhal/platform.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "kivhal/host.h"

namespace kivhal {
namespace host {
namespace {

struct hook_table {
    std::mutex mutex;
    channel_hooks hooks;
};

hook_table& the_hooks() {
    static hook_table* table = new hook_table();
    return *table;
}

// Checked first so that the common case, no hooks, costs one load.
std::atomic<bool> g_hooks_installed{false};

template <typename Member>
Member hook(Member channel_hooks::*member) {
    if (!g_hooks_installed.load(std::memory_order_acquire)) return Member();
    hook_table& table = the_hooks();
    std::lock_guard<std::mutex> lock(table.mutex);
    return table.hooks.*member;
}

int connect_seqpacket(const char* path, int flags) {
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof(addr.sun_path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    strcpy(addr.sun_path, path);

    int type = SOCK_SEQPACKET | SOCK_CLOEXEC;
    if (flags & O_NONBLOCK) type |= SOCK_NONBLOCK;
    int fd = socket(AF_UNIX, type, 0);
    if (fd < 0) return -1;
    if (connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) != 0) {
        int saved = errno;
        close(fd);
        errno = saved;
        return -1;
    }
    return fd;
}

// A SOCK_SEQPACKET socket whose peer closed reports POLLIN|POLLHUP and reads 0
// for ever; the device reports POLLHUP alone once no packet is left.
bool peer_gone_and_drained(int fd) {
    char byte;
    ssize_t n = recv(fd, &byte, sizeof(byte), MSG_PEEK | MSG_DONTWAIT);
    return n == 0;
}

bool is_socket(int fd) {
    struct stat st;
    return fstat(fd, &st) == 0 && S_ISSOCK(st.st_mode);
}

}  // namespace

void set_channel_hooks(const channel_hooks& hooks) {
    hook_table& table = the_hooks();
    std::lock_guard<std::mutex> lock(table.mutex);
    table.hooks = hooks;
    g_hooks_installed.store(true, std::memory_order_release);
}

void clear_channel_hooks() {
    hook_table& table = the_hooks();
    std::lock_guard<std::mutex> lock(table.mutex);
    table.hooks = channel_hooks();
    g_hooks_installed.store(false, std::memory_order_release);
}

int real_open_node(const char* path, int flags) {
    struct stat st;
    if (stat(path, &st) == 0 && S_ISSOCK(st.st_mode)) return connect_seqpacket(path, flags);
    return open(path, flags);
}

ssize_t real_read_node(int fd, void* buf, size_t len) {
    ssize_t n = read(fd, buf, len);
    // An empty read means the core went away; the device would say EAGAIN
    // until the hang-up is polled.
    if (n == 0 && len > 0 && is_socket(fd)) {
        errno = EAGAIN;
        return -1;
    }
    return n;
}

ssize_t real_write_node(int fd, const void* buf, size_t len) {
    return write(fd, buf, len);
}

int real_poll_nodes(struct pollfd* fds, nfds_t nfds, int timeout_ms) {
    int result = poll(fds, nfds, timeout_ms);
    if (result <= 0) return result;
    for (nfds_t i = 0; i < nfds; ++i) {
        const short both = POLLIN | POLLHUP;
        if ((fds[i].revents & both) == both && peer_gone_and_drained(fds[i].fd)) {
            fds[i].revents &= ~POLLIN;
        }
    }
    return result;
}

}  // namespace host

namespace platform {

std::string resolve_path(const std::string& path) {
    const char* root = getenv("KIVHAL_ROOT");
    if (root == nullptr || root[0] == '\0' || path.empty() || path[0] != '/') return path;
    return std::string(root) + path;
}

int open_node(const char* path, int flags) {
    auto hook = host::hook(&host::channel_hooks::open);
    return hook ? hook(path, flags) : host::real_open_node(path, flags);
}

ssize_t read_node(int fd, void* buf, size_t len) {
    auto hook = host::hook(&host::channel_hooks::read);
    return hook ? hook(fd, buf, len) : host::real_read_node(fd, buf, len);
}

ssize_t write_node(int fd, const void* buf, size_t len) {
    auto hook = host::hook(&host::channel_hooks::write);
    return hook ? hook(fd, buf, len) : host::real_write_node(fd, buf, len);
}

int poll_nodes(struct pollfd* fds, nfds_t nfds, int timeout_ms) {
    auto hook = host::hook(&host::channel_hooks::poll);
    return hook ? hook(fds, nfds, timeout_ms) : host::real_poll_nodes(fds, nfds, timeout_ms);
}

}  // namespace platform
}  // namespace kivhal
