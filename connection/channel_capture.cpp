#include "channel_capture.h"

#include <cutils/properties.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "kiv_log.h"

namespace kivhal {
namespace connection {

namespace {

// O_NOFOLLOW: a planted symlink cannot redirect the log; O_NONBLOCK: opening a
// FIFO with no reader fails instead of hanging the connection.
constexpr int kOpenFlags = O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
constexpr mode_t kPrivateMode = 0600;
constexpr mode_t kModeBits = 07777;
constexpr char kRotatedSuffix[] = ".1";
constexpr char kApplication[] = "libkivhal_common";
constexpr char kSensorstoreInterfaceName[] = "sensorstore";
constexpr char kChannelNodePrefix[] = "ductopkt_vorla_";
// The largest record: a stored packet (16-bit length) behind its hash.
constexpr uint32_t kSnapLen = 4 + 65535;
constexpr uint8_t kNanosecondResolution = 9;

constexpr uint16_t kOptEnd = 0;
constexpr uint16_t kOptShbUserAppl = 4;
constexpr uint16_t kOptIfName = 2;
constexpr uint16_t kOptIfTsresol = 9;
constexpr uint16_t kOptEpbFlags = 2;

struct __attribute__((packed)) epb_head {
    uint32_t type;
    uint32_t total_len;
    uint32_t interface_id;
    uint32_t ts_high;
    uint32_t ts_low;
    uint32_t captured_len;
    uint32_t original_len;
};
// Padding, the epb_flags option, the end of options, the repeated length.
constexpr size_t kEpbOptionsLen = 4 + 4 + 4 + 4;
constexpr size_t kMaxPad = 3;

uint32_t padded(size_t len) { return static_cast<uint32_t>((len + 3) & ~size_t{3}); }

void put32(std::string* out, uint32_t value) { out->append(reinterpret_cast<char*>(&value), 4); }
void put16(std::string* out, uint16_t value) { out->append(reinterpret_cast<char*>(&value), 2); }

void put_option(std::string* out, uint16_t code, const void* value, size_t len) {
    put16(out, code);
    put16(out, static_cast<uint16_t>(len));
    out->append(static_cast<const char*>(value), len);
    out->append(padded(len) - len, '\0');
}

// Closes a block whose body (after type and length) is `body`.
std::string block(uint32_t type, const std::string& body) {
    std::string out;
    const uint32_t total = static_cast<uint32_t>(12 + body.size());
    put32(&out, type);
    put32(&out, total);
    out += body;
    put32(&out, total);
    return out;
}

std::string interface_block(uint16_t linktype, const std::string& name) {
    std::string body;
    put16(&body, linktype);
    put16(&body, 0);
    put32(&body, kSnapLen);
    put_option(&body, kOptIfName, name.data(), name.size());
    put_option(&body, kOptIfTsresol, &kNanosecondResolution, 1);
    put_option(&body, kOptEnd, nullptr, 0);
    return block(kPcapngInterfaceDescription, body);
}

std::string section_start(const std::string& channel_name) {
    std::string shb;
    put32(&shb, kPcapngByteOrderMagic);
    put16(&shb, 1);  // version 1.0
    put16(&shb, 0);
    const int64_t unknown_length = -1;
    shb.append(reinterpret_cast<const char*>(&unknown_length), 8);
    put_option(&shb, kOptShbUserAppl, kApplication, sizeof(kApplication) - 1);
    put_option(&shb, kOptEnd, nullptr, 0);
    return block(kPcapngSectionHeader, shb) +
           interface_block(kLinktypeChannel, kChannelNodePrefix + channel_name) +
           interface_block(kLinktypeSensorstore, kSensorstoreInterfaceName);
}

}  // namespace

std::unique_ptr<channel_capture> channel_capture::from_property(const std::string& channel_name) {
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(kCaptureProperty, value, "");
    if (value[0] == '\0') return nullptr;
    return open(value, channel_name);
}

std::unique_ptr<channel_capture> channel_capture::open(const std::string& path,
                                                       const std::string& channel_name,
                                                       uint64_t rotate_bytes) {
    std::unique_ptr<channel_capture> capture(new channel_capture(path, channel_name, rotate_bytes));
    kivhal::lock_guard lock(capture->_mutex);
    android::base::unique_fd fd(TEMP_FAILURE_RETRY(::open(path.c_str(), kOpenFlags, kPrivateMode)));
    if (!fd.ok()) {
        capture->switch_off("cannot be opened", errno);
        return nullptr;
    }
    if (!capture->start_file(std::move(fd))) return nullptr;
    capture->_on = true;
    return capture;
}

channel_capture::channel_capture(std::string path, const std::string& channel_name,
                                 uint64_t rotate_bytes)
    : _path(std::move(path)),
      _rotated_path(_path + kRotatedSuffix),
      _section_start(section_start(channel_name)),
      _rotate_bytes(rotate_bytes) {}

// Refuses anything but a regular file of this user (another user's file
// would leak health data to them), makes it private, moves an earlier
// session's file aside and starts a section.
bool channel_capture::start_file(android::base::unique_fd fd) {
    struct stat st;
    if (fstat(fd.get(), &st) != 0) {
        switch_off("cannot be examined", errno);
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        KIV_LOGE("TAV_DUCTO capture to %s refused: not a regular file (mode 0%o); capture off",
                 _path.c_str(), static_cast<unsigned>(st.st_mode));
        return false;
    }
    if (st.st_uid != geteuid()) {
        KIV_LOGE("TAV_DUCTO capture to %s refused: owned by uid %u, not by this process's %u; "
                 "capture off",
                 _path.c_str(), static_cast<unsigned>(st.st_uid), static_cast<unsigned>(geteuid()));
        return false;
    }
    if ((st.st_mode & kModeBits) != kPrivateMode && fchmod(fd.get(), kPrivateMode) != 0) {
        switch_off("cannot be made private", errno);
        return false;
    }
    _fd = std::move(fd);
    _file_bytes = 0;
    if (static_cast<uint64_t>(st.st_size) > _section_start.size()) return rotate();
    // No records: a connection that never came up. Moving it aside would
    // replace the previous session's file, which a crash loop needs most.
    if (st.st_size > 0 && ftruncate(_fd.get(), 0) != 0) {
        switch_off("cannot be truncated", errno);
        return false;
    }

    const ssize_t n = TEMP_FAILURE_RETRY(write(_fd.get(), _section_start.data(), _section_start.size()));
    if (n != static_cast<ssize_t>(_section_start.size())) {
        switch_off("write failed", n < 0 ? errno : 0);
        return false;
    }
    _file_bytes = _section_start.size();
    return true;
}

bool channel_capture::rotate() {
    if (rename(_path.c_str(), _rotated_path.c_str()) != 0) {
        switch_off("cannot be rotated", errno);
        return false;
    }
    // O_EXCL: whatever appears at the path meanwhile is not ours to write.
    android::base::unique_fd fd(
        TEMP_FAILURE_RETRY(::open(_path.c_str(), kOpenFlags | O_EXCL, kPrivateMode)));
    if (!fd.ok()) {
        switch_off("cannot be reopened after rotation", errno);
        return false;
    }
    return start_file(std::move(fd));
}

void channel_capture::channel_packet(uint32_t direction_flags, int64_t timestamp_ns,
                                     const uint8_t* data, size_t len) {
    if (!_on.load(std::memory_order_relaxed)) return;
    kivhal::lock_guard lock(_mutex);
    if (direction_flags == kEpbFlagsInbound) _last_inbound_ns = timestamp_ns;
    append(capture_interface::channel, direction_flags, timestamp_ns, data, len);
}

void channel_capture::sensorstore_record(const uint8_t* data, size_t len) {
    if (!_on.load(std::memory_order_relaxed)) return;
    kivhal::lock_guard lock(_mutex);
    append(capture_interface::sensorstore, kEpbFlagsInbound, _last_inbound_ns, data, len);
}

void channel_capture::append(capture_interface interface, uint32_t flags, int64_t timestamp_ns,
                             const uint8_t* data, size_t len) {
    if (!_fd.ok()) return;
    const uint32_t pad = padded(len) - static_cast<uint32_t>(len);
    const uint32_t total = static_cast<uint32_t>(sizeof(epb_head) + len + pad + kEpbOptionsLen);
    const uint64_t ts = timestamp_ns < 0 ? 0 : static_cast<uint64_t>(timestamp_ns);
    const epb_head head = {kPcapngEnhancedPacket,
                           total,
                           static_cast<uint32_t>(interface),
                           static_cast<uint32_t>(ts >> 32),
                           static_cast<uint32_t>(ts),
                           static_cast<uint32_t>(len),
                           static_cast<uint32_t>(len)};
    uint8_t tail[kMaxPad + kEpbOptionsLen] = {};
    uint8_t* options = tail + pad;
    const uint16_t flags_option[2] = {kOptEpbFlags, sizeof(uint32_t)};
    memcpy(options, flags_option, sizeof(flags_option));
    memcpy(options + 4, &flags, sizeof(flags));
    // options + 8: the end-of-options marker, already zero.
    memcpy(options + 12, &total, sizeof(total));

    struct iovec iov[3] = {{const_cast<epb_head*>(&head), sizeof(head)},
                           {const_cast<uint8_t*>(data), len},
                           {tail, pad + kEpbOptionsLen}};
    const ssize_t n = TEMP_FAILURE_RETRY(writev(_fd.get(), iov, 3));
    if (n != static_cast<ssize_t>(total)) {
        switch_off("write failed", n < 0 ? errno : 0);
        return;
    }
    ++_records;
    _file_bytes += total;
    if (_file_bytes >= _rotate_bytes) rotate();
}

// Errno 0: a short write, which names no error (a full disk or a file size
// limit reached in the middle of the record).
void channel_capture::switch_off(const char* what, int error) {
    KIV_LOGE("TAV_DUCTO capture to %s %s: %s (errno = %d); capture off", _path.c_str(), what,
             error != 0 ? strerror(error) : "short write", error);
    _on = false;
    _fd.reset();
}

channel_capture::status channel_capture::get_status() const {
    kivhal::lock_guard lock(_mutex);
    return {_path, _on.load(), _records};
}

}  // namespace connection
}  // namespace kivhal
