#pragma once

// Host-only API through which tests and tools drive the platform stand-ins:
// properties, the captured Android log, trace-tag query counts and a seam for
// the channel's system calls.

#include <poll.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kivhal {
namespace host {

// Properties read by property_get.
void set_property(const std::string& name, const std::string& value);
void clear_property(const std::string& name);
void clear_properties();

// One line as the library wrote it to the Android log.
struct log_line {
    int priority;
    std::string tag;
    std::string text;
};

// Oldest first. Only the newest kCapturedLogCapacity lines are kept.
constexpr size_t kCapturedLogCapacity = 65536;
std::vector<log_line> captured_log();
void clear_captured_log();
// Lines dropped from the front since the last clear because the capture was full.
size_t captured_log_dropped();

// Number of atrace_get_enabled_tags() calls so far.
uint64_t trace_tag_queries();
void reset_trace_tag_queries();

// Replacements for the channel's system calls, so tests can produce the errno
// paths a socket cannot (ETIMEDOUT on open, EBUSY, partial writes, fd 0). An
// empty member keeps the real call. Install before creating a connection and
// clear after deleting it.
struct channel_hooks {
    std::function<int(const char* path, int flags)> open;
    std::function<ssize_t(int fd, void* buf, size_t len)> read;
    std::function<ssize_t(int fd, const void* buf, size_t len)> write;
    std::function<int(struct pollfd* fds, nfds_t nfds, int timeout_ms)> poll;
};
void set_channel_hooks(const channel_hooks& hooks);
void clear_channel_hooks();

// The calls the hooks replace, for hooks that pass some calls through.
int real_open_node(const char* path, int flags);
ssize_t real_read_node(int fd, void* buf, size_t len);
ssize_t real_write_node(int fd, const void* buf, size_t len);
int real_poll_nodes(struct pollfd* fds, nfds_t nfds, int timeout_ms);

}  // namespace host
}  // namespace kivhal
