#include "capture_file.h"

#include <algorithm>
#include <cstring>
#include <fstream>

#include "channel_capture.h"
#include "input_file.h"
#include "tool_cli.h"

namespace kivhal {
namespace tools {

namespace {

using namespace kivhal::connection;

constexpr size_t kBlockOverhead = 12;  // type, length, repeated length
constexpr size_t kEpbFixedLen = 28;    // through the original length
constexpr size_t kIdbFixedLen = 16;    // through the snap length
constexpr uint16_t kOptEnd = 0;
constexpr uint16_t kOptIfName = 2;
constexpr uint16_t kOptEpbFlags = 2;
constexpr uint16_t kOptIsbIfdrop = 5;
constexpr size_t kIsbFixedLen = 20;  // through the timestamp
constexpr uint32_t kDirectionMask = 3;
constexpr uint16_t kPcapngMajor = 1;
constexpr char kChannelNodePrefix[] = "ductopkt_vorla_";

template <typename T>
T load(const uint8_t* p) {
    T value;
    memcpy(&value, p, sizeof(value));
    return value;
}

class capture_parser {
  public:
    capture_parser(const std::string& name, const uint8_t* data, size_t size)
        : _name(name), _data(data), _size(size) {}

    capture parse() {
        if (_size < kBlockOverhead || load<uint32_t>(_data) != kPcapngSectionHeader) {
            refuse("it does not start with a pcapng section header");
        }
        size_t pos = 0;
        while (pos < _size) {
            if (_size - pos < kBlockOverhead) return cut_short();
            const uint32_t type = load<uint32_t>(_data + pos);
            const uint32_t len = load<uint32_t>(_data + pos + 4);
            if (len < kBlockOverhead || len % 4 != 0) refuse_at(pos, "bad block length");
            if (len > _size - pos) return cut_short();
            if (load<uint32_t>(_data + pos + len - 4) != len)
                refuse_at(pos, "block lengths differ");
            block(type, _data + pos, len, pos);
            pos += len;
        }
        return finish();
    }

  private:
    [[noreturn]] void refuse(const std::string& why) const {
        throw usage_error(_name + " is not a capture of the library: " + why);
    }
    [[noreturn]] void refuse_at(size_t pos, const std::string& why) const {
        refuse(why + " at offset " + std::to_string(pos));
    }

    capture cut_short() {
        _result.cut_short = true;
        return finish();
    }

    capture finish() {
        if (!_has_channel) refuse("it has no channel interface");
        std::stable_sort(_result.records.begin(), _result.records.end(),
                         [](const capture_record& a, const capture_record& b) {
                             return a.timestamp_ns < b.timestamp_ns;
                         });
        return std::move(_result);
    }

    void block(uint32_t type, const uint8_t* b, uint32_t len, size_t pos) {
        if (type == kPcapngSectionHeader) {
            if (_sections++ > 0) refuse_at(pos, "a second section (one session per file)");
            if (len < kBlockOverhead + 16 || load<uint32_t>(b + 8) != kPcapngByteOrderMagic ||
                load<uint16_t>(b + 12) != kPcapngMajor) {
                refuse_at(pos, "not a little-endian pcapng 1.x section");
            }
        } else if (type == kPcapngInterfaceDescription) {
            interface(b, len, pos);
        } else if (type == kPcapngEnhancedPacket) {
            packet(b, len, pos);
        } else if (type == kPcapngInterfaceStatistics && len >= kIsbFixedLen + 4) {
            const std::string dropped = option(b + kIsbFixedLen, b + len - 4, kOptIsbIfdrop);
            if (dropped.size() == 8) {
                _result.dropped += load<uint64_t>(reinterpret_cast<const uint8_t*>(dropped.data()));
            }
        }
        // Other blocks carry nothing a replay needs.
    }

    void interface(const uint8_t* b, uint32_t len, size_t pos) {
        if (len < kIdbFixedLen + 4) refuse_at(pos, "short interface block");
        const uint16_t linktype = load<uint16_t>(b + 8);
        if (linktype != kLinktypeChannel && linktype != kLinktypeSensorstore) {
            refuse_at(pos, "link type " + std::to_string(linktype) + " is not the channel's");
        }
        _linktypes.push_back(linktype);
        _channels.emplace_back();
        if (linktype != kLinktypeChannel) return;
        const std::string name = option(b + kIdbFixedLen, b + len - 4, kOptIfName);
        if (name.rfind(kChannelNodePrefix, 0) == 0) {
            _channels.back() = name.substr(sizeof(kChannelNodePrefix) - 1);
        }
        if (!_has_channel) _result.channel = _channels.back();
        _has_channel = true;
        ++_result.channel_interfaces;
    }

    void packet(const uint8_t* b, uint32_t len, size_t pos) {
        ++_frame;
        if (len < kEpbFixedLen + 4) refuse_at(pos, "short packet block");
        const uint32_t interface_id = load<uint32_t>(b + 8);
        const uint32_t captured = load<uint32_t>(b + 20);
        if (interface_id >= _linktypes.size()) refuse_at(pos, "packet of an undeclared interface");
        if (captured > len - kEpbFixedLen - 4) refuse_at(pos, "packet longer than its block");
        const size_t options = kEpbFixedLen + ((static_cast<size_t>(captured) + 3) & ~size_t{3});
        const std::string flags =
            options <= len - 4 ? option(b + options, b + len - 4, kOptEpbFlags) : "";
        const uint32_t flag_bits =
            flags.size() == 4 ? load<uint32_t>(reinterpret_cast<const uint8_t*>(flags.data())) : 0;
        const uint32_t direction = flag_bits & kDirectionMask;
        if (direction != kEpbFlagsInbound && direction != kEpbFlagsOutbound) {
            refuse_at(pos, "packet " + std::to_string(_frame) + " has no direction");
        }
        capture_record record;
        record.frame = _frame;
        record.sensorstore = _linktypes[interface_id] == kLinktypeSensorstore;
        record.outbound = direction == kEpbFlagsOutbound;
        record.channel = _channels[interface_id];
        record.reason = static_cast<uint8_t>((flag_bits >> kEpbReasonShift) & kEpbReasonMask);
        record.timestamp_ns =
            (static_cast<uint64_t>(load<uint32_t>(b + 12)) << 32) | load<uint32_t>(b + 16);
        record.bytes.assign(b + kEpbFixedLen, b + kEpbFixedLen + captured);
        _result.records.push_back(std::move(record));
    }

    // The value of option `code` in [p, end), or "" when absent.
    static std::string option(const uint8_t* p, const uint8_t* end, uint16_t code) {
        while (end - p >= 4) {
            const uint16_t this_code = load<uint16_t>(p);
            const uint16_t len = load<uint16_t>(p + 2);
            if (this_code == kOptEnd || len > end - p - 4) break;
            if (this_code == code) return std::string(reinterpret_cast<const char*>(p + 4), len);
            const size_t step = 4 + ((len + 3u) & ~3u);
            if (step > static_cast<size_t>(end - p)) break;
            p += step;
        }
        return "";
    }

    const std::string& _name;
    const uint8_t* _data;
    size_t _size;
    capture _result;
    std::vector<uint16_t> _linktypes;
    std::vector<std::string> _channels;  // by interface id; "" for the sensorstore's
    bool _has_channel = false;
    int _sections = 0;
    size_t _frame = 0;
};

}  // namespace

capture parse_capture(const std::string& name, const uint8_t* data, size_t size) {
    return capture_parser(name, data, size).parse();
}

capture read_capture(const std::string& path) {
    const uint64_t size = check_input_file(path, input_kind::regular_file, kMaxCaptureFileSize);
    // One byte more than was there: a file that grew since is refused, not
    // read without end.
    std::ifstream in(path, std::ios::binary);
    std::string content(static_cast<size_t>(size) + 1, '\0');
    in.read(&content[0], static_cast<std::streamsize>(content.size()));
    if (in.bad() || static_cast<uint64_t>(in.gcount()) > size) {
        throw usage_error("cannot read " + path + ": it changed while being read");
    }
    content.resize(static_cast<size_t>(in.gcount()));
    return parse_capture(path, reinterpret_cast<const uint8_t*>(content.data()), content.size());
}

}  // namespace tools
}  // namespace kivhal
