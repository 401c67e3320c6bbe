#pragma once

// Text dumps of the library's state for bug reports. Each dump copies what it
// shows under the owning locks, formats it in memory and writes it only after
// every lock is released, so a slow reader of the descriptor never stalls
// the reader thread.

#include <string>

#include "tav_interface.h"

namespace kivhal {
namespace dump {

// printf-style append to `out`.
void appendf(std::string* out, const char* format, ...) __attribute__((format(printf, 2, 3)));

// "<high>:<low>", each half as 16 hex digits.
std::string suid_text(const sensor_uid& suid);

// Writes all of `text` to `fd`, resuming after signals and short writes; a
// reader that went away ends the dump.
void write_fully(int fd, const std::string& text);

}  // namespace dump
}  // namespace kivhal
