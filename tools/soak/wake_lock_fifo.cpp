#include "wake_lock_fifo.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "sns_wakelock.h"
#include "tool_cli.h"

namespace kivhal {
namespace tools {

namespace {
constexpr size_t kReadChunk = 65536;

size_t write_len() {
    return strlen(KIV_WACKLOCK_NAME) + 1;
}
}  // namespace

wake_lock_fifo::wake_lock_fifo(const std::string& path) {
    if (mkfifo(path.c_str(), 0600) != 0) {
        throw tool_error("cannot make the FIFO " + path + ": " + strerror(errno));
    }
    // Read-write: a writer always exists, so the reader never sees a hang-up.
    _fifo.reset(open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    if (!_fifo.ok() || !android::base::Pipe(&_stop_read, &_stop_write)) {
        throw tool_error("cannot open the FIFO " + path + ": " + strerror(errno));
    }
    _reader = std::thread(&wake_lock_fifo::run, this);
}

wake_lock_fifo::~wake_lock_fifo() {
    drain();
}

void wake_lock_fifo::drain() {
    if (!_reader.joinable()) return;
    _stop_write.reset();  // the reader sees the pipe's end
    _reader.join();
}

uint64_t wake_lock_fifo::writes() const {
    return _bytes / write_len();
}

bool wake_lock_fifo::whole() const {
    return _bytes % write_len() == 0;
}

void wake_lock_fifo::run() {
    std::vector<char> buffer(kReadChunk);
    for (;;) {
        struct pollfd fds[2] = {{_fifo.get(), POLLIN, 0}, {_stop_read.get(), POLLIN, 0}};
        if (poll(fds, 2, -1) < 0 && errno != EINTR) break;
        if (fds[0].revents & POLLIN) read_available(buffer);
        if (fds[1].revents != 0) break;
    }
    read_available(buffer);
}

void wake_lock_fifo::read_available(std::vector<char>& buffer) {
    ssize_t n;
    while ((n = read(_fifo.get(), buffer.data(), buffer.size())) > 0)
        _bytes += static_cast<uint64_t>(n);
}

}  // namespace tools
}  // namespace kivhal
