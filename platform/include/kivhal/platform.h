#pragma once

// The few platform calls whose behaviour differs between the device and a
// Linux host. Library sources call these instead of the raw system calls; the
// device build maps each to the plain call.

#include <poll.h>
#include <sys/types.h>

#include <string>

namespace kivhal {
namespace platform {

// A compiled-in absolute path as this process must open it: unchanged on the
// device, under $KIVHAL_ROOT on a host when that is set and non-empty.
std::string resolve_path(const std::string& path);

// Opens a device node (already resolved). On a host a Unix-domain socket is
// connected as a non-blocking SOCK_SEQPACKET client instead, so that another
// process can play the sensor core. Returns the descriptor or -1 with errno.
int open_node(const char* path, int flags);

// Channel I/O with the device's semantics: one packet per read and write, and
// a peer that went away reported as POLLHUP alone.
ssize_t read_node(int fd, void* buf, size_t len);
ssize_t write_node(int fd, const void* buf, size_t len);
int poll_nodes(struct pollfd* fds, nfds_t nfds, int timeout_ms);

}  // namespace platform
}  // namespace kivhal
