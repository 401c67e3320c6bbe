#include "fuzz_support.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "kiv_log.h"
#include "kivhal/host.h"

namespace kivhal {
namespace fuzz {
namespace {

constexpr char kChannelName[] = "sensors";
constexpr int kMaxLogLevel = kiv_log::VERBOSE;

void make_dirs(const std::string& path) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        mkdir(path.substr(0, slash).c_str(), 0700);
    }
    mkdir(path.c_str(), 0700);
}

void remove_root() {
    std::error_code ignored;
    std::filesystem::remove_all(device_root(), ignored);
}

std::string create_root() {
    char dir[] = "/tmp/kivhal-fuzz-XXXXXX";
    if (mkdtemp(dir) == nullptr) throw std::runtime_error("mkdtemp failed");
    setenv("KIVHAL_ROOT", dir, 1);
    const std::string root(dir);
    for (const char* d : {"/sys/power", "/mnt/vendor/persist/sensors", "/vendor/etc/sensors",
                          "/dev/block/bootdevice/by-name"}) {
        make_dirs(root + d);
    }
    for (const char* f : {"/sys/power/wake_lock", "/sys/power/wake_unlock"}) {
        std::ofstream(root + f).flush();
    }
    return root;
}

}  // namespace

const std::string& device_root() {
    static const std::string* root = [] {
        auto* path = new std::string(create_root());
        atexit(remove_root);
        return path;
    }();
    return *root;
}

std::string host_path(const std::string& device_path) {
    return device_root() + device_path;
}

void write_device_file(const std::string& device_path, const uint8_t* data, size_t size) {
    std::ofstream out(host_path(device_path), std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    if (!out) throw std::runtime_error("cannot write " + device_path);
}

void end_input() {
    host::clear_captured_log();
}

void set_log_level_from_environment() {
    int level = kMaxLogLevel;
    if (const char* text = getenv("KIVHAL_FUZZ_LOG_LEVEL")) level = atoi(text);
    if (level < kiv_log::SILENT || level > kMaxLogLevel) level = kMaxLogLevel;
    kiv_log::set_level(static_cast<kiv_log::log_level>(level));
}

channel_pair& channel_pair::instance() {
    static channel_pair* pair = new channel_pair();
    return *pair;
}

channel_pair::channel_pair() {
    device_root();
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds) != 0) {
        throw std::runtime_error("socketpair failed");
    }
    // The library's end behaves as the device node: non-blocking.
    fcntl(fds[0], F_SETFL, fcntl(fds[0], F_GETFL) | O_NONBLOCK);
    _peer_fd = fds[1];
    const int library_fd = fds[0];
    host::channel_hooks hooks;
    hooks.read = [this](int fd, void* buf, size_t len) { return read_channel(fd, buf, len); };
    hooks.open = [library_fd](const char* path, int flags) {
        // Only the channel is the pair; the partition and the rest are files.
        if (std::string(path).find("/dev/ductopkt_vorla_") != std::string::npos) return library_fd;
        return host::real_open_node(path, flags);
    };
    host::set_channel_hooks(hooks);
    _conn = new tav_ducto(tav_ducto_config{kChannelName});
}

ssize_t channel_pair::read_channel(int fd, void* buf, size_t len) {
    constexpr int kWaitMs = 10;
    for (;;) {
        const ssize_t n = host::real_read_node(fd, buf, len);
        if (n >= 0 || errno != EAGAIN || !_streaming.load()) return n;
        struct pollfd entry = {fd, POLLIN, 0};
        poll(&entry, 1, kWaitMs);
    }
}

uint8_t input_reader::u8() {
    if (_offset >= _size) return 0;
    return _data[_offset++];
}

uint16_t input_reader::u16() {
    const uint16_t low = u8();
    return static_cast<uint16_t>(low | (u8() << 8));
}

uint32_t input_reader::u32() {
    const uint32_t low = u16();
    return low | (static_cast<uint32_t>(u16()) << 16);
}

std::string input_reader::bytes(size_t count) {
    const size_t n = std::min(count, remaining());
    std::string out(reinterpret_cast<const char*>(_data + _offset), n);
    _offset += n;
    return out;
}

}  // namespace fuzz
}  // namespace kivhal
