#include "capture_replay.h"

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <thread>

#include "channel_capture.h"
#include "kiv_dump.h"
#include "sensorstore_partition.h"
#include "sns_client.pb.h"
#include "sns_ducto_packet.h"
#include "sns_std_attr.pb.h"
#include "sns_suid.pb.h"
#include "tool_cli.h"

namespace kivhal {
namespace tools {

namespace {

using std::chrono::steady_clock;

constexpr char kTool[] = "kivhal-coresim";
constexpr auto kPollSlice = std::chrono::milliseconds(50);
constexpr uint32_t kLookupRequestMsgId = 512;
constexpr uint32_t kDisableRequestMsgId = 10;
constexpr char kAbsent[] = "(absent)";
constexpr size_t kLowPowerMsgIdOffset = SNS_DUCTO_HEADER_LEN;

template <typename T>
T load(const std::vector<uint8_t>& bytes, size_t offset) {
    T value;
    memcpy(&value, bytes.data() + offset, sizeof(value));
    return value;
}

template <typename T>
std::string optional_text(bool present, T value) {
    return present ? std::to_string(value) : kAbsent;
}

std::string bool_text(bool present, bool value) {
    return present ? (value ? "true" : "false") : kAbsent;
}

std::string quoted(bool present, const std::string& value) {
    return present ? "\"" + value + "\"" : kAbsent;
}

// The inner request: a lookup for the lookup service, attributes otherwise.
void describe_inner(const sns_client_request_msg& msg, std::vector<request_field>* out) {
    if (!msg.has_request()) {
        out->push_back({"request", kAbsent});
        return;
    }
    const std::string& payload = msg.request().payload();
    const sensor_uid suid{msg.suid().uidlow(), msg.suid().uidhigh()};
    const bool lookup_service =
        suid == test::core_stub::lookup_suid() &&
        (msg.msg_id() == kLookupRequestMsgId || msg.msg_id() == kDisableRequestMsgId);
    if (lookup_service) {
        sns_suid_req req;
        if (!req.ParseFromString(payload)) {
            out->push_back({"request.payload", "undecodable"});
            return;
        }
        out->push_back(
            {"request.payload.dataTypeName", quoted(req.has_datatypename(), req.datatypename())});
        out->push_back({"request.payload.streamUpdates",
                        bool_text(req.has_streamupdates(), req.streamupdates())});
        out->push_back({"request.payload.lookupOption",
                        bool_text(req.has_lookupoption(), req.lookupoption())});
        return;
    }
    sns_std_attr_req req;
    if (!req.ParseFromString(payload)) {
        out->push_back({"request.payload", "undecodable"});
        return;
    }
    out->push_back(
        {"request.payload.streamUpdates", bool_text(req.has_streamupdates(), req.streamupdates())});
}

void describe_envelope(const std::string& payload, std::vector<request_field>* out) {
    sns_client_request_msg msg;
    if (!msg.ParseFromString(payload)) {
        out->push_back({"payload", "undecodable"});
        return;
    }
    const sensor_uid suid{msg.suid().uidlow(), msg.suid().uidhigh()};
    out->push_back({"suid", msg.has_suid() ? kivhal::dump::suid_text(suid) : kAbsent});
    out->push_back({"msg_id", optional_text(msg.has_msg_id(), msg.msg_id())});
    const auto& config = msg.suspendconfig();
    out->push_back({"suspendConfig.processorKind",
                    optional_text(config.has_processorkind(), config.processorkind())});
    out->push_back({"suspendConfig.deliveryMode",
                    optional_text(config.has_deliverymode(), config.deliverymode())});
    describe_inner(msg, out);
}

std::string image_text(const std::vector<uint8_t>& image) {
    return std::to_string(image.size()) + " bytes";
}

}  // namespace

void write_sensorstore(const std::string& path, const std::vector<uint8_t>& image) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    // Health records: private to this user, whatever the umask.
    android::base::unique_fd fd(
        TEMP_FAILURE_RETRY(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)));
    if (!fd.ok() || fchmod(fd.get(), 0600) != 0 ||
        !android::base::WriteFully(fd.get(), image.data(), image.size())) {
        throw tool_error("cannot write the sensorstore image " + path);
    }
}

void prepare_partition(const std::string& path) {
    std::error_code error;
    if (std::filesystem::exists(path, error)) return;
    write_sensorstore(path, sensorstore_image(SNS_SENSORSTORE_RESET_DONE).set_data_len(0).bytes());
}

// Lengths come last: a changed name is a better answer than the length it
// changes.
std::vector<request_field> describe_request(const std::vector<uint8_t>& packet) {
    std::vector<request_field> out;
    const request_field length{"length", std::to_string(packet.size())};
    if (packet.size() < SNS_DUCTO_REQ_HEAD_LEN) return {length};
    char msg_id[8];
    snprintf(msg_id, sizeof(msg_id), "0x%02x", load<uint16_t>(packet, 0));
    out.push_back({"head.msg_id", msg_id});
    out.push_back({"head.reserved", std::to_string(load<uint16_t>(packet, 2))});
    out.push_back({"head.pkt_len", std::to_string(load<uint16_t>(packet, 4))});
    out.push_back({"head.session_id", std::to_string(packet[6])});
    out.push_back({"head.client_req_id", std::to_string(packet[7])});
    out.push_back({"head.flag", std::to_string(packet[8])});
    const uint32_t payload_len = load<uint32_t>(packet, 9);
    const size_t available = packet.size() - SNS_DUCTO_REQ_HEAD_LEN;
    describe_envelope(
        std::string(reinterpret_cast<const char*>(packet.data()) + SNS_DUCTO_REQ_HEAD_LEN,
                    std::min<size_t>(payload_len, available)),
        &out);
    out.push_back({"head.payload_len", std::to_string(payload_len)});
    out.push_back(length);
    return out;
}

std::string first_difference(const std::vector<uint8_t>& recorded,
                             const std::vector<uint8_t>& actual) {
    const auto want = describe_request(recorded);
    const auto got = describe_request(actual);
    for (size_t i = 0; i < std::max(want.size(), got.size()); ++i) {
        const request_field none{i < want.size() ? want[i].name : got[i].name, kAbsent};
        const request_field& a = i < want.size() ? want[i] : none;
        const request_field& b = i < got.size() ? got[i] : none;
        if (a.name != b.name || a.value != b.value) {
            return a.name + ": recorded " + a.value + ", actual " + b.value;
        }
    }
    // Decoded alike: bytes no field above covers (padding, unknown fields).
    const auto differ = std::mismatch(recorded.begin(), recorded.end(), actual.begin());
    if (differ.first == recorded.end()) return "";
    char text[96];
    snprintf(text, sizeof(text), "byte %zu: recorded 0x%02x, actual 0x%02x",
             static_cast<size_t>(differ.first - recorded.begin()), *differ.first, *differ.second);
    return text;
}

namespace {

class replayer {
  public:
    replayer(const capture& capture, test::core_stub& core, const replay_options& options,
             const sigset_t& stop_signals)
        : _capture(capture), _core(core), _options(options), _stop_signals(stop_signals) {}

    int run() {
        const auto start = steady_clock::now();
        // A library that connected and hung up at once was connected too.
        if (!wait([&] { return _core.wait_connected(kPollSlice) || _core.connections() > 0; })) {
            return stopped("before the library connected");
        }
        _last_time = steady_clock::now();
        _last_ts = _capture.records.empty() ? 0 : _capture.records.front().timestamp_ns;
        for (size_t i = 0; i < _capture.records.size(); ++i) {
            const capture_record& record = _capture.records[i];
            // The replay plays the first connection's core.
            if (record.sensorstore || record.channel != _capture.channel) continue;
            const int status = record.outbound ? expect_request(record) : send(i);
            if (status >= 0) return status;
            _last_ts = record.timestamp_ns;
            _last_time = steady_clock::now();
        }
        // Closing first would make the library exit on the hang-up.
        if (!wait([&] { return take_requests() || !_core.connected(); })) {
            return stopped("after the last packet, waiting for the library to close the channel");
        }
        drain();
        if (!_pending.empty()) {
            return diverged("after the last packet: request " + std::to_string(_requests + 1) +
                            " was not recorded (" + summary(_pending.front().raw) + ")");
        }
        const double seconds = std::chrono::duration<double>(steady_clock::now() - start).count();
        printf(
            "%s: replay of %s matched: %zu packets, %zu requests as recorded, %zu sent in %.1f s\n",
            kTool, _options.file.c_str(), _capture.records.size(), _requests, _sent, seconds);
        return 0;
    }

  private:
    // Runs `ready` until it holds; false when a stop signal came first.
    template <typename Ready>
    bool wait(Ready ready) {
        while (!ready()) {
            if (stop_signal() != 0) return false;
        }
        return true;
    }

    int stop_signal() {
        const struct timespec none = {0, 0};
        const int signal_number = sigtimedwait(&_stop_signals, nullptr, &none);
        if (signal_number > 0) _signal = signal_number;
        return signal_number > 0 ? signal_number : 0;
    }

    // True when requests arrived (or are queued); waits one slice otherwise.
    bool take_requests() {
        if (_pending.empty() && !_core.wait_for_requests(1, kPollSlice)) return false;
        drain();
        return !_pending.empty();
    }

    // A request read just before the hang-up still counts.
    void drain() {
        for (auto& request : _core.take_requests()) _pending.push_back(std::move(request));
    }

    // -1 to go on, else the exit status.
    int expect_request(const capture_record& record) {
        ++_requests;
        if (!wait([&] { return take_requests() || !_core.connected(); }))
            return stopped(at(record));
        drain();
        if (_pending.empty())
            return diverged(at(record) + ": the library hung up before sending it");
        const std::vector<uint8_t> actual = std::move(_pending.front().raw);
        _pending.pop_front();
        const std::string difference = first_difference(record.bytes, actual);
        if (!difference.empty()) return diverged(at(record) + ": " + difference);
        if (_options.verbose)
            printf("%s: request %zu as recorded (%s)\n", kTool, _requests, summary(actual).c_str());
        return -1;
    }

    int send(size_t index) {
        const capture_record& record = _capture.records[index];
        if (!_options.fast && !wait([&] { return gap_elapsed(record); }))
            return stopped(at(record));
        if (is_write_info(record)) write_image(index);
        if (!_core.send_packet(record.bytes)) {
            return diverged(at(record) + ": the library hung up before it was sent");
        }
        ++_sent;
        return -1;
    }

    bool gap_elapsed(const capture_record& record) {
        const auto gap = std::chrono::nanoseconds(
            record.timestamp_ns > _last_ts ? record.timestamp_ns - _last_ts : 0);
        const auto due = _last_time + gap;
        const auto now = steady_clock::now();
        if (now >= due) return true;
        std::this_thread::sleep_for(std::min<steady_clock::duration>(due - now, kPollSlice));
        return steady_clock::now() >= due;
    }

    static bool is_write_info(const capture_record& record) {
        return record.bytes.size() > kLowPowerMsgIdOffset &&
               load<uint16_t>(record.bytes, 0) == SNS_AON_CLIENT_LOW_PWR_STATE_IND_V01 &&
               record.bytes[kLowPowerMsgIdOffset] == SNS_LOW_POWER_WRITE_INFO;
    }

    // The partition as the library found it: the header and records it
    // walked, recorded right behind the write-info.
    void write_image(size_t index) {
        std::vector<uint8_t> image;
        // Up to this channel's next packet in: requests of other threads and
        // packets of other connections may sit between the partition's records.
        for (size_t i = index + 1; i < _capture.records.size(); ++i) {
            const capture_record& next = _capture.records[i];
            if (!next.sensorstore) {
                if (next.outbound || next.channel != _capture.channel) continue;
                break;
            }
            const auto& bytes = next.bytes;
            if (bytes.size() == SNS_SENSORSTORE_HDR_LEN) image.clear();
            image.insert(image.end(), bytes.begin(), bytes.end());
        }
        if (image.empty()) return;
        write_partition(image);
        if (_options.verbose)
            printf("%s: sensorstore image of %s written\n", kTool, image_text(image).c_str());
    }

    void write_partition(const std::vector<uint8_t>& image) {
        write_sensorstore(_options.partition_path, image);
    }

    std::string at(const capture_record& record) const {
        std::string text = "at packet " + std::to_string(record.frame);
        if (record.outbound) text += " (request " + std::to_string(_requests) + ")";
        return text;
    }

    static std::string summary(const std::vector<uint8_t>& packet) {
        std::string text;
        for (const auto& field : describe_request(packet)) {
            if (field.name == "suid" || field.name == "msg_id" ||
                field.name.rfind("request.payload.", 0) == 0) {
                text += (text.empty() ? "" : ", ") + field.name + " " + field.value;
            }
        }
        return text.empty() ? std::to_string(packet.size()) + " bytes" : text;
    }

    int diverged(const std::string& what) {
        printf("%s: replay diverged %s\n", kTool, what.c_str());
        return 1;
    }

    int stopped(const std::string& where) {
        printf("%s: replay stopped by signal %d %s\n", kTool, _signal, where.c_str());
        return 1;
    }

    const capture& _capture;
    test::core_stub& _core;
    const replay_options& _options;
    const sigset_t& _stop_signals;
    std::deque<test::recorded_request> _pending;
    size_t _requests = 0;
    size_t _sent = 0;
    int _signal = 0;
    uint64_t _last_ts = 0;
    steady_clock::time_point _last_time;
};

}  // namespace

int replay_capture(const capture& capture, test::core_stub& core, const replay_options& options,
                   const sigset_t& stop_signals) {
    return replayer(capture, core, options, stop_signals).run();
}

}  // namespace tools
}  // namespace kivhal
