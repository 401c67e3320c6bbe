#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

// The 128-bit id of one sensor on the sensor core. The record's 16 bytes, in
// memory order (low half first), are what the hash reads.
struct sensor_uid {
    uint64_t low;
    uint64_t high;

    bool operator==(const sensor_uid& other) const {
        return low == other.low && high == other.high;
    }
    bool operator!=(const sensor_uid& other) const { return !(*this == other); }
};

// 32-bit MurmurHash2 of the record's bytes, seeded with their length, so the
// value is the same on 32- and 64-bit builds.
struct sensor_uid_hash {
    size_t operator()(const sensor_uid& suid) const;
};

enum tav_interface_error {
    TAV_INTERFACE_ERROR_NONE = 0,
    TAV_INTERFACE_ERROR_CHANNEL = 1,
};

enum tav_connection_type {
    TAV_NO_CONNECTION = 0,
    TAV_DUCTO_CONNECTION = 1,
};

struct tav_conn_config {
    const char* channel_name;
};

using tav_resp_cb = std::function<void(uint32_t result, uint64_t client_id)>;
using tav_error_cb = std::function<void(tav_interface_error error)>;
using tav_event_cb = std::function<void(const uint8_t* data, uint32_t length, uint64_t timestamp)>;

// One sensor's callbacks, owned by the connection while it is registered.
struct tav_register_cb {
    tav_register_cb(tav_resp_cb resp, tav_error_cb error, tav_event_cb event)
        : resp_cb(std::move(resp)), error_cb(std::move(error)), event_cb(std::move(event)) {}

    tav_resp_cb resp_cb;
    tav_error_cb error_cb;
    tav_event_cb event_cb;
};

// The connection to the sensor core as its clients see it.
class tav_interface {
  public:
    // Returns null for any type but TAV_DUCTO_CONNECTION. Construction errors
    // are thrown; the caller owns the result and deletes it through this base.
    static tav_interface* create(tav_connection_type type, tav_conn_config config);

    // 0 on success, -1 when the sensor is registered already.
    virtual int register_cb(sensor_uid suid, tav_resp_cb resp_cb, tav_error_cb error_cb,
                            tav_event_cb event_cb) = 0;

    // Frames the encoded request and writes it; failures are thrown.
    virtual int send_request(sensor_uid suid, bool flag, std::string payload, int session_id) = 0;

    virtual ~tav_interface() {}

    // Writes the connection's state to `fd` as text, for bug reports. Takes
    // each lock only to copy what it shows; nothing is held while writing.
    // Declared after the destructor on purpose: the first slots (the two
    // operations, then the destructor pair) are what services are built
    // against, and an addition may only extend the table.
    virtual void dump(int fd) { (void)fd; }
};
