#include "kivhal/platform.h"

#include <fcntl.h>
#include <unistd.h>

namespace kivhal {
namespace platform {

std::string resolve_path(const std::string& path) {
    return path;
}

int open_node(const char* path, int flags) {
    return open(path, flags);
}

ssize_t read_node(int fd, void* buf, size_t len) {
    return read(fd, buf, len);
}

ssize_t write_node(int fd, const void* buf, size_t len) {
    return write(fd, buf, len);
}

int poll_nodes(struct pollfd* fds, nfds_t nfds, int timeout_ms) {
    return poll(fds, nfds, timeout_ms);
}

}  // namespace platform
}  // namespace kivhal
