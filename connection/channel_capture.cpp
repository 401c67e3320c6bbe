#include "channel_capture.h"

#include <android-base/unique_fd.h>
#include <cutils/properties.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>
#include <utils/SystemClock.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <thread>
#include <vector>

#include "kiv_log.h"
#include "kiv_thread_annotations.h"

namespace kivhal {
namespace connection {

namespace {

// O_NOFOLLOW: a planted symlink cannot redirect the log; O_NONBLOCK: a FIFO
// cannot hang the connection. Readable, to tell an earlier session's packets.
constexpr int kOpenFlags = O_RDWR | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
constexpr mode_t kPrivateMode = 0600;
constexpr mode_t kModeBits = 07777;
constexpr char kRotatedSuffix[] = ".1";
constexpr char kApplication[] = "libkivhal_common";
constexpr char kSensorstoreInterfaceName[] = "sensorstore";
constexpr char kChannelNodePrefix[] = "ductopkt_vorla_";
constexpr uint32_t kSensorstoreInterface = 0;
// More connections than this in one process are not captured.
constexpr size_t kMaxInterfaces = 64;
constexpr auto kFlushInterval = std::chrono::seconds(1);
// The largest record: a stored packet (16-bit length) behind its hash.
constexpr uint32_t kSnapLen = 4 + 65535;
constexpr uint8_t kNanosecondResolution = 9;
constexpr int64_t kNanosPerSecond = 1000000000;
// An earlier session's file is looked at this far for a packet block.
constexpr int kHeaderBlocksLooked = 64;
constexpr uint64_t kNoPending = UINT64_MAX;

constexpr uint16_t kOptEnd = 0;
constexpr uint16_t kOptComment = 1;
constexpr uint16_t kOptShbUserAppl = 4;
constexpr uint16_t kOptIfName = 2;
constexpr uint16_t kOptIfTsresol = 9;
constexpr uint16_t kOptIfTsoffset = 14;
constexpr uint16_t kOptEpbFlags = 2;
constexpr uint16_t kOptIsbIfdrop = 5;

constexpr size_t kBlockOverhead = 12;  // type, length, repeated length
constexpr size_t kEpbHeadLen = 28;
// epb_flags, the end of options, the repeated length.
constexpr size_t kEpbTailLen = 8 + 4 + 4;
constexpr size_t kMaxCommentLen = 64;

uint32_t padded(size_t len) {
    return static_cast<uint32_t>((len + 3) & ~size_t{3});
}

void put32(std::string* out, uint32_t value) {
    out->append(reinterpret_cast<char*>(&value), 4);
}
void put16(std::string* out, uint16_t value) {
    out->append(reinterpret_cast<char*>(&value), 2);
}

void put_option(std::string* out, uint16_t code, const void* value, size_t len) {
    put16(out, code);
    put16(out, static_cast<uint16_t>(len));
    out->append(static_cast<const char*>(value), len);
    out->append(padded(len) - len, '\0');
}

// Closes a block whose body (after type and length) is `body`.
std::string block(uint32_t type, const std::string& body) {
    std::string out;
    const uint32_t total = static_cast<uint32_t>(kBlockOverhead + body.size());
    put32(&out, type);
    put32(&out, total);
    out += body;
    put32(&out, total);
    return out;
}

std::string section_header() {
    std::string shb;
    put32(&shb, kPcapngByteOrderMagic);
    put16(&shb, 1);  // version 1.0
    put16(&shb, 0);
    const int64_t unknown_length = -1;
    shb.append(reinterpret_cast<const char*>(&unknown_length), 8);
    put_option(&shb, kOptShbUserAppl, kApplication, sizeof(kApplication) - 1);
    put_option(&shb, kOptEnd, nullptr, 0);
    return block(kPcapngSectionHeader, shb);
}

// `real_minus_boot_ns`: the date of boot. if_tsoffset counts whole seconds,
// so the exact offset goes in the comment for whoever lines up to the
// millisecond.
std::string interface_block(uint16_t linktype, const std::string& name, int64_t real_minus_boot_ns) {
    std::string body;
    put16(&body, linktype);
    put16(&body, 0);
    put32(&body, kSnapLen);
    put_option(&body, kOptIfName, name.data(), name.size());
    put_option(&body, kOptIfTsresol, &kNanosecondResolution, 1);
    const int64_t offset_s = (real_minus_boot_ns + kNanosPerSecond / 2) / kNanosPerSecond;
    put_option(&body, kOptIfTsoffset, &offset_s, sizeof(offset_s));
    char comment[96];
    snprintf(comment, sizeof(comment), "timestamps: boot clock; boot was at %lld.%09lld s real time",
             static_cast<long long>(real_minus_boot_ns / kNanosPerSecond),
             static_cast<long long>(real_minus_boot_ns % kNanosPerSecond));
    put_option(&body, kOptComment, comment, strlen(comment));
    put_option(&body, kOptEnd, nullptr, 0);
    return block(kPcapngInterfaceDescription, body);
}

std::string statistics_block(uint32_t interface_id, int64_t timestamp_ns, uint64_t dropped) {
    std::string body;
    const uint64_t ts = timestamp_ns < 0 ? 0 : static_cast<uint64_t>(timestamp_ns);
    put32(&body, interface_id);
    put32(&body, static_cast<uint32_t>(ts >> 32));
    put32(&body, static_cast<uint32_t>(ts));
    put_option(&body, kOptIsbIfdrop, &dropped, sizeof(dropped));
    put_option(&body, kOptEnd, nullptr, 0);
    return block(kPcapngInterfaceStatistics, body);
}

int64_t real_minus_boot_ns() {
    struct timespec real;
    clock_gettime(CLOCK_REALTIME, &real);
    return static_cast<int64_t>(real.tv_sec) * kNanosPerSecond + real.tv_nsec -
           android::elapsedRealtimeNano();
}

// True when the file at `fd` holds a packet block within its first blocks.
bool has_packets(int fd) {
    off_t pos = 0;
    for (int i = 0; i < kHeaderBlocksLooked; ++i) {
        uint32_t head[2];
        if (pread(fd, head, sizeof(head), pos) != static_cast<ssize_t>(sizeof(head))) return false;
        if (head[0] == kPcapngEnhancedPacket) return true;
        if (head[1] < kBlockOverhead) return false;
        pos += head[1];
    }
    // Something else: keep it, whatever it is.
    return true;
}

}  // namespace

const char* capture_reason_text(capture_reason reason) {
    switch (reason) {
        case capture_reason::none:
            return "";
        case capture_reason::length_past_buffer:
            return "dropped: length field past the packet buffer";
        case capture_reason::short_packet:
            return "dropped: shorter than its length field";
        case capture_reason::short_report:
            return "dropped: report shorter than its head";
        case capture_reason::payload_past_read:
            return "dropped: report payload runs past the bytes read";
        case capture_reason::unknown_msg_id:
            return "dropped: unknown message id";
        case capture_reason::write_failed:
            return "not sent: the channel write failed";
    }
    return "dropped";
}

// The process's one capture file. Lock order: _lifecycle_mutex (attach,
// detach), _file_mutex (the file, held across its writes), _mutex (the ring
// and the interfaces, held only for copies, never across a system call but
// the writer's wake-up).
class capture_sink {
  public:
    std::unique_ptr<channel_capture> attach(const std::string& path, const std::string& channel_name,
                                            uint64_t rotate_bytes, size_t buffer_bytes)
        EXCLUDES(_lifecycle_mutex, _file_mutex, _mutex);
    void detach(uint32_t interface_id) EXCLUDES(_lifecycle_mutex, _file_mutex, _mutex);

    // The recording side; see channel_capture. `append` returns the record's
    // position, kNoPending when it was not taken.
    uint64_t append(uint32_t interface_id, uint32_t flags, const uint8_t* data, size_t len,
                    bool pending) EXCLUDES(_mutex);
    void commit(uint32_t interface_id, uint64_t position, bool sent) EXCLUDES(_mutex);
    channel_capture::status get_status(uint32_t interface_id) const EXCLUDES(_mutex);

    void finish() EXCLUDES(_file_mutex, _mutex);

  private:
    struct interface_state {
        std::string name;
        uint64_t records = 0;
        uint64_t dropped = 0;
        uint64_t pending = kNoPending;  // ring position of an uncommitted outbound record
        uint64_t block_end = 0;         // ring position past its description block
    };

    bool start(const std::string& path, uint64_t rotate_bytes, size_t buffer_bytes)
        REQUIRES(_file_mutex) EXCLUDES(_mutex);
    bool start_file(android::base::unique_fd fd) REQUIRES(_file_mutex) EXCLUDES(_mutex);
    void switch_off(const char* what, int error) REQUIRES(_file_mutex);
    uint32_t add_interface(const std::string& name) REQUIRES(_file_mutex) EXCLUDES(_mutex);
    void put(uint64_t position, const void* data, size_t len) REQUIRES(_mutex);
    uint32_t get32(uint64_t position) const REQUIRES(_mutex);
    uint64_t frontier() const REQUIRES(_mutex);
    bool wake_due(uint64_t before) REQUIRES(_mutex);
    void writer_loop() EXCLUDES(_file_mutex, _mutex);
    void flush(bool everything, bool may_rotate) REQUIRES(_file_mutex) EXCLUDES(_mutex);
    uint64_t whole_blocks(uint64_t from, uint64_t to, uint64_t written) EXCLUDES(_mutex);
    bool write_all(const std::string& bytes) REQUIRES(_file_mutex);
    void rotate() REQUIRES(_file_mutex) EXCLUDES(_mutex);
    void end_file() REQUIRES(_file_mutex) EXCLUDES(_mutex);

    kivhal::mutex _lifecycle_mutex ACQUIRED_BEFORE(_file_mutex);
    kivhal::mutex _file_mutex ACQUIRED_BEFORE(_mutex);
    mutable kivhal::mutex _mutex;
    std::condition_variable _wake;

    std::string _path GUARDED_BY(_file_mutex);
    uint64_t _rotate_bytes GUARDED_BY(_file_mutex) = kCaptureRotateBytes;
    android::base::unique_fd _fd GUARDED_BY(_file_mutex);
    uint64_t _file_bytes GUARDED_BY(_file_mutex) = 0;
    int64_t _real_minus_boot_ns GUARDED_BY(_file_mutex) = 0;
    // Connections attached; the writer thread runs while there are any.
    size_t _users GUARDED_BY(_lifecycle_mutex) = 0;
    std::thread _writer GUARDED_BY(_lifecycle_mutex);

    // Tested unlocked first, so capture off costs no lock; set under _mutex.
    std::atomic<bool> _on{false};
    std::atomic<uint64_t> _file_writes{0};
    std::string _status_path GUARDED_BY(_mutex);
    // The ring: [_tail, _head) recorded and not yet written, as positions
    // that only grow; a byte sits at position & _mask. The file writer reads
    // [_tail, its end) without _mutex: recorders write only past _head, and
    // _head - _tail never exceeds the ring. Set and freed under both
    // _file_mutex and _mutex, so either keeps the pointer.
    std::unique_ptr<uint8_t[]> _ring;
    uint64_t _mask GUARDED_BY(_mutex) = 0;
    uint64_t _head GUARDED_BY(_mutex) = 0;
    uint64_t _tail GUARDED_BY(_mutex) = 0;
    bool _kicked GUARDED_BY(_mutex) = false;  // the writer was woken for a full flush
    bool _stopping GUARDED_BY(_mutex) = false;
    bool _write_failed GUARDED_BY(_mutex) = false;  // the writer thread ends
    std::vector<interface_state> _interfaces GUARDED_BY(_mutex);
};

namespace {

capture_sink& the_sink() {
    // Never destroyed: exit() may write it out while other threads record.
    static capture_sink* sink = new capture_sink();
    return *sink;
}

void finish_at_exit() {
    the_sink().finish();
}

}  // namespace

void finish_capture() {
    the_sink().finish();
}

std::unique_ptr<channel_capture> capture_sink::attach(const std::string& path,
                                                      const std::string& channel_name,
                                                      uint64_t rotate_bytes, size_t buffer_bytes) {
    kivhal::lock_guard lifecycle(_lifecycle_mutex);
    uint32_t id = 0;
    bool started = false;
    {
        kivhal::lock_guard file(_file_mutex);
        if (_users > 0 && path != _path) {
            KIV_LOGE("TAV_DUCTO capture to %s refused: this process captures to %s; capture off",
                     path.c_str(), _path.c_str());
            return nullptr;
        }
        if (_users == 0) {
            if (!start(path, rotate_bytes, buffer_bytes)) {
                kivhal::lock_guard lock(_mutex);
                _ring.reset();
                return nullptr;
            }
            started = true;
        } else if (!_on) {
            return nullptr;  // off after an error until every connection has gone
        }
        id = add_interface(kChannelNodePrefix + channel_name);
        if (id == 0 && started) {
            end_file();
            kivhal::lock_guard lock(_mutex);
            _on = false;
        }
    }
    if (id == 0) return nullptr;
    if (started) {
        static std::once_flag registered;
        std::call_once(registered, [] { atexit(finish_at_exit); });
        _writer = std::thread([this] { writer_loop(); });
    }
    ++_users;
    return std::unique_ptr<channel_capture>(new channel_capture(this, id));
}

bool capture_sink::start(const std::string& path, uint64_t rotate_bytes, size_t buffer_bytes) {
    _path = path;
    _rotate_bytes = rotate_bytes;
    _file_bytes = 0;
    _real_minus_boot_ns = real_minus_boot_ns();
    {
        kivhal::lock_guard lock(_mutex);
        _ring.reset(new uint8_t[buffer_bytes]);
        _mask = buffer_bytes - 1;
        _head = _tail = 0;
        _kicked = _stopping = _write_failed = false;
        _interfaces.clear();
        _interfaces.reserve(kMaxInterfaces);
        _interfaces.push_back({kSensorstoreInterfaceName});
        _status_path = path;
    }
    android::base::unique_fd fd(TEMP_FAILURE_RETRY(::open(path.c_str(), kOpenFlags, kPrivateMode)));
    if (!fd.ok()) {
        switch_off("cannot be opened", errno);
        return false;
    }
    if (!start_file(std::move(fd))) return false;
    kivhal::lock_guard lock(_mutex);
    _on = true;
    return true;
}

// Refuses anything but a regular file of this user with one link (another
// user's file would leak health data to them; a hard link would overwrite
// the file it shares), makes it private, moves an earlier session's file
// aside and writes the section header and the interfaces written so far.
bool capture_sink::start_file(android::base::unique_fd fd) {
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
        KIV_LOGE(
            "TAV_DUCTO capture to %s refused: owned by uid %u, not by this process's %u; "
            "capture off",
            _path.c_str(), static_cast<unsigned>(st.st_uid), static_cast<unsigned>(geteuid()));
        return false;
    }
    if (st.st_nlink > 1) {
        KIV_LOGE("TAV_DUCTO capture to %s refused: it has %u links; capture off", _path.c_str(),
                 static_cast<unsigned>(st.st_nlink));
        return false;
    }
    if ((st.st_mode & kModeBits) != kPrivateMode && fchmod(fd.get(), kPrivateMode) != 0) {
        switch_off("cannot be made private", errno);
        return false;
    }
    if (st.st_size > 0 && has_packets(fd.get())) {
        // The previous session's file: kept as .1, which a crash loop needs.
        // One without packets (a connection that never came up) is reused.
        const std::string rotated = _path + kRotatedSuffix;
        if (rename(_path.c_str(), rotated.c_str()) != 0) {
            switch_off("cannot be rotated", errno);
            return false;
        }
        // O_EXCL: whatever appears at the path meanwhile is not ours to write.
        android::base::unique_fd fresh(
            TEMP_FAILURE_RETRY(::open(_path.c_str(), kOpenFlags | O_EXCL, kPrivateMode)));
        if (!fresh.ok()) {
            switch_off("cannot be reopened after rotation", errno);
            return false;
        }
        return start_file(std::move(fresh));
    }
    _fd = std::move(fd);
    if (st.st_size > 0 && ftruncate(_fd.get(), 0) != 0) {
        switch_off("cannot be truncated", errno);
        return false;
    }
    _file_bytes = 0;
    std::string header =
        section_header() +
        interface_block(kLinktypeSensorstore, kSensorstoreInterfaceName, _real_minus_boot_ns);
    {
        // Channel interfaces whose blocks are written already (after a
        // rotation); later ones follow from the ring, in order.
        kivhal::lock_guard lock(_mutex);
        for (size_t i = 1; i < _interfaces.size() && _interfaces[i].block_end <= _tail; ++i) {
            header += interface_block(kLinktypeChannel, _interfaces[i].name, _real_minus_boot_ns);
        }
    }
    return write_all(header);
}

// The description block goes through the ring, so it precedes the
// interface's packets in whichever file they land in. 0 when not added.
uint32_t capture_sink::add_interface(const std::string& name) {
    const std::string idb = interface_block(kLinktypeChannel, name, _real_minus_boot_ns);
    kivhal::lock_guard lock(_mutex);
    if (_interfaces.size() >= kMaxInterfaces || idb.size() > _mask + 1 - (_head - _tail)) {
        KIV_LOGE("TAV_DUCTO capture to %s: no room for %s; capture off for it", _path.c_str(),
                 name.c_str());
        return 0;
    }
    const bool was_empty = _head == _tail;
    put(_head, idb.data(), idb.size());
    _head += idb.size();
    _interfaces.push_back({name});
    _interfaces.back().block_end = _head;
    if (was_empty) _wake.notify_one();
    return static_cast<uint32_t>(_interfaces.size() - 1);
}

void capture_sink::detach(uint32_t interface_id) {
    kivhal::lock_guard lifecycle(_lifecycle_mutex);
    {
        kivhal::lock_guard lock(_mutex);
        if (interface_id < _interfaces.size()) _interfaces[interface_id].pending = kNoPending;
        if (_users == 1) _stopping = true;
    }
    if (--_users > 0) return;
    _wake.notify_all();
    if (_writer.joinable()) _writer.join();
    kivhal::lock_guard file(_file_mutex);
    flush(true, false);
    end_file();
    kivhal::lock_guard lock(_mutex);
    _on = false;
    _ring.reset();
    _interfaces.clear();
    _head = _tail = 0;
}

void capture_sink::finish() {
    kivhal::lock_guard file(_file_mutex);
    {
        kivhal::lock_guard lock(_mutex);
        _on = false;
        // A late commit must not touch bytes being written.
        for (interface_state& state : _interfaces) state.pending = kNoPending;
    }
    // Pending outbound records too: their write is under way, and nothing
    // comes after this. The writer thread is left waiting on an empty ring:
    // the process is ending, and joining it here could wait on a detach.
    flush(true, false);
    end_file();
}

void capture_sink::put(uint64_t position, const void* data, size_t len) {
    const size_t offset = static_cast<size_t>(position & _mask);
    const size_t first = std::min(len, static_cast<size_t>(_mask + 1 - offset));
    memcpy(_ring.get() + offset, data, first);
    if (first < len) memcpy(_ring.get(), static_cast<const uint8_t*>(data) + first, len - first);
}

uint32_t capture_sink::get32(uint64_t position) const {
    uint8_t bytes[4];
    for (size_t i = 0; i < sizeof(bytes); ++i) bytes[i] = _ring[(position + i) & _mask];
    uint32_t value;
    memcpy(&value, bytes, sizeof(value));
    return value;
}

// Where the writer must stop: the first uncommitted outbound record.
uint64_t capture_sink::frontier() const {
    uint64_t end = _head;
    for (const interface_state& state : _interfaces) end = std::min(end, state.pending);
    return end;
}

// Whether the writer needs a wake-up after the ring grew from `before`: it
// sleeps without a deadline while the ring is empty, and is woken early
// once a flush's worth is ready.
bool capture_sink::wake_due(uint64_t before) {
    if (before == _tail) return true;
    if (_kicked || frontier() - _tail < kCaptureFlushBytes) return false;
    _kicked = true;
    return true;
}

uint64_t capture_sink::append(uint32_t interface_id, uint32_t flags, const uint8_t* data,
                              size_t len, bool pending) {
    if (!_on.load(std::memory_order_relaxed)) return kNoPending;
    const auto reason = static_cast<capture_reason>((flags >> kEpbReasonShift) & kEpbReasonMask);
    const char* comment = capture_reason_text(reason);
    const size_t comment_len = strnlen(comment, kMaxCommentLen);
    const size_t comment_option = comment_len > 0 ? 4 + padded(comment_len) : 0;
    const uint32_t pad = padded(len) - static_cast<uint32_t>(len);
    const uint32_t total =
        static_cast<uint32_t>(kEpbHeadLen + len + pad + comment_option + kEpbTailLen);
    static const uint8_t zeros[4] = {};

    kivhal::unique_lock lock(_mutex);
    if (!_on || interface_id >= _interfaces.size()) return kNoPending;
    interface_state& state = _interfaces[interface_id];
    if (total > _mask + 1 - (_head - _tail)) {
        ++state.dropped;
        return kNoPending;
    }
    // Stamped under the lock: the ring's order is the timestamps' order.
    const int64_t now = android::elapsedRealtimeNano();
    const uint64_t ts = now < 0 ? 0 : static_cast<uint64_t>(now);
    const uint32_t head[7] = {kPcapngEnhancedPacket,
                              total,
                              interface_id,
                              static_cast<uint32_t>(ts >> 32),
                              static_cast<uint32_t>(ts),
                              static_cast<uint32_t>(len),
                              static_cast<uint32_t>(len)};
    const uint64_t position = _head;
    uint64_t at = position;
    put(at, head, sizeof(head));
    at += sizeof(head);
    put(at, data, len);
    at += len;
    put(at, zeros, pad);
    at += pad;
    if (comment_option > 0) {
        const uint16_t option[2] = {kOptComment, static_cast<uint16_t>(comment_len)};
        put(at, option, sizeof(option));
        put(at + 4, comment, comment_len);
        put(at + 4 + comment_len, zeros, padded(comment_len) - comment_len);
        at += comment_option;
    }
    const uint32_t tail[4] = {kOptEpbFlags | (uint32_t{sizeof(uint32_t)} << 16), flags, kOptEnd,
                              total};
    put(at, tail, sizeof(tail));
    _head += total;
    ++state.records;
    if (pending) state.pending = position;
    const bool wake = wake_due(position);
    lock.unlock();
    if (wake) _wake.notify_one();
    return position;
}

void capture_sink::commit(uint32_t interface_id, uint64_t position, bool sent) {
    kivhal::unique_lock lock(_mutex);
    if (interface_id >= _interfaces.size() || _interfaces[interface_id].pending != position) return;
    if (!sent) {
        // The flags value sits 12 bytes before the block's end.
        const uint64_t flags_at = position + get32(position + 4) - 12;
        const uint32_t not_sent = static_cast<uint32_t>(capture_reason::write_failed);
        const uint32_t flags = get32(flags_at) | (not_sent << kEpbReasonShift);
        put(flags_at, &flags, sizeof(flags));
    }
    _interfaces[interface_id].pending = kNoPending;
    const bool wake = wake_due(UINT64_MAX);
    lock.unlock();
    if (wake) _wake.notify_one();
}

channel_capture::status capture_sink::get_status(uint32_t interface_id) const {
    kivhal::lock_guard lock(_mutex);
    channel_capture::status status = {
        _status_path, _on.load(), interface_id, 0, 0, _file_writes.load(), _head - _tail, 0};
    if (interface_id < _interfaces.size()) {
        status.records = _interfaces[interface_id].records;
        status.dropped = _interfaces[interface_id].dropped;
    }
    for (const interface_state& state : _interfaces) status.all_dropped += state.dropped;
    return status;
}

// Sleeps while the ring is empty; once it is not, writes it out a second
// later, or when a flush's worth is ready.
void capture_sink::writer_loop() {
    kivhal::unique_lock lock(_mutex);
    for (;;) {
        while (!_stopping && _head == _tail) _wake.wait(lock.native());
        if (_stopping) return;
        const auto due = std::chrono::steady_clock::now() + kFlushInterval;
        while (!_stopping && !_kicked &&
               _wake.wait_until(lock.native(), due) == std::cv_status::no_timeout) {
        }
        if (_stopping) return;
        lock.unlock();
        {
            kivhal::lock_guard file(_file_mutex);
            flush(false, true);
        }
        lock.lock();
        if (_write_failed) return;
    }
}

void capture_sink::flush(bool everything, bool may_rotate) {
    uint64_t from, to;
    size_t mask;
    {
        kivhal::lock_guard lock(_mutex);
        from = _tail;
        to = everything ? _head : frontier();
        mask = static_cast<size_t>(_mask);
        _kicked = false;
    }
    if (to == from) return;
    if (!_fd.ok()) {
        // Off after an error: nothing more reaches the file.
        kivhal::lock_guard lock(_mutex);
        _tail = _head;
        _write_failed = true;
        return;
    }
    const size_t offset = static_cast<size_t>(from & mask);
    const size_t len = static_cast<size_t>(to - from);
    const size_t first = std::min(len, mask + 1 - offset);
    struct iovec iov[2] = {{_ring.get() + offset, first}, {_ring.get(), len - first}};
    const ssize_t n = TEMP_FAILURE_RETRY(writev(_fd.get(), iov, first < len ? 2 : 1));
    ++_file_writes;
    if (n != static_cast<ssize_t>(len)) {
        const int error = n < 0 ? errno : 0;
        // Back to the last whole block, so the file reads to its end.
        const uint64_t kept = whole_blocks(from, to, n < 0 ? 0 : static_cast<uint64_t>(n));
        (void)!ftruncate(_fd.get(), static_cast<off_t>(_file_bytes + kept));
        switch_off("write failed", error);
        kivhal::lock_guard lock(_mutex);
        _tail = _head;
        _write_failed = true;
        return;
    }
    _file_bytes += len;
    {
        kivhal::lock_guard lock(_mutex);
        _tail = to;
    }
    if (may_rotate && _fd.ok() && _file_bytes >= _rotate_bytes) rotate();
}

// The bytes of the blocks in [from, to) that lie wholly in the first `written`.
uint64_t capture_sink::whole_blocks(uint64_t from, uint64_t to, uint64_t written) {
    kivhal::lock_guard lock(_mutex);
    uint64_t kept = 0;
    while (from + kept < to) {
        const uint32_t len = get32(from + kept + 4);
        if (kept + len > written) break;
        kept += len;
    }
    return kept;
}

bool capture_sink::write_all(const std::string& bytes) {
    const ssize_t n = TEMP_FAILURE_RETRY(write(_fd.get(), bytes.data(), bytes.size()));
    ++_file_writes;
    if (n != static_cast<ssize_t>(bytes.size())) {
        const int error = n < 0 ? errno : 0;
        (void)!ftruncate(_fd.get(), static_cast<off_t>(_file_bytes));
        switch_off("write failed", error);
        return false;
    }
    _file_bytes += bytes.size();
    return true;
}

void capture_sink::rotate() {
    end_file();
    const std::string rotated = _path + kRotatedSuffix;
    if (rename(_path.c_str(), rotated.c_str()) != 0) {
        switch_off("cannot be rotated", errno);
        return;
    }
    android::base::unique_fd fd(
        TEMP_FAILURE_RETRY(::open(_path.c_str(), kOpenFlags | O_EXCL, kPrivateMode)));
    if (!fd.ok()) {
        switch_off("cannot be reopened after rotation", errno);
        return;
    }
    start_file(std::move(fd));
}

// Each written interface's drop count, then the file is closed.
void capture_sink::end_file() {
    if (!_fd.ok()) return;
    std::string statistics;
    {
        kivhal::lock_guard lock(_mutex);
        const int64_t now = android::elapsedRealtimeNano();
        for (size_t i = 0; i < _interfaces.size() && _interfaces[i].block_end <= _tail; ++i) {
            statistics += statistics_block(static_cast<uint32_t>(i), now, _interfaces[i].dropped);
        }
    }
    if (write_all(statistics)) _fd.reset();
}

// Errno 0: a short write, which names no error (a full disk or a file size
// limit reached in the middle of a block).
void capture_sink::switch_off(const char* what, int error) {
    KIV_LOGE("TAV_DUCTO capture to %s %s: %s (errno = %d); capture off", _path.c_str(), what,
             error != 0 ? strerror(error) : "short write", error);
    {
        kivhal::lock_guard lock(_mutex);
        _on = false;
    }
    _fd.reset();
}

std::unique_ptr<channel_capture> channel_capture::from_property(const std::string& channel_name) {
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(kCaptureProperty, value, "");
    if (value[0] == '\0') return nullptr;
    return open(value, channel_name);
}

std::unique_ptr<channel_capture> channel_capture::open(const std::string& path,
                                                       const std::string& channel_name,
                                                       uint64_t rotate_bytes, size_t buffer_bytes) {
    return the_sink().attach(path, channel_name, rotate_bytes, buffer_bytes);
}

channel_capture::channel_capture(capture_sink* sink, uint32_t interface_id)
    : _sink(sink), _interface(interface_id) {}

channel_capture::~channel_capture() {
    _sink->detach(_interface);
}

void channel_capture::inbound(const uint8_t* data, size_t len, capture_reason reason) {
    _sink->append(_interface, kEpbFlagsInbound | (static_cast<uint32_t>(reason) << kEpbReasonShift),
                  data, len, false);
}

channel_capture::reservation channel_capture::reserve_outbound(const uint8_t* data, size_t len) {
    const uint64_t position = _sink->append(_interface, kEpbFlagsOutbound, data, len, true);
    return {position, position != kNoPending};
}

void channel_capture::commit_outbound(reservation r, bool sent) {
    if (r.valid) _sink->commit(_interface, r.position, sent);
}

void channel_capture::sensorstore_record(const uint8_t* data, size_t len) {
    _sink->append(kSensorstoreInterface, kEpbFlagsInbound, data, len, false);
}

channel_capture::status channel_capture::get_status() const {
    return _sink->get_status(_interface);
}

}  // namespace connection
}  // namespace kivhal
