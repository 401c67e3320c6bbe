// Feeds arbitrary packets to the real reader thread: the sensor core's end of
// the channel writes each input as packets of any id and length, then a
// sentinel report; once the sentinel's callback has run, every packet before
// it has been read and dispatched (a reader that gets stuck shows up as a
// timeout). What each registered sensor's callback received is then compared
// with what an independent decode of the same packets says it must receive.
//
// Input: up to kMaxPackets records of a 16-bit little-endian length (taken
// modulo the channel's packet size, plus one) and that many packet bytes.

#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "kivhal/host.h"
#include "reference_decoder.h"
#include "sns_ducto_packet.h"

namespace {

using kivhal::fuzz::expected_report;

constexpr size_t kMaxPackets = 64;
constexpr auto kReaderTimeout = std::chrono::seconds(10);
constexpr uint16_t kInfoResponse = SNS_AON_CLIENT_INFO_RESP_V01;

// Sensors with callbacks; {0, 0} is what an event without an id names.
constexpr sensor_uid kSensors[] = {{0x1111, 0xa1}, {0x2222, 0xb2}, {0, 0}};
constexpr sensor_uid kSentinel{0x5e5e5e5e5e5e5e5eULL, 0x5e5e5e5e5e5e5e5eULL};
constexpr size_t kSentinelIndex = sizeof(kSensors) / sizeof(kSensors[0]);

struct delivery {
    size_t sensor;  // index into kSensors, or kSentinelIndex
    std::string payload;
    uint64_t timestamp;
};

class delivery_log {
  public:
    tav_event_cb callback(size_t sensor) {
        return [this, sensor](const uint8_t* data, uint32_t length, uint64_t timestamp) {
            std::lock_guard<std::mutex> lock(_mutex);
            _deliveries.push_back(
                {sensor, std::string(reinterpret_cast<const char*>(data), length), timestamp});
            _changed.notify_all();
        };
    }
    tav_resp_cb unexpected_response() {
        return [](uint32_t, uint64_t) {
            // No request was sent, so no response may reach a client.
            fprintf(stderr, "response callback called without a request\n");
            abort();
        };
    }
    void clear() {
        std::lock_guard<std::mutex> lock(_mutex);
        _deliveries.clear();
    }
    // Waits until the sentinel has `payload`; the deliveries before it.
    bool wait_for_sentinel(const std::string& payload, std::vector<delivery>* before) {
        std::unique_lock<std::mutex> lock(_mutex);
        const bool arrived = _changed.wait_for(lock, kReaderTimeout, [&] {
            return !_deliveries.empty() && _deliveries.back().sensor == kSentinelIndex &&
                   _deliveries.back().payload == payload;
        });
        if (arrived) before->assign(_deliveries.begin(), _deliveries.end() - 1);
        return arrived;
    }

  private:
    std::mutex _mutex;
    std::condition_variable _changed;
    std::vector<delivery> _deliveries;
};

delivery_log& deliveries() {
    static delivery_log* log = new delivery_log();
    return *log;
}

void put_le(std::string* out, size_t offset, uint64_t value, size_t width) {
    for (size_t i = 0; i < width; ++i) (*out)[offset + i] = static_cast<char>(value >> (8 * i));
}

// A packet of `length` zero bytes with the id and the length field set.
std::string packet_head(uint16_t msg_id, size_t length) {
    std::string packet(length, '\0');
    put_le(&packet, 0, msg_id, 2);
    put_le(&packet, 4, length, 2);
    return packet;
}

// Fills the reader's whole buffer, so every input starts from the same bytes
// whatever the previous one left behind.
std::string reset_packet() {
    return packet_head(kInfoResponse, SNS_DUCTO_PACKET_LEN);
}

std::string le64(uint64_t value) {
    std::string out(8, '\0');
    put_le(&out, 0, value, 8);
    return out;
}

// A report for the sentinel sensor whose one event carries `nonce` as its
// payload, encoded by hand: suid {1: low, 2: high}, eventList {3: payload}.
std::string sentinel_report(uint64_t nonce, std::string* payload) {
    const std::string suid = "\x09" + le64(kSentinel.low) + "\x11" + le64(kSentinel.high);
    const std::string event = "\x1a\x08" + le64(nonce);
    *payload = "\x0a" + std::string(1, static_cast<char>(suid.size())) + suid + "\x12" +
               std::string(1, static_cast<char>(event.size())) + event;
    std::string packet =
        packet_head(SNS_AON_CLIENT_REPORT_IND_V01, SNS_DUCTO_IND_PAYLOAD_OFFSET + payload->size());
    put_le(&packet, SNS_DUCTO_IND_PAYLOAD_LEN_OFFSET, payload->size(), 4);
    packet.replace(SNS_DUCTO_IND_PAYLOAD_OFFSET, payload->size(), *payload);
    return packet;
}

std::vector<std::string> split_packets(const uint8_t* data, size_t size) {
    kivhal::fuzz::input_reader in(data, size);
    std::vector<std::string> packets;
    while (in.remaining() > 0 && packets.size() < kMaxPackets) {
        // Never empty: on a host an empty packet reads as a hung-up peer.
        const size_t length = in.u16() % SNS_DUCTO_PACKET_LEN + 1;
        std::string packet = in.bytes(length);
        if (packet.empty()) break;
        packets.push_back(std::move(packet));
    }
    return packets;
}

void write_packet(int fd, const std::string& packet) {
    if (write(fd, packet.data(), packet.size()) != static_cast<ssize_t>(packet.size())) {
        perror("write to the channel");
        abort();
    }
}

bool registered(const sensor_uid& suid, size_t* index) {
    for (size_t i = 0; i < kSentinelIndex; ++i) {
        if (kSensors[i] == suid) {
            *index = i;
            return true;
        }
    }
    if (kSentinel == suid) {
        *index = kSentinelIndex;
        return true;
    }
    return false;
}

[[noreturn]] void mismatch(const char* what, size_t report) {
    fprintf(stderr, "callbacks differ from the reference decode at report %zu: %s\n", report, what);
    abort();
}

// Walks the reference's reports and the callbacks' deliveries side by side.
// A report with a well-formed event goes to its sensor if that one is
// registered; one whose event breaks the wire format goes to at most one
// sensor, unchanged.
void compare(const std::vector<expected_report>& expected, const std::vector<delivery>& got) {
    size_t next = 0;
    uint64_t last_time = 0;
    for (size_t i = 0; i < expected.size(); ++i) {
        const expected_report& report = expected[i];
        size_t sensor = 0;
        if (report.suid_known && !registered(report.suid, &sensor)) continue;
        if (next == got.size() || got[next].payload != report.payload) {
            if (report.suid_known) mismatch("a report was not delivered", i);
            continue;
        }
        if (report.suid_known && got[next].sensor != sensor) mismatch("wrong sensor", i);
        if (got[next].timestamp < last_time) mismatch("arrival time went backwards", i);
        last_time = got[next].timestamp;
        ++next;
    }
    if (next != got.size()) mismatch("a callback received a report the packets do not hold", next);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    kivhal::fuzz::set_log_level_from_environment();
    // Every packet also goes through the capture (rotating, so bounded).
    const std::string capture = kivhal::fuzz::host_path("/capture.pcapng");
    kivhal::host::set_property("persist.vendor.debug.kiv.capture", capture.c_str());
    tav_ducto& conn = kivhal::fuzz::channel_pair::instance().connection();
    for (size_t i = 0; i <= kSentinelIndex; ++i) {
        const sensor_uid suid = i < kSentinelIndex ? kSensors[i] : kSentinel;
        conn.register_cb(suid, deliveries().unexpected_response(), nullptr,
                         deliveries().callback(i));
    }
    if (access(capture.c_str(), F_OK) != 0) {
        fprintf(stderr, "capture %s was not started\n", capture.c_str());
        abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static uint64_t nonce = 0;
    std::vector<std::string> packets = split_packets(data, size);
    packets.insert(packets.begin(), reset_packet());
    // A packet the input leaves unfinished is completed with zero bytes, as a
    // core would finish it, so the sentinel starts a packet of its own.
    kivhal::fuzz::stream_outcome outcome = kivhal::fuzz::follow_reader(packets);
    while (outcome.bytes_missing != 0) {
        packets.emplace_back(outcome.bytes_missing, '\0');
        outcome = kivhal::fuzz::follow_reader(packets);
    }

    auto& channel = kivhal::fuzz::channel_pair::instance();
    deliveries().clear();
    channel.begin_stream();
    for (const std::string& packet : packets) write_packet(channel.peer_fd(), packet);
    channel.end_stream();
    std::string sentinel_payload;
    write_packet(channel.peer_fd(), sentinel_report(++nonce, &sentinel_payload));

    std::vector<delivery> got;
    if (!deliveries().wait_for_sentinel(sentinel_payload, &got)) {
        fprintf(stderr, "the reader did not reach the sentinel report within %lld s\n",
                static_cast<long long>(kReaderTimeout.count()));
        abort();
    }
    compare(outcome.reports, got);
    kivhal::fuzz::end_input();
    return 0;
}
