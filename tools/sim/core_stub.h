#pragma once

// A stand-in for the sensor core on the far end of the packet channel.
//
// It listens on $KIVHAL_ROOT/dev/ductopkt_vorla_<name> (a SOCK_SEQPACKET
// socket, which the host platform connects to like the device node), accepts
// the library's connections one after another, records every request packet
// and sends whatever the test asks for. No test framework is needed.
//
//   kivhal::test::scoped_root root;              // sets $KIVHAL_ROOT first
//   kivhal::test::core_stub core("sensors");     // listening from here on
//   core.set_auto_respond(true);                 // answer like a core
//   core.add_sensor_type("registry", {{0x1, 0x2}});
//   core.add_sensor_type("health", {{0x3, 0x4}}, std::chrono::milliseconds(200));
//   core.add_silent_sensor_type("health_async_announce");   // never answered
//   core.set_attributes({0x3, 0x4}, attr_event);
//   tav_interface* conn = tav_interface::create(TAV_DUCTO_CONNECTION, {"sensors"});
//   ... conn->register_cb / send_request ...
//   core.wait_for_requests(2, std::chrono::seconds(1));
//   core.requests()[0].session_id ...
//   core.send_packet(core_stub::make_report(suid, 42, "payload"));
//   core.close_connection();                     // the library sees POLLHUP
//
// In automatic mode every request gets a response (0x20), in order. Lookup
// requests (512 to the lookup service) are then answered with a lookup event
// (768) from the sensor-type table, attribute requests (1) with an attribute
// event (128) from the attribute table; disable requests (10) and everything
// else get the response only. Sends are serialised, so tests, delayed answers
// and scheduled packets may interleave freely.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kiv_thread_annotations.h"
#include "sns_client.pb.h"
#include "sns_std_attr.pb.h"
#include "tav_interface.h"

namespace kivhal {
namespace test {

// One request packet as the core received it.
struct recorded_request {
    uint16_t msg_id = 0;    // packet bytes 0-1
    uint16_t reserved = 0;  // bytes 2-3
    uint16_t pkt_len = 0;   // bytes 4-5
    size_t connection = 0;  // the connection it came on, counted from 1
    uint8_t session_id = 0;
    uint8_t client_req_id = 0;
    uint8_t flag = 0;
    uint32_t payload_len = 0;
    std::vector<uint8_t> raw;  // every byte received, head included
    std::string payload;       // the payload bytes (clamped to what arrived)
    bool decoded = false;      // the payload parsed as a request envelope
    sns_client_request_msg request;

    sensor_uid suid() const { return {request.suid().uidlow(), request.suid().uidhigh()}; }
};

// Fields of a response packet (0x20).
struct response_fields {
    bool client_id_valid = true;
    uint64_t client_id = 0;
    bool result_valid = true;
    uint32_t result = 0;
};

class core_stub {
  public:
    static constexpr uint64_t kLookupSuidHalf = 0xababababababababULL;
    static constexpr uint32_t kLookupRequestMsgId = 512;
    static constexpr uint32_t kAttributeRequestMsgId = 1;
    static constexpr uint32_t kDisableRequestMsgId = 10;
    static constexpr uint32_t kLookupEventMsgId = 768;
    static constexpr uint32_t kAttributeEventMsgId = 128;

    // Binds and listens at once; throws std::runtime_error when it cannot.
    explicit core_stub(const std::string& channel_name);
    ~core_stub();
    core_stub(const core_stub&) = delete;
    core_stub& operator=(const core_stub&) = delete;

    const std::string& socket_path() const { return _socket_path; }
    static sensor_uid lookup_suid() { return {kLookupSuidHalf, kLookupSuidHalf}; }

    // --- Automatic answers ---------------------------------------------------
    void set_auto_respond(bool enabled);
    // Lookups for `data_type` are answered with `suids`, `delay` after the
    // response. Types not in the table are answered with no SUIDs.
    void add_sensor_type(const std::string& data_type, std::vector<sensor_uid> suids,
                         std::chrono::milliseconds delay = std::chrono::milliseconds(0));
    // Lookups for `data_type` get the response but never an event.
    void add_silent_sensor_type(const std::string& data_type);
    // Attribute requests for `suid` are answered with `attributes`; requests
    // for a sensor without an entry get the response only.
    void set_attributes(sensor_uid suid, const sns_std_attr_event& attributes);
    // Reports whose encoded event message is longer go out as jumbo reports.
    void set_jumbo_threshold(size_t bytes);

    // --- What arrived ----------------------------------------------------------
    bool wait_connected(std::chrono::milliseconds timeout);
    bool connected() const;
    // Connections accepted so far, also those already closed again.
    size_t connections() const;
    // True once at least `count` requests have arrived since the last clear.
    bool wait_for_requests(size_t count, std::chrono::milliseconds timeout);
    std::vector<recorded_request> requests() const;
    // Moves out every request recorded since the last clear or take.
    std::vector<recorded_request> take_requests();
    size_t request_count() const;
    void clear_requests();

    // --- Sending ---------------------------------------------------------------
    // Packet builders; the length field (bytes 4-5) is the packet's size.
    static std::vector<uint8_t> make_packet(uint16_t msg_id, const std::vector<uint8_t>& body);
    static std::vector<uint8_t> make_response(const response_fields& fields);
    // A report (0x21) or jumbo report (0x22) carrying `encoded_event`; the
    // payload-length field can be overridden to produce malformed packets.
    static std::vector<uint8_t> make_report(const std::string& encoded_event, bool jumbo = false);
    static std::vector<uint8_t> make_report_with_length(const std::string& encoded_event,
                                                        uint32_t payload_len_field,
                                                        bool jumbo = false);
    // An encoded event message for `suid` with one event.
    static std::string make_event(sensor_uid suid, uint32_t event_msg_id,
                                  const std::string& event_payload);
    static std::vector<uint8_t> make_low_power_state(uint8_t lps_msg_id, uint8_t session_id,
                                                     uint32_t total_byte_count = 0,
                                                     uint16_t shmem_byte_count = 0,
                                                     uint16_t write_info_error = 0);

    // False when no connection is up or the write failed.
    bool send_packet(const std::vector<uint8_t>& packet);
    bool send_response(const response_fields& fields) { return send_packet(make_response(fields)); }
    bool send_event(const std::string& encoded_event);  // report or jumbo by the threshold
    // Sent `delay` from now from the stand-in's own thread, in due order, on
    // connection number `connection` (see connections(); 0: the current one).
    // A packet whose connection has ended by then is dropped.
    void send_packet_after(std::chrono::milliseconds delay, std::vector<uint8_t> packet,
                           size_t connection = 0);

    // Closes the accepted connection: the library sees POLLHUP. The listener
    // stays up for the next connection.
    void close_connection();

  private:
    struct sensor_type {
        std::vector<sensor_uid> suids;
        std::chrono::milliseconds delay{0};
        bool silent = false;
    };
    struct scheduled_packet {
        std::chrono::steady_clock::time_point due;
        uint64_t sequence;
        std::vector<uint8_t> packet;
        size_t connection;
    };

    void serve();
    void deliver_scheduled();
    void record(const uint8_t* data, size_t size);
    void answer(const recorded_request& request);
    void answer_lookup(const recorded_request& request);
    void answer_attributes(const recorded_request& request);
    int current_fd() const;
    std::vector<uint8_t> report_for(const std::string& encoded_event) const;

    std::string _socket_path;
    int _listen_fd = -1;
    int _stop_pipe[2] = {-1, -1};

    mutable kivhal::mutex _mutex;
    std::condition_variable _changed;
    int _conn_fd GUARDED_BY(_mutex) = -1;
    size_t _connections GUARDED_BY(_mutex) = 0;
    bool _stopping GUARDED_BY(_mutex) = false;
    std::vector<recorded_request> _requests GUARDED_BY(_mutex);
    bool _auto_respond GUARDED_BY(_mutex) = false;
    std::map<std::string, sensor_type> _sensor_types GUARDED_BY(_mutex);
    std::map<std::pair<uint64_t, uint64_t>, std::string> _attributes GUARDED_BY(_mutex);
    size_t _jumbo_threshold GUARDED_BY(_mutex) = 4000;
    std::vector<scheduled_packet> _scheduled GUARDED_BY(_mutex);
    uint64_t _next_sequence GUARDED_BY(_mutex) = 0;

    // Held across a send, so the server cannot close and reuse the descriptor
    // meanwhile; taken before _mutex.
    kivhal::mutex _send_mutex ACQUIRED_BEFORE(_mutex);
    std::thread _server;
    std::thread _scheduler;
};

}  // namespace test
}  // namespace kivhal
