#include <gmock/gmock.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>

#include "sensorstore_image.h"
#include "test_support.h"
#include "tool_process.h"

namespace kivhal {
namespace test {
namespace {

const std::string kTool = tool("kivhal-sensorstore");
constexpr uint32_t kOwn = 0x1b76;  // "sensors"
using image = ::sensorstore_image;

// The image's bytes, zero-padded to `size`.
std::string text_of(const image& partition, size_t size = 0) {
    std::vector<uint8_t> raw = partition.bytes();
    raw.resize(std::max(size, raw.size()));
    return std::string(raw.begin(), raw.end());
}

class SensorStoreDumpTest : public ::testing::Test {
  protected:
    tool_result dump(const std::string& contents, std::vector<std::string> extra = {}) {
        root.write_file(kSensorStorePartition, contents);
        extra.insert(extra.begin(), {"dump", root.host_path(kSensorStorePartition)});
        return run_program(kTool, extra);
    }
    scoped_root root;
};

TEST_F(SensorStoreDumpTest, ListsEveryRecordAndMarksTheChannelsOwn) {
    // A partition is larger than what the core wrote.
    const tool_result result = dump(text_of(image()
                                                .add_record(kOwn, make_stored_packet(0x22, 40))
                                                .add_record(0x1234, make_stored_packet(0x21, 20))
                                                .add_record(kOwn, make_stored_packet(0x22, 10)),
                                            4096),
                                    {"--channel", "sensors"});
    EXPECT_EQ(0, result.exit_code) << result.out;
    for (const char* line :
         {"header: data_len 90, reset_data_len 0 (data pending)",
          "       8  0x00001b76  this     0x0022      40",
          "      52  0x00001234  other    0x0021      20", "      76  0x00001b76  this",
          "walk: 3 records, ends exactly at data_len 90"}) {
        EXPECT_THAT(result.out, ::testing::HasSubstr(line));
    }
}

TEST_F(SensorStoreDumpTest, EmptyAndCorruptImagesAreReportedWithoutCrashing) {
    const image twelve = image().add_record(kOwn, make_stored_packet(0x22, 12));
    const struct {
        std::string contents;
        const char* expected;
        int exit_code = 1;
    } cases[] = {
        // A freshly reset header, before and after the connection's mark: an empty store.
        {text_of(image().set_data_len(0)), "walk: 0 records, the store is empty", 0},
        {text_of(image(1).set_data_len(0)), "walk: 0 records, the store is empty", 0},
        {text_of(image().set_data_len(7)), "data_len 7 is smaller than the header"},
        {std::string("\x10\x00\x00", 3), "less than the 8-byte header"},
        {text_of(image(twelve).set_data_len(5000)), "runs past the end of the image"},
        {text_of(image().add_raw({0, 0, 0, 0, 0x22, 0, 0, 0, 0, 0}).set_data_len(40)),
         "offset 8: its packet length does not cover the packet head"},
        {text_of(image(twelve).add_raw({1, 2})),
         "offset 24: its head runs past the end of the area"},
        {text_of(image(twelve).set_data_len(23)),
         "offset 8: its packet runs past the end of the area"},
        // 4 GiB claimed in a 12-byte file: read no further than the file.
        {text_of(image().add_raw({1, 2, 3, 4}).set_data_len(0xffffffff)),
         "runs past the end of the image"},
    };
    for (const auto& c : cases) {
        const tool_result result = dump(c.contents);
        EXPECT_EQ(c.exit_code, result.exit_code) << c.expected << "\n" << result.err;  // -1: crash
        EXPECT_THAT(result.out, ::testing::HasSubstr(c.expected));
    }
}

TEST_F(SensorStoreDumpTest, BadArgumentsAndWhatIsNeitherFileNorBlockDeviceAreRefusedAtOnce) {
    expect_usage_errors(
        kTool, "Usage: kivhal-sensorstore dump IMAGE",
        {{}, {"list", "x"}, {"dump"}, {"dump", "/missing"}, {"dump", "a", "--channel"}});
    const std::string pipe = root.host_path("/pipe");
    ASSERT_EQ(0, mkfifo(pipe.c_str(), 0600));
    for (const std::string& path : {std::string("/dev/zero"), std::string("/tmp"), pipe}) {
        expect_refused_at_once(kTool, {"dump", path});
    }
}

}  // namespace
}  // namespace test
}  // namespace kivhal
