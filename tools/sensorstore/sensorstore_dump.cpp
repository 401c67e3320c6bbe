#include "sensorstore_dump.h"

#include <algorithm>
#include <cstring>
#include <fstream>

#include "input_file.h"
#include "sensorstore_partition.h"
#include "tool_cli.h"

namespace kivhal {
namespace tools {

namespace {

sns_sensorstore_hdr header_of(const uint8_t* bytes) {
    sns_sensorstore_hdr header;
    memcpy(&header, bytes, sizeof(header));
    return header;
}

const char* status_text(sensorstore_record_status status) {
    switch (status) {
        case sensorstore_record_status::head_out_of_bounds:
            return "its head runs past the end of the area";
        case sensorstore_record_status::packet_too_short:
            return "its packet length does not cover the packet head";
        case sensorstore_record_status::packet_out_of_bounds:
            return "its packet runs past the end of the area";
        default:
            return "ok";
    }
}

}  // namespace

std::vector<uint8_t> read_sensorstore_image(const std::string& path, size_t* image_size) {
    const uint64_t file_size = check_input_file(path, input_kind::regular_file_or_block_device);
    std::ifstream in(path, std::ios::binary);
    if (!in) throw usage_error("cannot read " + path);
    std::vector<uint8_t> bytes(SNS_SENSORSTORE_HDR_LEN);
    in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    size_t have = static_cast<size_t>(in.gcount());
    if (have == SNS_SENSORSTORE_HDR_LEN) {
        // A partition is far larger than what the core wrote; read only that.
        const uint32_t data_len = header_of(bytes.data()).data_len;
        // data_len is the image's word: never size the buffer past the file.
        const uint64_t wanted = std::min<uint64_t>(data_len, file_size);
        bytes.resize(std::max<size_t>(static_cast<size_t>(wanted), SNS_SENSORSTORE_HDR_LEN));
        in.read(reinterpret_cast<char*>(bytes.data() + have),
                static_cast<std::streamsize>(bytes.size() - have));
        have += static_cast<size_t>(in.gcount());
        // One byte more tells whether the file ends before data_len or after.
        if (have == bytes.size() && in.peek() != std::char_traits<char>::eof()) ++have;
    }
    if (in.bad()) throw usage_error("cannot read " + path);
    bytes.resize(std::min(have, bytes.size()));
    *image_size = have;
    return bytes;
}

bool dump_sensorstore(const std::vector<uint8_t>& image, size_t image_size,
                      const std::string& channel, FILE* out) {
    const uint32_t own_hash =
        sensorstore_channel_hash(channel.c_str(), static_cast<uint8_t>(channel.size()));
    if (image.size() < SNS_SENSORSTORE_HDR_LEN) {
        fprintf(out, "corrupt: the image holds %zu bytes, less than the %u-byte header\n",
                image.size(), SNS_SENSORSTORE_HDR_LEN);
        return false;
    }
    const sns_sensorstore_hdr header = header_of(image.data());
    const uint32_t data_len = header.data_len;
    const uint32_t reset = header.reset_data_len;
    fprintf(out, "header: data_len %u, reset_data_len %u (%s)\n", data_len, reset,
            reset == SNS_SENSORSTORE_RESET_DONE ? "consumed" : "data pending");
    fprintf(out, "channel: \"%s\", hash 0x%08x\n", channel.c_str(), own_hash);

    bool ok = true;
    // A zeroed partition, also once its header has been reset: nothing stored.
    if (data_len == 0) {
        fprintf(out, "walk: 0 records, the store is empty\n");
        return true;
    }
    if (data_len < SNS_SENSORSTORE_HDR_LEN) {
        fprintf(out, "corrupt: data_len %u is smaller than the header\n", data_len);
        return false;
    }
    if (data_len > image.size()) {
        fprintf(out, "corrupt: data_len %u runs past the end of the image (%zu bytes)\n", data_len,
                image_size);
        ok = false;
    }
    const size_t readable = std::min<size_t>(data_len, image.size());
    fprintf(out, "%8s  %-10s  %-7s  %6s  %6s\n", "OFFSET", "HASH", "CHANNEL", "MSG ID", "LENGTH");
    uint32_t offset = SNS_SENSORSTORE_HDR_LEN;
    size_t records = 0;
    const auto print = [&](const sensorstore_record& record, bool own) {
        fprintf(out, "%8u  0x%08x  %-7s  0x%04x  %6u\n", offset, record.channel_hash,
                own ? "this" : "other", record.msg_id, record.pkt_len);
        offset += SNS_SENSORSTORE_RECORD_HASH_LEN + record.pkt_len;
        ++records;
    };
    // The library walks at least one record; a header alone holds none.
    if (data_len > SNS_SENSORSTORE_HDR_LEN) {
        const sensorstore_walk walk =
            walk_sensorstore(image.data(), readable, data_len, own_hash, print);
        if (walk.status != sensorstore_record_status::ok) {
            if (walk.status != sensorstore_record_status::head_out_of_bounds) {
                print(walk.last, walk.last.channel_hash == own_hash);
            }
            fprintf(out, "corrupt: record at offset %u: %s\n", walk.end, status_text(walk.status));
            return false;
        }
    }
    if (offset == data_len) {
        fprintf(out, "walk: %zu records, ends exactly at data_len %u\n", records, data_len);
    } else {
        fprintf(out, "walk: %zu records, ends at %u, not at data_len %u\n", records, offset,
                data_len);
        ok = false;
    }
    return ok;
}

}  // namespace tools
}  // namespace kivhal
