#pragma once

// Replays a capture as the core: the recorded answers, reports and
// indications in order (with their recorded spacing unless fast), each
// recorded request checked against what the library writes now.

#include <signal.h>

#include <cstdint>
#include <string>
#include <vector>

#include "capture_file.h"
#include "core_stub.h"

namespace kivhal {
namespace tools {

struct replay_options {
    std::string file;            // for the messages
    bool fast = false;           // no recorded spacing
    std::string partition_path;  // host path of the sensorstore image
    bool verbose = false;
};

// One decoded field of a request packet, for comparing and printing.
struct request_field {
    std::string name;
    std::string value;
};
std::vector<request_field> describe_request(const std::vector<uint8_t>& packet);

// The first difference as "FIELD: recorded X, actual Y", or "" when none.
std::string first_difference(const std::vector<uint8_t>& recorded,
                             const std::vector<uint8_t>& actual);

// Writes a partition image to `path`, readable by its owner only (health
// records), making its folders. Throws tool_error when it cannot.
void write_sensorstore(const std::string& path, const std::vector<uint8_t>& image);

// Connecting with on-device analysis on reads the partition's header: an
// empty one is made when none is there.
void prepare_partition(const std::string& path);

// Plays `capture` over `core` (listening already) until the library closes
// the channel after the last record. Prints the divergence or the one-line
// summary; returns the exit status: 0 as recorded, 1 diverged or stopped by
// one of `stop_signals` (blocked by the caller).
int replay_capture(const capture& capture, test::core_stub& core, const replay_options& options,
                   const sigset_t& stop_signals);

}  // namespace tools
}  // namespace kivhal
