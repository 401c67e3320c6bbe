#pragma once

#include <cstdint>

#include "sns_client.pb.h"
#include "tav_interface.h"

// Reads the sensor id of an encoded sns_client_event_msg exactly as a full
// decode of a fresh message would, on any input. One message object is kept
// and reused: Clear() keeps what earlier reports made it allocate, so a warm
// reader decodes a report without touching the heap.
class report_sensor_id_reader {
  public:
    sensor_uid read(const uint8_t* data, uint32_t len);

  private:
    sns_client_event_msg _msg;
};
