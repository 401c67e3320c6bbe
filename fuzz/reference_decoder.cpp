#include "reference_decoder.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace kivhal {
namespace fuzz {
namespace {

// --- protobuf wire format ----------------------------------------------------

enum wire_type : uint32_t { kVarint = 0, kFixed64 = 1, kLengthDelimited = 2, kFixed32 = 5 };
constexpr size_t kMaxVarintBytes = 10;
constexpr size_t kMaxTagBytes = 5;

class wire_reader {
  public:
    explicit wire_reader(const std::string& bytes)
        : _p(reinterpret_cast<const uint8_t*>(bytes.data())), _end(_p + bytes.size()) {}
    bool done() const { return _p == _end; }

    bool varint(uint64_t* value, size_t max_bytes) {
        uint64_t result = 0;
        for (size_t i = 0; i < max_bytes; ++i) {
            if (_p == _end) return false;
            const uint8_t byte = *_p++;
            if (i == kMaxVarintBytes - 1 && byte > 1) return false;  // past 64 bits
            result |= static_cast<uint64_t>(byte & 0x7f) << (7 * i);
            if ((byte & 0x80) == 0) {
                if (i > 0 && byte == 0) return false;  // padded encoding
                *value = result;
                return true;
            }
        }
        return false;
    }
    bool tag(uint32_t* field, uint32_t* type) {
        uint64_t value = 0;
        if (!varint(&value, kMaxTagBytes) || value > UINT32_MAX) return false;
        *field = static_cast<uint32_t>(value >> 3);
        *type = static_cast<uint32_t>(value & 7);
        return *field != 0;
    }
    bool fixed(size_t width, uint64_t* value) {
        if (static_cast<size_t>(_end - _p) < width) return false;
        uint64_t result = 0;
        for (size_t i = width; i-- > 0;) result = (result << 8) | _p[i];
        _p += width;
        *value = result;
        return true;
    }
    bool length_delimited(std::string* out) {
        uint64_t length = 0;
        if (!varint(&length, kMaxTagBytes) || length > INT_MAX) return false;
        if (length > static_cast<uint64_t>(_end - _p)) return false;
        out->assign(reinterpret_cast<const char*>(_p), static_cast<size_t>(length));
        _p += length;
        return true;
    }
    // Reads one field's value of `type`; `bytes` gets length-delimited content
    // and `number` the scalar.
    bool value(uint32_t type, uint64_t* number, std::string* bytes) {
        switch (type) {
            case kVarint:
                return varint(number, kMaxVarintBytes);
            case kFixed64:
                return fixed(8, number);
            case kFixed32:
                return fixed(4, number);
            case kLengthDelimited:
                return length_delimited(bytes);
            default:
                return false;  // groups and the unused types 6, 7
        }
    }

  private:
    const uint8_t* _p;
    const uint8_t* _end;
};

// Walks every field of a message; `on_field` returns false to reject it.
template <typename OnField>
bool for_each_field(const std::string& message, OnField on_field) {
    wire_reader in(message);
    while (!in.done()) {
        uint32_t field = 0, type = 0;
        uint64_t number = 0;
        std::string bytes;
        if (!in.tag(&field, &type) || !in.value(type, &number, &bytes)) return false;
        if (!on_field(field, type, number, bytes)) return false;
    }
    return true;
}

// sns_std_suid: 1 uidLow fixed64, 2 uidHigh fixed64. Merged into `suid`.
bool parse_suid(const std::string& message, sensor_uid* suid) {
    return for_each_field(message,
                          [&](uint32_t field, uint32_t type, uint64_t number, const std::string&) {
                              if (type == kFixed64 && field == 1) suid->low = number;
                              if (type == kFixed64 && field == 2) suid->high = number;
                              return true;
                          });
}

// sns_client_event: 1 msg_id fixed32, 2 timestamp fixed64, 3 payload bytes.
// Only well-formedness matters here.
bool parse_event(const std::string& message) {
    return for_each_field(message,
                          [](uint32_t, uint32_t, uint64_t, const std::string&) { return true; });
}

// --- the channel ---------------------------------------------------------------

constexpr size_t kBufferLen = 10019;  // the reader's packet buffer
constexpr size_t kLengthKnownAt = 7;  // bytes before the length field is trusted
constexpr size_t kLengthOffset = 4;
constexpr uint16_t kReport = 0x21;
constexpr uint16_t kJumboReport = 0x22;
constexpr size_t kPayloadLenOffset = 15;
constexpr size_t kPayloadOffset = 19;

uint32_t le(const uint8_t* p, size_t width) {
    uint32_t value = 0;
    for (size_t i = width; i-- > 0;) value = (value << 8) | p[i];
    return value;
}

// What the report in the first `length` bytes of `buf` must deliver, if any.
bool report_of(const uint8_t* buf, size_t length, expected_report* report) {
    const uint32_t msg_id = le(buf, 2);
    if (msg_id != kReport && msg_id != kJumboReport) return false;
    if (length < kPayloadOffset) return false;
    const uint32_t payload_len = le(buf + kPayloadLenOffset, 4);
    if (payload_len == 0 || payload_len > length - kPayloadOffset) return false;
    report->payload.assign(reinterpret_cast<const char*>(buf + kPayloadOffset), payload_len);
    const decoded_sensor_id id = decode_event_sensor_id(report->payload);
    report->suid_known = id.well_formed;
    report->suid = id.suid;
    return true;
}

}  // namespace

decoded_sensor_id decode_event_sensor_id(const std::string& encoded) {
    decoded_sensor_id result;
    sensor_uid suid{0, 0};
    // sns_client_event_msg: 1 suid (message, merged), 2 eventList (messages).
    result.well_formed = for_each_field(
        encoded, [&](uint32_t field, uint32_t type, uint64_t, const std::string& bytes) {
            if (type != kLengthDelimited) return true;
            if (field == 1) return parse_suid(bytes, &suid);
            if (field == 2) return parse_event(bytes);
            return true;
        });
    if (result.well_formed) result.suid = suid;
    return result;
}

stream_outcome follow_reader(const std::vector<std::string>& packets) {
    stream_outcome outcome;
    uint8_t buf[kBufferLen] = {};
    size_t next = 0;
    while (next < packets.size()) {
        // One ducto_read: the first read asks for the whole buffer, later
        // ones for the packet's length, each taking at most one packet and
        // dropping what does not fit.
        size_t total = 0, want = kBufferLen;
        bool length_known = false, dropped = false;
        while (total < want) {
            if (next == packets.size()) {
                outcome.bytes_missing = length_known ? want - total : kLengthKnownAt - total;
                return outcome;
            }
            const std::string& packet = packets[next++];
            const size_t take = std::min(packet.size(), std::min(want, kBufferLen - total));
            memcpy(buf + total, packet.data(), take);
            total += take;
            if (!length_known && total >= kLengthKnownAt) {
                length_known = true;
                want = le(buf + kLengthOffset, 2);
                if (want > kBufferLen) {
                    dropped = true;
                    break;
                }
            }
        }
        expected_report report;
        if (!dropped && report_of(buf, total, &report)) outcome.reports.push_back(report);
    }
    return outcome;
}

}  // namespace fuzz
}  // namespace kivhal
