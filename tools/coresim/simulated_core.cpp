#include "simulated_core.h"

#include <tinyxml2.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "capture_replay.h"
#include "sensor_attribute_ids.h"
#include "sensorstore_partition.h"
#include "sns_ducto_packet.h"
#include "sns_std_attr.pb.h"
#include "sns_suid.pb.h"
#include "tool_cli.h"

namespace kivhal {
namespace tools {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using test::core_stub;
using test::recorded_request;

namespace {

constexpr uint32_t kSampleEventMsgId = 1025;
constexpr uint64_t kFnvOffset = 0xcbf29ce484222325ULL;
constexpr uint64_t kFnvPrime = 0x100000001b3ULL;
constexpr milliseconds kConnectionPoll{20};
constexpr milliseconds kRequestPoll{100};
constexpr milliseconds kIdleStreamPause{1};
constexpr int kStoredReportsPerSensor = 2;
constexpr size_t kStoredSensors = 3;
constexpr char kForeignChannel[] = "foreign";

uint64_t fnv1a(const std::string& text) {
    uint64_t hash = kFnvOffset;
    for (unsigned char c : text) hash = (hash ^ c) * kFnvPrime;
    return hash;
}

bool is_on_change(const std::string& type) {
    return type == "registry" || type.rfind("health", 0) == 0 ||
           type.find("detect") != std::string::npos || type.find("state") != std::string::npos;
}

std::string suid_text(sensor_uid suid) {
    char text[40];
    snprintf(text, sizeof(text), "%016" PRIx64 ":%016" PRIx64, suid.high, suid.low);
    return text;
}

void add_string(sns_std_attr_event& event, int32_t id, const std::string& value) {
    sns_std_attr* attr = event.add_attributelist();
    attr->set_attributeid(id);
    attr->mutable_value()->add_elementlist()->set_stringvalue(value);
}

sns_std_attr_value* add_value(sns_std_attr_event& event, int32_t id) {
    sns_std_attr* attr = event.add_attributelist();
    attr->set_attributeid(id);
    return attr->mutable_value();
}

}  // namespace

std::vector<std::string> sensor_types_of_config(const std::string& path) {
    tinyxml2::XMLDocument doc;
    if (doc.LoadFile(path.c_str()) != tinyxml2::XML_SUCCESS) {
        throw usage_error("cannot read configuration " + path + ": " + doc.ErrorStr());
    }
    std::vector<std::string> types;
    auto add = [&types](const char* type) {
        if (type != nullptr && std::find(types.begin(), types.end(), type) == types.end()) {
            types.push_back(type);
        }
    };
    for (int pass = 0; pass < 2; ++pass) {
        const char* container = pass == 0 ? "datatypes" : "autoExerciseType";
        const char* entry = pass == 0 ? "datatype" : "exercisetype";
        for (auto* config = doc.FirstChildElement("configuration"); config != nullptr;
             config = config->NextSiblingElement("configuration")) {
            auto* list = config->FirstChildElement(container);
            if (list == nullptr) continue;
            for (auto* e = list->FirstChildElement(entry); e != nullptr;
                 e = e->NextSiblingElement(entry)) {
                add(e->Attribute("sensor_type"));
            }
        }
    }
    return types;
}

simulated_core::simulated_core(coresim_options options)
    : _options(std::move(options)), _core(_options.channel) {
    for (const std::string& type : _options.sensor_types) {
        if (find(type) != nullptr) continue;
        const sensor_uid suid{fnv1a(type), _sensors.size() + 1};
        _sensors.push_back({type, suid, is_on_change(type) ? kStreamOnChange : kStreamStreaming});
    }
    if (_options.write_info) write_sensorstore_image();
    _requests_thread = std::thread(&simulated_core::handle_requests, this);
    _stream_thread = std::thread(&simulated_core::stream_reports, this);
    _connection_thread = std::thread(&simulated_core::watch_connection, this);
}

simulated_core::~simulated_core() {
    _stopping = true;
    _requests_thread.join();
    _stream_thread.join();
    _connection_thread.join();
}

const simulated_core::sensor* simulated_core::find(sensor_uid suid) const {
    for (const sensor& s : _sensors) {
        if (s.suid == suid) return &s;
    }
    return nullptr;
}

const simulated_core::sensor* simulated_core::find(const std::string& type) const {
    for (const sensor& s : _sensors) {
        if (s.type == type) return &s;
    }
    return nullptr;
}

void simulated_core::say(const std::string& line) const {
    const double seconds = std::chrono::duration<double>(steady_clock::now() - _start).count();
    printf("[%9.3f] %s\n", seconds, line.c_str());
    fflush(stdout);
}

// Requests are taken from the stand-in in arrival order, so nothing is kept
// once answered, however long the simulator serves.
void simulated_core::handle_requests() {
    while (!_stopping) {
        if (!_core.wait_for_requests(1, kRequestPoll)) continue;
        const std::vector<recorded_request> taken = _core.take_requests();
        _request_waiting = true;
        for (const recorded_request& request : taken) handle(request);
        _request_waiting = false;
    }
}

void simulated_core::handle(const recorded_request& request) {
    // A client that has gone gets no answers: they would reach the next one.
    if (!_core.connected() || request.connection != _core.connections()) {
        if (_options.verbose) say("request of a closed connection dropped");
        return;
    }
    test::response_fields response;
    response.client_id = request.client_req_id;
    std::vector<std::vector<uint8_t>> packets{core_stub::make_response(response)};

    std::string what;
    if (!request.decoded) {
        what = "undecodable request, response only";
    } else if (request.suid() == core_stub::lookup_suid()) {
        what = answer_lookup(request, packets);
    } else {
        what = answer_sensor(request, packets);
    }
    if (request.decoded && request.request.msg_id() == core_stub::kDisableRequestMsgId &&
        !(request.suid() == core_stub::lookup_suid())) {
        // The answer goes out under the stream lock, after the last report.
        kivhal::lock_guard lock(_stream_mutex);
        _streams.erase({request.suid().low, request.suid().high});
        send(std::move(packets), request.connection);
    } else {
        send(std::move(packets), request.connection);
    }
    if (_options.verbose) say(what);
}

std::string simulated_core::answer_lookup(const recorded_request& request,
                                          std::vector<std::vector<uint8_t>>& packets) {
    sns_suid_req lookup;
    if (!lookup.ParseFromString(request.request.request().payload())) {
        return "lookup service: undecodable lookup, response only";
    }
    const std::string& type = lookup.datatypename();
    if (request.request.msg_id() == core_stub::kDisableRequestMsgId) {
        return "lookup service: disable (" + type + ")";
    }
    if (request.request.msg_id() != core_stub::kLookupRequestMsgId) {
        return "lookup service: message " + std::to_string(request.request.msg_id()) +
               ", response only";
    }
    if (_options.silent_types.count(type) != 0 || (_options.registry_down && type == "registry")) {
        return "lookup \"" + type + "\": not answered";
    }
    const sensor* found = find(type);
    sns_suid_event answer;
    answer.set_datatypename(type);
    if (found != nullptr) {
        auto* entry = answer.add_suids();
        entry->set_uidlow(found->suid.low);
        entry->set_uidhigh(found->suid.high);
    }
    packets.push_back(core_stub::make_report(core_stub::make_event(
        core_stub::lookup_suid(), core_stub::kLookupEventMsgId, answer.SerializeAsString())));
    return "lookup \"" + type + "\": " + (found ? suid_text(found->suid) : "no sensor");
}

std::string simulated_core::answer_sensor(const recorded_request& request,
                                          std::vector<std::vector<uint8_t>>& packets) {
    const sensor* s = find(request.suid());
    if (s == nullptr) return "unknown sensor " + suid_text(request.suid()) + ", response only";
    const uint32_t msg_id = request.request.msg_id();
    if (msg_id == core_stub::kDisableRequestMsgId) return "disable " + s->type;

    std::string what = "request " + std::to_string(msg_id) + " for " + s->type;
    if (msg_id == core_stub::kAttributeRequestMsgId) {
        sns_std_attr_event attrs;
        add_string(attrs, kAttrName, s->type);
        add_string(attrs, kAttrVendor, "kivhal-coresim");
        add_string(attrs, kAttrType, s->type);
        add_value(attrs, kAttrStreamType)->add_elementlist()->set_intvalue(s->stream_type);
        const float high = 100.0f * static_cast<float>(1 + s->suid.high % 5);
        auto* range = add_value(attrs, kAttrRanges)->add_elementlist()->mutable_nestedvalue();
        range->add_elementlist()->set_floatvalue(0.0f);
        range->add_elementlist()->set_floatvalue(high);
        if (s->stream_type == kStreamStreaming) {
            auto* rates = add_value(attrs, kAttrRates);
            for (float rate : {1.0f, 5.0f, 25.0f}) rates->add_elementlist()->set_floatvalue(rate);
        }
        packets.push_back(core_stub::make_report(core_stub::make_event(
            s->suid, core_stub::kAttributeEventMsgId, attrs.SerializeAsString())));
        what = "attributes of " + s->type + " (" + std::to_string(attrs.attributelist_size()) +
               " attributes)";
    }
    kivhal::lock_guard lock(_stream_mutex);
    _streams.emplace(std::make_pair(s->suid.low, s->suid.high),
                     steady_clock::now() + _options.delay);
    return what + ", streaming";
}

void simulated_core::send(std::vector<std::vector<uint8_t>> packets, size_t connection) {
    for (auto& packet : packets) {
        if (_options.delay.count() > 0) {
            _core.send_packet_after(_options.delay, std::move(packet), connection);
        } else {
            _core.send_packet(packet);
        }
    }
}

void simulated_core::stream_reports() {
    while (!_stopping) {
        if (_options.report_period.count() > 0) std::this_thread::sleep_for(_options.report_period);
        while (_request_waiting && !_stopping) std::this_thread::yield();
        // At full speed nothing to stream must not spin.
        if (!stream_round() && _options.report_period.count() == 0) {
            std::this_thread::sleep_for(kIdleStreamPause);
        }
    }
}

bool simulated_core::stream_round() {
    bool sent = false;
    kivhal::lock_guard lock(_stream_mutex);
    const auto now = steady_clock::now();
    for (const auto& [key, since] : _streams) {
        if (since > now) continue;
        sns_std_attr_value sample;
        sample.add_elementlist()->set_floatvalue(static_cast<float>(_report_count++));
        if (_core.send_event(core_stub::make_event({key.first, key.second}, kSampleEventMsgId,
                                                   sample.SerializeAsString()))) {
            ++_reports_sent;
            sent = true;
        }
    }
    return sent;
}

void simulated_core::watch_connection() {
    bool was_connected = false;
    bool closed = false;
    size_t seen = 0;
    steady_clock::time_point since, scheduled;
    while (!_stopping) {
        std::this_thread::sleep_for(kConnectionPoll);
        // In this order: a connection accepted between the two reads is seen
        // as new on the next poll, not twice.
        const bool connected = _core.connected();
        const size_t connections = _core.connections();
        // A client that reconnected between two polls is a new client too.
        if (connected && was_connected && connections != seen) {
            kivhal::lock_guard lock(_stream_mutex);
            _streams.clear();
            say("client disconnected");
            was_connected = false;
        }
        seen = connections;
        if (connected && !was_connected) {
            since = scheduled = steady_clock::now();
            closed = false;
            on_connected();
        } else if (connected && _options.repeat_every.count() > 0 &&
                   steady_clock::now() - scheduled >= _options.repeat_every) {
            scheduled = steady_clock::now();
            schedule_indications();
        } else if (!connected && was_connected) {
            kivhal::lock_guard lock(_stream_mutex);
            _streams.clear();
            say("client disconnected");
        }
        was_connected = connected;
        if (connected && !closed && _options.restart_after.count() > 0 &&
            steady_clock::now() - since >= _options.restart_after) {
            say("restart: closing the channel");
            _core.close_connection();
            closed = true;
        }
    }
}

void simulated_core::on_connected() {
    say("client connected");
    _write_info_total = 0;
    if (_options.write_info) {
        try {
            _write_info_total = write_sensorstore_image();
        } catch (const std::exception& e) {
            say(std::string("write-info skipped: ") + e.what());
        }
    }
    schedule_indications();
}

// Repeats send the same write-info again: the image is written once per
// connection, never under a client that may be reading it.
void simulated_core::schedule_indications() {
    for (const low_power_event& event : _options.low_power) {
        _core.send_packet_after(event.after,
                                core_stub::make_low_power_state(event.msg_id, event.session));
    }
    if (_write_info_total != 0) {
        _core.send_packet_after(
            _options.write_info_after,
            core_stub::make_low_power_state(SNS_LOW_POWER_WRITE_INFO, 0, _write_info_total, 0));
    }
}

// Reports of the first sensors as the core keeps them while the application
// processor sleeps, plus one record of another channel.
uint32_t simulated_core::write_sensorstore_image() const {
    const auto hash = [](const std::string& name) {
        return sensorstore_channel_hash(name.c_str(), static_cast<uint8_t>(name.size()));
    };
    sensorstore_image image;
    for (size_t i = 0; i < std::min(kStoredSensors, _sensors.size()); ++i) {
        for (int n = 0; n < kStoredReportsPerSensor; ++n) {
            sns_std_attr_value sample;
            sample.add_elementlist()->set_floatvalue(static_cast<float>(n));
            image.add_record(
                hash(_options.channel),
                core_stub::make_report(core_stub::make_event(_sensors[i].suid, kSampleEventMsgId,
                                                             sample.SerializeAsString()),
                                       true));
        }
    }
    image.add_record(hash(kForeignChannel), core_stub::make_report("", true));
    write_sensorstore(_options.partition_path, image.bytes());
    // The message counts the stored bytes without the partition's header.
    return image.area_len() - SNS_SENSORSTORE_HDR_LEN;
}

}  // namespace tools
}  // namespace kivhal
