#pragma once

// A reference for what the reader thread must deliver, written from the
// channel's wire rules and protobuf's wire format without the library or the
// generated message classes: the packet framing of ducto_read, the report
// checks, and a full parse of each report's event message.

#include <cstdint>
#include <string>
#include <vector>

#include "tav_interface.h"

namespace kivhal {
namespace fuzz {

// The sensor id of an encoded sns_client_event_msg. `well_formed` is false
// when any part of the message (the id, the events, unknown fields) breaks the
// wire format; protobuf keeps what it read before the break, so the id is then
// not determined. Group wire types and non-canonical tags count as broken: the
// reference is strict where protobuf's tolerance is not spelled out.
struct decoded_sensor_id {
    bool well_formed = false;
    sensor_uid suid{0, 0};
};
decoded_sensor_id decode_event_sensor_id(const std::string& encoded);

// One report the reader must hand to a callback: `payload` to the sensor
// `suid`, or, when `suid_known` is false, to at most one registered sensor.
struct expected_report {
    std::string payload;
    bool suid_known = true;
    sensor_uid suid{0, 0};
};

// Follows the reader over `packets` (one read each on the channel) from a
// buffer of all zero bytes.
struct stream_outcome {
    std::vector<expected_report> reports;
    // Bytes the last packet left the reader waiting for (0: it ends a packet).
    size_t bytes_missing = 0;
};
stream_outcome follow_reader(const std::vector<std::string>& packets);

}  // namespace fuzz
}  // namespace kivhal
