// Low-power-state and sensor-store members of tav_ducto.
// Placeholder until the low-power state handling lands: state messages are
// dropped and the sensor store is never touched.
#include "tav_ducto.h"

void tav_ducto::tav_handle_low_power_state_msg(sns_aon_client_low_pwr_state_ind_msg_v01*) {}

void tav_ducto::tav_process_low_power_sensor_store_write_info(
    sns_aon_client_low_pwr_state_write_info*) {}

void tav_ducto::tav_update_sensorstore_header_reset_field(uint32_t) {}

int tav_ducto::tav_sensorstore_write(int, uint8_t*, uint32_t) { return 0; }

uint32_t tav_ducto::ducto_get_channel_hash(const char*, uint8_t) { return 0; }
