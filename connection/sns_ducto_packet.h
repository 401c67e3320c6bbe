#pragma once

// Wire layouts of the packet channel to the sensor core. All fields are
// little-endian and packed; one packet is one read or write on the device.

#include <cstddef>
#include <cstdint>

constexpr size_t SNS_DUCTO_HEADER_LEN = 6;
constexpr size_t SNS_DUCTO_MAX_BODY_LEN = 10013;
constexpr size_t SNS_DUCTO_PACKET_LEN = SNS_DUCTO_HEADER_LEN + SNS_DUCTO_MAX_BODY_LEN;  // 10019

// Inbound message ids.
constexpr uint16_t SNS_AON_CLIENT_REQ_V01 = 0x20;
constexpr uint16_t SNS_AON_CLIENT_RESP_V01 = 0x20;
constexpr uint16_t SNS_AON_CLIENT_REPORT_IND_V01 = 0x21;
constexpr uint16_t SNS_AON_CLIENT_JUMBO_REPORT_IND_V01 = 0x22;
constexpr uint16_t SNS_AON_CLIENT_INFO_RESP_V01 = 0x24;
constexpr uint16_t SNS_AON_CLIENT_LOW_PWR_STATE_IND_V01 = 0x31;

struct __attribute__((packed)) sns_ducto_packet {
    uint16_t msg_id;
    uint16_t reserved;  // requests carry 1; not read inbound
    uint16_t pkt_len;   // whole packet, head included
    uint8_t body[SNS_DUCTO_MAX_BODY_LEN];
};
static_assert(sizeof(sns_ducto_packet) == SNS_DUCTO_PACKET_LEN, "packet layout");

// Request packet head, as it sits in the body of an outbound packet.
constexpr size_t SNS_DUCTO_REQ_PACKET_LEN = 1013;
constexpr size_t SNS_DUCTO_REQ_HEAD_LEN = 13;
constexpr size_t SNS_DUCTO_REQ_MAX_PAYLOAD_LEN = 1000;
struct __attribute__((packed)) sns_aon_client_req_msg_v01 {
    uint8_t session_id;
    uint8_t client_req_id;
    uint8_t flag;
    uint32_t payload_len;
    uint8_t payload[SNS_DUCTO_MAX_BODY_LEN - 7];
};
static_assert(sizeof(sns_aon_client_req_msg_v01) == SNS_DUCTO_MAX_BODY_LEN, "request layout");

// Body of a response (0x20).
struct __attribute__((packed)) sns_aon_client_resp_msg_v01 {
    uint8_t unread_head[4];
    uint8_t client_id_valid;
    uint64_t client_id;
    uint8_t unread_pad;
    uint8_t result_valid;
    uint32_t result;
};
static_assert(offsetof(sns_aon_client_resp_msg_v01, client_id) == 5, "response layout");
static_assert(offsetof(sns_aon_client_resp_msg_v01, result_valid) == 14, "response layout");
static_assert(offsetof(sns_aon_client_resp_msg_v01, result) == 15, "response layout");

// Body of a report or jumbo report (0x21, 0x22): an encoded sns_client_event_msg.
constexpr size_t SNS_DUCTO_IND_PAYLOAD_LEN_OFFSET = 15;  // packet offsets
constexpr size_t SNS_DUCTO_IND_PAYLOAD_OFFSET = 19;
constexpr size_t SNS_DUCTO_IND_MAX_PAYLOAD_LEN = SNS_DUCTO_PACKET_LEN - SNS_DUCTO_IND_PAYLOAD_OFFSET;

// Data the core left in the sensor store while the application processor slept.
struct __attribute__((packed)) sns_aon_client_low_pwr_state_write_info {
    uint32_t total_byte_count;
    uint16_t shmem_byte_count;
    uint16_t write_info_error;
};

// Body of a low-power-state indication (0x31).
struct __attribute__((packed)) sns_aon_client_low_pwr_state_ind_msg_v01 {
    uint8_t lps_msg_id;
    uint8_t lps_session_id;
    sns_aon_client_low_pwr_state_write_info write_info;
};

enum sns_low_power_state_msg_id : uint8_t {
    SNS_LOW_POWER_STATE_OFF = 0,
    SNS_LOW_POWER_STATE_ON = 1,
    SNS_LOW_POWER_WRITE_INFO = 2,
};
