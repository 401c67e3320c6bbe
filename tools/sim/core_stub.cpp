#include "core_stub.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "kivhal/platform.h"
#include "sns_ducto_packet.h"
#include "sns_suid.pb.h"

namespace kivhal {
namespace test {

namespace {

constexpr char kDevNodePrefix[] = "/dev/ductopkt_vorla_";
constexpr size_t kReceiveBufferLen = 65536;
constexpr size_t kResponseBodyLen = sizeof(sns_aon_client_resp_msg_v01);
constexpr size_t kReportHeadLen = SNS_DUCTO_IND_PAYLOAD_OFFSET - SNS_DUCTO_HEADER_LEN;
constexpr size_t kReportLenFieldOffset = SNS_DUCTO_IND_PAYLOAD_LEN_OFFSET - SNS_DUCTO_HEADER_LEN;

template <typename T>
void put_le(std::vector<uint8_t>& out, size_t offset, T value) {
    for (size_t i = 0; i < sizeof(T); ++i) {
        out[offset + i] = static_cast<uint8_t>(static_cast<uint64_t>(value) >> (8 * i));
    }
}

template <typename T>
T get_le(const uint8_t* in) {
    uint64_t value = 0;
    for (size_t i = 0; i < sizeof(T); ++i) value |= static_cast<uint64_t>(in[i]) << (8 * i);
    return static_cast<T>(value);
}

bool is_lookup_service(const sensor_uid& suid) {
    return suid == core_stub::lookup_suid();
}

void close_fd(int& fd) {
    if (fd >= 0) close(fd);
    fd = -1;
}

}  // namespace

core_stub::core_stub(const std::string& channel_name) {
    _socket_path = kivhal::platform::resolve_path(std::string(kDevNodePrefix) + channel_name);
    std::filesystem::create_directories(std::filesystem::path(_socket_path).parent_path());
    unlink(_socket_path.c_str());

    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (_socket_path.size() >= sizeof(addr.sun_path)) {
        throw std::runtime_error("core_stub: socket path too long: " + _socket_path);
    }
    strcpy(addr.sun_path, _socket_path.c_str());

    _listen_fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (_listen_fd < 0 ||
        bind(_listen_fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) != 0 ||
        listen(_listen_fd, 4) != 0 || pipe(_stop_pipe) != 0) {
        std::string reason = strerror(errno);
        close_fd(_listen_fd);
        close_fd(_stop_pipe[0]);
        close_fd(_stop_pipe[1]);
        throw std::runtime_error("core_stub: cannot listen on " + _socket_path + ": " + reason);
    }
    _server = std::thread(&core_stub::serve, this);
    _scheduler = std::thread(&core_stub::deliver_scheduled, this);
}

core_stub::~core_stub() {
    {
        kivhal::lock_guard lock(_mutex);
        _stopping = true;
    }
    _changed.notify_all();
    const char stop = 's';
    if (write(_stop_pipe[1], &stop, 1) != 1) {
        // The server also notices _stopping after its next packet.
    }
    _server.join();
    _scheduler.join();
    close_fd(_conn_fd);
    close_fd(_listen_fd);
    close_fd(_stop_pipe[0]);
    close_fd(_stop_pipe[1]);
    unlink(_socket_path.c_str());
}

void core_stub::set_auto_respond(bool enabled) {
    kivhal::lock_guard lock(_mutex);
    _auto_respond = enabled;
}

void core_stub::add_sensor_type(const std::string& data_type, std::vector<sensor_uid> suids,
                                std::chrono::milliseconds delay) {
    kivhal::lock_guard lock(_mutex);
    sensor_type& type = _sensor_types[data_type];
    type.suids = std::move(suids);
    type.delay = delay;
    type.silent = false;
}

void core_stub::add_silent_sensor_type(const std::string& data_type) {
    kivhal::lock_guard lock(_mutex);
    _sensor_types[data_type].silent = true;
}

void core_stub::set_attributes(sensor_uid suid, const sns_std_attr_event& attributes) {
    kivhal::lock_guard lock(_mutex);
    _attributes[{suid.low, suid.high}] = attributes.SerializeAsString();
}

void core_stub::set_jumbo_threshold(size_t bytes) {
    kivhal::lock_guard lock(_mutex);
    _jumbo_threshold = bytes;
}

bool core_stub::wait_connected(std::chrono::milliseconds timeout) {
    kivhal::unique_lock lock(_mutex);
    return _changed.wait_for(lock.native(), timeout,
                             [this]() REQUIRES(_mutex) { return _conn_fd >= 0; });
}

bool core_stub::connected() const {
    kivhal::lock_guard lock(_mutex);
    return _conn_fd >= 0;
}

size_t core_stub::connections() const {
    kivhal::lock_guard lock(_mutex);
    return _connections;
}

bool core_stub::wait_for_requests(size_t count, std::chrono::milliseconds timeout) {
    kivhal::unique_lock lock(_mutex);
    return _changed.wait_for(lock.native(), timeout,
                             [&]() REQUIRES(_mutex) { return _requests.size() >= count; });
}

std::vector<recorded_request> core_stub::requests() const {
    kivhal::lock_guard lock(_mutex);
    return _requests;
}

std::vector<recorded_request> core_stub::take_requests() {
    kivhal::lock_guard lock(_mutex);
    std::vector<recorded_request> taken;
    taken.swap(_requests);
    return taken;
}

size_t core_stub::request_count() const {
    kivhal::lock_guard lock(_mutex);
    return _requests.size();
}

void core_stub::clear_requests() {
    kivhal::lock_guard lock(_mutex);
    _requests.clear();
}

std::vector<uint8_t> core_stub::make_packet(uint16_t msg_id, const std::vector<uint8_t>& body) {
    std::vector<uint8_t> packet(SNS_DUCTO_HEADER_LEN + body.size());
    put_le<uint16_t>(packet, 0, msg_id);
    put_le<uint16_t>(packet, 4, static_cast<uint16_t>(packet.size()));
    std::copy(body.begin(), body.end(), packet.begin() + SNS_DUCTO_HEADER_LEN);
    return packet;
}

std::vector<uint8_t> core_stub::make_response(const response_fields& fields) {
    std::vector<uint8_t> body(kResponseBodyLen);
    body[offsetof(sns_aon_client_resp_msg_v01, client_id_valid)] = fields.client_id_valid;
    put_le<uint64_t>(body, offsetof(sns_aon_client_resp_msg_v01, client_id), fields.client_id);
    body[offsetof(sns_aon_client_resp_msg_v01, result_valid)] = fields.result_valid;
    put_le<uint32_t>(body, offsetof(sns_aon_client_resp_msg_v01, result), fields.result);
    return make_packet(SNS_AON_CLIENT_RESP_V01, body);
}

std::vector<uint8_t> core_stub::make_report(const std::string& encoded_event, bool jumbo) {
    return make_report_with_length(encoded_event, static_cast<uint32_t>(encoded_event.size()),
                                   jumbo);
}

std::vector<uint8_t> core_stub::make_report_with_length(const std::string& encoded_event,
                                                        uint32_t payload_len_field, bool jumbo) {
    std::vector<uint8_t> body(kReportHeadLen + encoded_event.size());
    put_le<uint32_t>(body, kReportLenFieldOffset, payload_len_field);
    std::copy(encoded_event.begin(), encoded_event.end(), body.begin() + kReportHeadLen);
    return make_packet(jumbo ? SNS_AON_CLIENT_JUMBO_REPORT_IND_V01 : SNS_AON_CLIENT_REPORT_IND_V01,
                       body);
}

std::string core_stub::make_event(sensor_uid suid, uint32_t event_msg_id,
                                  const std::string& event_payload) {
    sns_client_event_msg event_msg;
    event_msg.mutable_suid()->set_uidlow(suid.low);
    event_msg.mutable_suid()->set_uidhigh(suid.high);
    auto* event = event_msg.add_eventlist();
    event->set_msg_id(event_msg_id);
    event->set_timestamp(
        static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()));
    event->set_payload(event_payload);
    return event_msg.SerializeAsString();
}

std::vector<uint8_t> core_stub::make_low_power_state(uint8_t lps_msg_id, uint8_t session_id,
                                                     uint32_t total_byte_count,
                                                     uint16_t shmem_byte_count,
                                                     uint16_t write_info_error) {
    std::vector<uint8_t> body(sizeof(sns_aon_client_low_pwr_state_ind_msg_v01));
    body[offsetof(sns_aon_client_low_pwr_state_ind_msg_v01, lps_msg_id)] = lps_msg_id;
    body[offsetof(sns_aon_client_low_pwr_state_ind_msg_v01, lps_session_id)] = session_id;
    const size_t info = offsetof(sns_aon_client_low_pwr_state_ind_msg_v01, write_info);
    put_le<uint32_t>(body, info, total_byte_count);
    put_le<uint16_t>(body, info + 4, shmem_byte_count);
    put_le<uint16_t>(body, info + 6, write_info_error);
    return make_packet(SNS_AON_CLIENT_LOW_PWR_STATE_IND_V01, body);
}

int core_stub::current_fd() const {
    kivhal::lock_guard lock(_mutex);
    return _conn_fd;
}

bool core_stub::send_packet(const std::vector<uint8_t>& packet) {
    // Held across the send so the server cannot close and reuse the descriptor.
    kivhal::lock_guard send_lock(_send_mutex);
    int fd = current_fd();
    if (fd < 0) return false;
    ssize_t sent = send(fd, packet.data(), packet.size(), MSG_NOSIGNAL);
    return sent == static_cast<ssize_t>(packet.size());
}

std::vector<uint8_t> core_stub::report_for(const std::string& encoded_event) const {
    kivhal::lock_guard lock(_mutex);
    return make_report(encoded_event, encoded_event.size() > _jumbo_threshold);
}

bool core_stub::send_event(const std::string& encoded_event) {
    return send_packet(report_for(encoded_event));
}

void core_stub::send_packet_after(std::chrono::milliseconds delay, std::vector<uint8_t> packet,
                                  size_t connection) {
    {
        kivhal::lock_guard lock(_mutex);
        // An answer decided for a client that left meanwhile must not reach
        // the next one: clearing the queue at the hang-up cannot catch it.
        if (connection != 0 && (connection != _connections || _conn_fd < 0)) return;
        _scheduled.push_back({std::chrono::steady_clock::now() + delay, _next_sequence++,
                              std::move(packet), connection != 0 ? connection : _connections});
    }
    _changed.notify_all();
}

void core_stub::close_connection() {
    kivhal::lock_guard send_lock(_send_mutex);
    int fd = current_fd();
    // Shut down both ways: the peer sees a hang-up, the server reads the end
    // and closes the descriptor itself.
    if (fd >= 0) shutdown(fd, SHUT_RDWR);
}

void core_stub::serve() {
    std::vector<uint8_t> buffer(kReceiveBufferLen);
    for (;;) {
        int conn = current_fd();
        struct pollfd fds[2] = {{_stop_pipe[0], POLLIN, 0},
                                {conn >= 0 ? conn : _listen_fd, POLLIN, 0}};
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (fds[0].revents != 0) return;
        if (fds[1].revents == 0) continue;

        if (conn < 0) {
            int accepted = accept4(_listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
            if (accepted < 0) continue;
            {
                kivhal::lock_guard lock(_mutex);
                _conn_fd = accepted;
                ++_connections;
            }
            _changed.notify_all();
            continue;
        }

        ssize_t n = recv(conn, buffer.data(), buffer.size(), 0);
        if (n > 0) {
            record(buffer.data(), static_cast<size_t>(n));
            continue;
        }
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        // The library went away or the test closed the connection; what was
        // meant for this client must not reach the next one.
        kivhal::lock_guard send_lock(_send_mutex);
        kivhal::lock_guard lock(_mutex);
        close_fd(_conn_fd);
        _scheduled.clear();
    }
}

void core_stub::record(const uint8_t* data, size_t size) {
    recorded_request request;
    request.raw.assign(data, data + size);
    if (size >= SNS_DUCTO_HEADER_LEN) {
        request.msg_id = get_le<uint16_t>(data);
        request.reserved = get_le<uint16_t>(data + 2);
        request.pkt_len = get_le<uint16_t>(data + 4);
    }
    const uint8_t* head = data + SNS_DUCTO_HEADER_LEN;
    if (size >= SNS_DUCTO_REQ_HEAD_LEN) {
        request.session_id = head[offsetof(sns_aon_client_req_msg_v01, session_id)];
        request.client_req_id = head[offsetof(sns_aon_client_req_msg_v01, client_req_id)];
        request.flag = head[offsetof(sns_aon_client_req_msg_v01, flag)];
        request.payload_len =
            get_le<uint32_t>(head + offsetof(sns_aon_client_req_msg_v01, payload_len));
        const size_t payload_offset = SNS_DUCTO_REQ_HEAD_LEN;  // packet head included
        const size_t available = size - payload_offset;
        const size_t len = std::min<size_t>(request.payload_len, available);
        request.payload.assign(reinterpret_cast<const char*>(data + payload_offset), len);
        request.decoded = request.request.ParseFromString(request.payload);
    }

    bool auto_respond;
    {
        kivhal::lock_guard lock(_mutex);
        request.connection = _connections;
        _requests.push_back(request);
        auto_respond = _auto_respond;
    }
    _changed.notify_all();
    if (auto_respond) answer(request);
}

void core_stub::answer(const recorded_request& request) {
    response_fields fields;
    fields.client_id = request.client_req_id;
    send_response(fields);
    if (!request.decoded) return;

    const uint32_t msg_id = request.request.msg_id();
    if (msg_id == kLookupRequestMsgId && is_lookup_service(request.suid())) {
        answer_lookup(request);
    } else if (msg_id == kAttributeRequestMsgId) {
        answer_attributes(request);
    }
}

void core_stub::answer_lookup(const recorded_request& request) {
    sns_suid_req lookup;
    if (!lookup.ParseFromString(request.request.request().payload())) return;

    sensor_type type;
    {
        kivhal::lock_guard lock(_mutex);
        auto it = _sensor_types.find(lookup.datatypename());
        if (it != _sensor_types.end()) type = it->second;
    }
    if (type.silent) return;

    sns_suid_event answer;
    answer.set_datatypename(lookup.datatypename());
    for (const sensor_uid& suid : type.suids) {
        auto* entry = answer.add_suids();
        entry->set_uidlow(suid.low);
        entry->set_uidhigh(suid.high);
    }
    const std::string event =
        make_event(lookup_suid(), kLookupEventMsgId, answer.SerializeAsString());
    if (type.delay.count() > 0) {
        send_packet_after(type.delay, report_for(event));
    } else {
        send_event(event);
    }
}

void core_stub::answer_attributes(const recorded_request& request) {
    std::string attributes;
    {
        kivhal::lock_guard lock(_mutex);
        auto it = _attributes.find({request.suid().low, request.suid().high});
        if (it == _attributes.end()) return;
        attributes = it->second;
    }
    send_event(make_event(request.suid(), kAttributeEventMsgId, attributes));
}

void core_stub::deliver_scheduled() {
    kivhal::unique_lock lock(_mutex);
    while (!_stopping) {
        if (_scheduled.empty()) {
            _changed.wait(lock.native());
            continue;
        }
        auto next =
            std::min_element(_scheduled.begin(), _scheduled.end(),
                             [](const scheduled_packet& a, const scheduled_packet& b) {
                                 return a.due != b.due ? a.due < b.due : a.sequence < b.sequence;
                             });
        // A copy: a send scheduled during the wait may reallocate the queue.
        const auto due = next->due;
        if (due > std::chrono::steady_clock::now()) {
            _changed.wait_until(lock.native(), due);
            continue;
        }
        std::vector<uint8_t> packet = std::move(next->packet);
        const bool current = next->connection == _connections;
        _scheduled.erase(next);
        if (!current) continue;
        lock.unlock();
        send_packet(packet);
        lock.lock();
    }
}

}  // namespace test
}  // namespace kivhal
