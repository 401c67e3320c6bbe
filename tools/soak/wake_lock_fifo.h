#pragma once

// One kernel wake-lock file played by a FIFO whose writes are counted: a
// regular file would grow by gigabytes in a long soak.

#include <android-base/unique_fd.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace kivhal {
namespace tools {

class wake_lock_fifo {
  public:
    // Creates the FIFO at `path` (which must not exist) and starts reading it.
    // Throws tool_error.
    explicit wake_lock_fifo(const std::string& path);
    ~wake_lock_fifo();
    wake_lock_fifo(const wake_lock_fifo&) = delete;
    wake_lock_fifo& operator=(const wake_lock_fifo&) = delete;

    // Reads what is left and stops; call once the writer is done.
    void drain();
    // Whole writes seen: the lock's name with its NUL is one write.
    uint64_t writes() const;
    // No write was cut short.
    bool whole() const;

  private:
    void run();
    void read_available(std::vector<char>& buffer);

    android::base::unique_fd _fifo, _stop_read, _stop_write;
    std::atomic<uint64_t> _bytes{0};
    std::thread _reader;
};

}  // namespace tools
}  // namespace kivhal
