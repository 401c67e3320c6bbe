// The sensorstore partition: replay of the packets the sensor core kept while
// the application processor slept, and the header field that hands the area
// back to the core.

#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>

#include "kiv_feature_flags.h"
#include "kiv_log.h"
#include "kivhal/platform.h"
#include "sensorstore_partition.h"
#include "tav_ducto.h"

namespace {

// A partition shorter than its header cannot be read or mapped safely: reads
// at its end return nothing for ever, and mapped pages past it fault.
bool holds_header(off_t partition_size) {
    return partition_size < 0 || partition_size >= static_cast<off_t>(SNS_SENSORSTORE_HDR_LEN);
}

}  // namespace

uint32_t tav_ducto::ducto_get_channel_hash(const char* name, uint8_t len) {
    return sensorstore_channel_hash(name, len);
}

void tav_ducto::tav_process_low_power_sensor_store_write_info(
    sns_aon_client_low_pwr_state_write_info* write_info) {
    const uint32_t total_byte_count = write_info->total_byte_count;
    const uint16_t shmem_byte_count = write_info->shmem_byte_count;
    if (total_byte_count == 0 || total_byte_count <= shmem_byte_count) {
        KIV_LOGD("TAV_SENSORSTORE NO DATA in eMMC, total_byte_count=%d shmem_byte_count=%d",
                 total_byte_count, shmem_byte_count);
        return;
    }
    if (write_info->write_info_error != 0) {
        KIV_LOGE("TAV_SENSORSTORE WRITE_INFO_ERROR(%d)", write_info->write_info_error);
        throw ducto_error(write_info->write_info_error, "TAV_SENSORSTORE WRITE_INFO_ERROR");
    }

    const uint32_t emmc_byte_count = total_byte_count - shmem_byte_count;
    const uint32_t write_info_byte_count = emmc_byte_count + SNS_SENSORSTORE_HDR_LEN;

    const int opened = ducto_open(SNS_SENSORSTORE_PARTITION);
    if (opened < 0) {
        KIV_LOGE("TAV_SENSORSTORE open failed");
        throw ducto_error(opened, "TAV_SENSORSTORE open failed");
    }
    sensorstore_fd fd(opened);
    KIV_LOGD("TAV_SENSORSTORE open successful sns_str_fd(%d)", fd.get());

    // Only what the partition really holds may be touched: a mapping past
    // the end of a file faults.
    const off_t partition_size = sensorstore_partition_size(fd.get());
    if (!holds_header(partition_size)) {
        KIV_LOGE("TAV_SENSORSTORE partition size(%lld) is smaller than its header",
                 static_cast<long long>(partition_size));
        throw ducto_error(-EIO, "TAV_SENSORSTORE partition too small");
    }

    // The message's count is the core's word: mapping more than the partition
    // holds would fault past its end or, in a 32-bit process, not fit at all.
    // Summed in 64 bits, so a count near 4 GiB cannot wrap below the header.
    const uint64_t wanted = static_cast<uint64_t>(emmc_byte_count) + SNS_SENSORSTORE_HDR_LEN;
    uint64_t mapped = std::min<uint64_t>(wanted, SIZE_MAX);
    if (partition_size >= 0 && static_cast<uint64_t>(partition_size) < wanted) {
        KIV_LOGE(
            "TAV_SENSORSTORE partition size(%lld) is smaller than "
            "write_info_byte_count(%" PRIu64 ")",
            static_cast<long long>(partition_size), wanted);
        mapped = static_cast<uint64_t>(partition_size);
    }
    sensorstore_mapping mapping(fd.get(), static_cast<size_t>(mapped));
    if (!mapping.valid()) {
        const int error = errno;
        KIV_LOGE("TAV_SENSORSTORE mmamp failed errno(%d)", error);
        throw ducto_error(error, "TAV_SENSORSTORE mmamp failed");
    }
    KIV_LOGD("TAV_SENSORSTORE mmap successful sns_str_map(0x%llx)",
             static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(mapping.data())));

    const size_t readable = mapping.size();

    sns_sensorstore_hdr header;
    memcpy(&header, mapping.data(), sizeof(header));
    if (_capture) _capture->sensorstore_record(mapping.data(), sizeof(header));
    const uint32_t data_len = header.data_len;
    if (data_len < write_info_byte_count) {
        KIV_LOGE("TAV_SENSORSTORE data is missing emmc_byte_count(%d) write_info_byte_count(%d)",
                 data_len, write_info_byte_count);
    } else if (data_len > write_info_byte_count) {
        KIV_LOGE("TAV_SENSORSTORE emmc_byte_count(%d) cannot be > than write_info_byte_count(%d)",
                 data_len, write_info_byte_count);
    } else {
        KIV_LOGD("TAV_SENSORSTORE emmc_byte_count(%d) emmc_trvsd_len(%d)", data_len,
                 SNS_SENSORSTORE_HDR_LEN);
    }

    const uint32_t channel_hash =
        ducto_get_channel_hash(_channel_name.c_str(), static_cast<uint8_t>(_channel_name.size()));
    KIV_LOGD("TAV_SENSORSTORE channel_hash = %d", channel_hash);

    const kiv_log_op op = KIV_LOG_OP;
    const sensorstore_walk walk = walk_sensorstore(
        mapping.data(), readable, data_len, channel_hash,
        [this, op](const sensorstore_record& record, bool own) {
            if (_capture) {
                _capture->sensorstore_record(record.packet - SNS_SENSORSTORE_RECORD_HASH_LEN,
                                             SNS_SENSORSTORE_RECORD_HASH_LEN + record.pkt_len);
            }
            if (!own) {
                KIV_LOGD_FOR(op, "TAV_SENSORSTORE skipping lps_pkt_channel_hash(%d) lps_pkt_len(%d)",
                             record.channel_hash, record.pkt_len);
                return;
            }
            KIV_LOGD_FOR(op, "TAV_SENSORSTORE parsing lps_pkt_channel_hash(%d) lps_pkt_len(%d)",
                         record.channel_hash, record.pkt_len);
            if (record.msg_id != SNS_AON_CLIENT_JUMBO_REPORT_IND_V01) {
                KIV_LOGE_FOR(op, "TAV_SENSORSTORE UNEXPECTED_MSG_ID(%d)", record.msg_id);
                return;
            }
            sns_ducto_packet packet;
            copy_sensorstore_packet(record, reinterpret_cast<uint8_t*>(&packet), sizeof(packet));
            ducto_indication_handler(SNS_AON_CLIENT_JUMBO_REPORT_IND_V01, packet);
        });
    const uint32_t trvsd = walk.end;
    if (walk.status == sensorstore_record_status::head_out_of_bounds) {
        KIV_LOGE("TAV_SENSORSTORE record at emmc_trvsd_len(%d) lies past the %zu readable bytes",
                 trvsd, readable);
    } else if (walk.status == sensorstore_record_status::packet_too_short) {
        KIV_LOGE(
            "TAV_SENSORSTORE lps_pkt_len(%d) at emmc_trvsd_len(%d) is shorter than a packet head",
            walk.last.pkt_len, trvsd);
    } else if (walk.status == sensorstore_record_status::packet_out_of_bounds) {
        KIV_LOGE(
            "TAV_SENSORSTORE lps_pkt_len(%d) at emmc_trvsd_len(%d) runs past the %zu readable "
            "bytes",
            walk.last.pkt_len, trvsd, readable);
    }

    if (trvsd == data_len) {
        KIV_LOGD("TAV_SENSORSTORE eMMC data parsing successfull, emmc_trvsd_len(%d)", trvsd);
    } else {
        KIV_LOGE(
            "TAV_SENSORSTORE eMMC data parsing FAILED, emmc_byte_count(%d), emmc_trvsd_len(%d)",
            data_len, trvsd);
    }

    if (mapping.unmap() != 0) {
        KIV_LOGE("TAV_SENSORSTORE munmap failed errno(%d)", errno);
    } else {
        KIV_LOGV("TAV_SENSORSTORE munmap successfull");
    }
    const int closed_fd = fd.get();
    if (fd.close() != 0) {
        KIV_LOGE("TAV_SENSORSTORE close on sns_str_fd = %d failed with errno(%d)", closed_fd, errno);
    } else {
        KIV_LOGV("TAV_SENSORSTORE close successfull");
    }

    tav_update_sensorstore_header_reset_field(SNS_SENSORSTORE_RESET_DONE);
}

void tav_ducto::tav_update_sensorstore_header_reset_field(uint32_t value) {
    if (!is_oda_supported()) {
        KIV_LOGD("TAV_SENSORSTORE ODA not supported");
        return;
    }

    const int opened = ducto_open(SNS_SENSORSTORE_PARTITION);
    if (opened < 0) {
        KIV_LOGE("TAV_SENSORSTORE open failure");
        throw ducto_error(opened, "TAV_SENSORSTORE open failure");
    }
    sensorstore_fd fd(opened);
    KIV_LOGD("TAV_SENSORSTORE open successful sns_str_fd(%d)", fd.get());

    const off_t partition_size = sensorstore_partition_size(fd.get());
    sns_sensorstore_hdr header = {};
    int result = -EIO;
    if (!holds_header(partition_size)) {
        KIV_LOGE("TAV_SENSORSTORE partition size(%lld) is smaller than its header",
                 static_cast<long long>(partition_size));
    } else {
        result = ducto_read(fd.get(), reinterpret_cast<uint8_t*>(&header), sizeof(header));
    }
    if (result < 0) {
        KIV_LOGE("TAV_SENSORSTORE read failure");
        throw ducto_error(result, "TAV_SENSORSTORE read failure");
    }
    KIV_LOGD("TAV_SENSORSTORE sensorstore_hdr data_len(%d) reset_data_len(%d)", header.data_len,
             header.reset_data_len);

    const off_t seeked = lseek(fd.get(), 0, SEEK_SET);
    if (seeked != 0) {
        KIV_LOGE("TAV_SENSORSTORE lseek failure");
        throw ducto_error(static_cast<int>(seeked), "TAV_SENSORSTORE lseek failure");
    }

    header.reset_data_len = value;
    result = tav_sensorstore_write(fd.get(), reinterpret_cast<uint8_t*>(&header), sizeof(header));
    if (result < 0) {
        KIV_LOGE("TAV_SENSORSTORE write failure");
        throw ducto_error(result, "TAV_SENSORSTORE write failure");
    }

    const int closed_fd = fd.get();
    if (fd.close() != 0) {
        KIV_LOGE("TAV_SENSORSTORE close on sns_str_fd = %d failed with errno(%d)", closed_fd, errno);
    } else {
        KIV_LOGV("TAV_SENSORSTORE close successfull");
    }
}

int tav_ducto::tav_sensorstore_write(int fd, uint8_t* buf, uint32_t len) {
    KIV_LOGD("TAV_SENSORSTORE write fd = %d buf_len = %zu", fd, static_cast<size_t>(len));
    if (fd < 0) {
        KIV_LOGE("TAV_SENSORSTORE invalid fd(%d)", fd);
        return 0;
    }

    int result = 0;
    int retries = 0;
    uint32_t total = 0;
    uint32_t remaining = len;
    while (remaining > 0) {
        const ssize_t written = kivhal::platform::write_node(fd, buf, remaining);
        if (written < 0) {
            const int error = errno;
            if (error != EBUSY && error != EAGAIN) {
                KIV_LOGE("TAV_SENSORSTORE write has failed with errno = %d ", error);
                return -error;
            }
            ++retries;
            KIV_LOGE("TAV_SENSORSTORE write failed with errno = %d", error);
            if (retries >= MAX_SENSORSTORE_WRITE_RETRIES) {
                KIV_LOGE(
                    "TAV_SENSORSTORE write MAX_SENSORSTORE_WRITE_RETRIES = %d has finished on fd = "
                    "%d ",
                    MAX_SENSORSTORE_WRITE_RETRIES, fd);
                return -error;
            }
            usleep(SNS_SENSORSTORE_WRITE_RETRY_US);
            continue;
        }
        result = static_cast<int>(written);
        if (written == 0) break;
        remaining -= static_cast<uint32_t>(written);
        total += static_cast<uint32_t>(written);
        buf += written;
        KIV_LOGD("TAV_SENSORSTORE partial bytes written= %d", result);
    }
    KIV_LOGD("TAV_SENSORSTORE complete bytes written= %d", total);
    return result;
}
