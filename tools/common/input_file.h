#pragma once

// Checks an input file before a tool opens it, so that a device, a directory
// or a pipe named by mistake is refused at once instead of read for ever.

#include <cstdint>
#include <string>

namespace kivhal {
namespace tools {

enum class input_kind {
    regular_file,
    regular_file_or_block_device,
};

// No configuration comes near this; a larger file is not one.
constexpr uint64_t kMaxConfigFileSize = 16 * 1024 * 1024;
constexpr uint64_t kNoSizeLimit = UINT64_MAX;

// The file's size in bytes (a block device's whole size). Throws usage_error
// naming the path when it cannot be examined, is of another kind, or is over
// `max_size`.
uint64_t check_input_file(const std::string& path, input_kind accepted,
                          uint64_t max_size = kNoSizeLimit);

}  // namespace tools
}  // namespace kivhal
