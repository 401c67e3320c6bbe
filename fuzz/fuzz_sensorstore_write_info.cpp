// Feeds a low-power-state message (normally a write-info record) and an
// arbitrary sensorstore partition image to the connection, with the sensor
// store switched on: the image is walked and this channel's stored reports are
// replayed to the registered sensors.
//
// Input: the 10-byte message body, then the partition image.

#include <cstdlib>
#include <cstring>

#include "fuzz_support.h"
#include "kivhal/host.h"
#include "sensorstore_partition.h"

namespace {

constexpr size_t kMessageLen = sizeof(sns_aon_client_low_pwr_state_ind_msg_v01);
// Sensors the replayed reports may name (the seeds use these).
constexpr sensor_uid kSensors[] = {{0x1111, 0xa1}, {0x2222, 0xb2}, {0, 0}};

void register_sensors(tav_ducto& conn) {
    for (const sensor_uid& suid : kSensors) {
        conn.register_cb(suid, nullptr, nullptr, [](const uint8_t* data, uint32_t length, uint64_t) {
            // A delivered payload must lie within the packet it came in.
            if (data == nullptr || length == 0 || length > SNS_DUCTO_IND_MAX_PAYLOAD_LEN) abort();
            volatile uint8_t sink = data[0] ^ data[length - 1];
            (void)sink;
        });
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    kivhal::fuzz::set_log_level_from_environment();
    kivhal::host::set_property("persist.vendor.kiv.ds", "true");
    kivhal::host::set_property("persist.vendor.kiv.ds_oda", "true");
    // The connection resets the partition's header when it starts.
    const sns_sensorstore_hdr empty = {};
    kivhal::fuzz::write_device_file(SNS_SENSORSTORE_PARTITION,
                                    reinterpret_cast<const uint8_t*>(&empty), sizeof(empty));
    register_sensors(kivhal::fuzz::channel_pair::instance().connection());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < kMessageLen) return -1;
    sns_aon_client_low_pwr_state_ind_msg_v01 message;
    memcpy(&message, data, kMessageLen);
    kivhal::fuzz::write_device_file(SNS_SENSORSTORE_PARTITION, data + kMessageLen,
                                    size - kMessageLen);

    tav_ducto& conn = kivhal::fuzz::channel_pair::instance().connection();
    try {
        conn.tav_handle_low_power_state_msg(&message);
    } catch (const ducto_error&) {
        // A write-info error from the core, a partition that cannot be
        // opened or mapped: thrown to the reader thread by design.
    }
    kivhal::fuzz::end_input();
    return 0;
}
