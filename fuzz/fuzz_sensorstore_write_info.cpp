// Walks an arbitrary sensorstore partition image as a write-info pass would,
// without a connection: the image is what is mapped, the message's count
// bounds what may be read. Every record handed out must follow the previous
// one and lie inside the readable bytes.
//
// Input: the 10-byte low-power-state message body, then the partition image.

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "fuzz_support.h"
#include "sensorstore_partition.h"
#include "sns_ducto_packet.h"

namespace {

constexpr size_t kMessageLen = sizeof(sns_aon_client_low_pwr_state_ind_msg_v01);
constexpr char kChannel[] = "sensors";

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    kivhal::fuzz::set_log_level_from_environment();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < kMessageLen + SNS_SENSORSTORE_HDR_LEN) return -1;
    sns_aon_client_low_pwr_state_ind_msg_v01 message;
    memcpy(&message, data, kMessageLen);
    const auto& info = message.write_info;
    if (info.total_byte_count <= info.shmem_byte_count || info.write_info_error != 0) return 0;

    const uint8_t* area = data + kMessageLen;
    const uint64_t wanted =
        uint64_t{info.total_byte_count} - info.shmem_byte_count + SNS_SENSORSTORE_HDR_LEN;
    const size_t readable = static_cast<size_t>(std::min<uint64_t>(wanted, size - kMessageLen));
    sns_sensorstore_hdr header;
    memcpy(&header, area, sizeof(header));

    static sns_ducto_packet packet;
    uint64_t next = SNS_SENSORSTORE_HDR_LEN;
    const sensorstore_walk walk = walk_sensorstore(
        area, readable, header.data_len, sensorstore_channel_hash(kChannel, sizeof(kChannel) - 1),
        [&](const sensorstore_record& record, bool own) {
            const size_t at = static_cast<size_t>(record.packet - area);
            if (at != next + SNS_SENSORSTORE_RECORD_HASH_LEN || at + record.pkt_len > readable ||
                record.packet_readable != readable - at) {
                abort();
            }
            next = at + record.pkt_len;
            if (own) {
                copy_sensorstore_packet(record, reinterpret_cast<uint8_t*>(&packet), sizeof(packet));
            }
        });
    if (walk.end != next) abort();
    kivhal::fuzz::end_input();
    return 0;
}
