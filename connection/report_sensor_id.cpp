#include "report_sensor_id.h"

sensor_uid report_sensor_id_reader::read(const uint8_t* data, uint32_t len) {
    // ParseFromArray clears first, so nothing of the previous report leaks in;
    // like the fresh decode it replaces, the parse result is not looked at.
    // Callers bound len by the packet size.
    _msg.ParseFromArray(data, static_cast<int>(len));
    return sensor_uid{_msg.suid().uidlow(), _msg.suid().uidhigh()};
}
