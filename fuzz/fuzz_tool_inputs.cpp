// Feeds one arbitrary file to the file-reading tools' own code: kivhal-lint's
// configuration checks, kivhal-sensorstore's image reader and walk, and
// kivhal-coresim's capture reader.

#include <cstdio>
#include <cstdlib>
#include <string>

#include "capture_file.h"
#include "config_linter.h"
#include "fuzz_support.h"
#include "sensorstore_dump.h"
#include "tool_cli.h"

namespace {

constexpr char kInputPath[] = "/tool_input";
constexpr char kChannel[] = "sensors";

FILE* discard() {
    static FILE* out = fopen("/dev/null", "w");
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    kivhal::fuzz::device_root();
    if (discard() == nullptr) abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    kivhal::fuzz::write_device_file(kInputPath, data, size);
    const std::string path = kivhal::fuzz::host_path(kInputPath);

    // A readable regular file is never a usage error: any throw is a finding.
    for (const kivhal::tools::lint_finding& finding : kivhal::tools::lint_config(path)) {
        fprintf(discard(), "%d: %s\n", finding.line, finding.message.c_str());
    }
    size_t image_size = 0;
    const auto image = kivhal::tools::read_sensorstore_image(path, &image_size);
    if (image.size() > size) abort();  // never more than the file holds
    kivhal::tools::dump_sensorstore(image, image_size, kChannel, discard());
    try {
        const kivhal::tools::capture capture = kivhal::tools::read_capture(path);
        for (const auto& record : capture.records) {
            if (record.bytes.size() > size) abort();  // never more than the file holds
        }
    } catch (const kivhal::tools::usage_error&) {
        // Not a capture: refused, as it should be.
    }
    kivhal::fuzz::end_input();
    return 0;
}
