#include "input_file.h"

#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tool_cli.h"

namespace kivhal {
namespace tools {
namespace {

const char* kind_name(mode_t mode) {
    if (S_ISDIR(mode)) return "a directory";
    if (S_ISCHR(mode)) return "a character device";
    if (S_ISBLK(mode)) return "a block device";
    if (S_ISFIFO(mode)) return "a pipe";
    if (S_ISSOCK(mode)) return "a socket";
    return "a special file";
}

bool accepted_kind(mode_t mode, input_kind accepted) {
    if (S_ISREG(mode)) return true;
    return accepted == input_kind::regular_file_or_block_device && S_ISBLK(mode);
}

// fstat reports no size for a block device; its end does.
uint64_t block_device_size(const std::string& path) {
    android::base::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd < 0) throw usage_error("cannot read " + path + ": " + strerror(errno));
    const off_t end = lseek(fd, 0, SEEK_END);
    if (end < 0) throw usage_error("cannot read " + path + ": " + strerror(errno));
    return static_cast<uint64_t>(end);
}

}  // namespace

uint64_t check_input_file(const std::string& path, input_kind accepted, uint64_t max_size) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0)
        throw usage_error("cannot read " + path + ": " + strerror(errno));
    if (!accepted_kind(st.st_mode, accepted)) {
        const char* wanted = accepted == input_kind::regular_file
                                 ? "a regular file"
                                 : "a regular file or block device";
        throw usage_error("cannot read " + path + ": " + kind_name(st.st_mode) + ", not " + wanted);
    }
    const uint64_t size =
        S_ISBLK(st.st_mode) ? block_device_size(path) : static_cast<uint64_t>(st.st_size);
    if (size > max_size) {
        throw usage_error("cannot read " + path + ": " + std::to_string(size) +
                          " bytes, over the limit of " + std::to_string(max_size) + " bytes");
    }
    return size;
}

}  // namespace tools
}  // namespace kivhal
