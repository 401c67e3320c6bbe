#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core_stub.h"
#include "sensorstore_image.h"
#include "test_support.h"
#include "tool_process.h"

namespace {

using kivhal::test::kSensorStorePartition;
using kivhal::test::make_stored_packet;
using kivhal::test::run_program;
using kivhal::test::sensorstore_image;

const std::string kTool = std::string(KIVHAL_TOOLS_DIR) + "/kivhal-sensorstore";
constexpr uint16_t kJumbo = 0x22;

class SensorStoreDumpTest : public ::testing::Test {
protected:
    std::string write(const sensorstore_image& image, size_t size = 0) {
        image.write(root, size);
        return root.host_path(kSensorStorePartition);
    }
    std::string write_bytes(const std::vector<uint8_t>& bytes) {
        root.write_file(kSensorStorePartition, std::string(bytes.begin(), bytes.end()));
        return root.host_path(kSensorStorePartition);
    }
    kivhal::test::scoped_root root;
};

TEST_F(SensorStoreDumpTest, HelpAndBadArgumentsExitWithOneLine) {
    auto help = run_program(kTool, {"--help"});
    EXPECT_EQ(help.exit_code, 0);
    EXPECT_NE(help.out.find("Usage: kivhal-sensorstore dump IMAGE"), std::string::npos);

    for (const auto& args : {std::vector<std::string>{}, {"list", "x"}, {"dump"},
                             {"dump", root.host_path("/missing")}, {"dump", "a", "--channel"}}) {
        auto bad = run_program(kTool, args);
        EXPECT_EQ(bad.exit_code, 2) << args.size();
        EXPECT_EQ(bad.err.find('\n'), bad.err.size() - 1) << bad.err;
    }
}

TEST_F(SensorStoreDumpTest, ListsEveryRecordAndMarksTheChannelsOwn) {
    sensorstore_image image;
    image.add_record(sensorstore_image::channel_hash("sensors"), make_stored_packet(kJumbo, 40))
        .add_record(sensorstore_image::channel_hash("other"), make_stored_packet(0x21, 20))
        .add_record(sensorstore_image::channel_hash("sensors"), make_stored_packet(kJumbo, 10));
    // A partition is larger than what the core wrote.
    const std::string path = write(image, 4096);

    auto result = run_program(kTool, {"dump", path, "--channel", "sensors"});
    EXPECT_EQ(result.exit_code, 0) << result.out;
    char own[16];
    snprintf(own, sizeof(own), "0x%08x", sensorstore_image::channel_hash("sensors"));
    EXPECT_NE(result.out.find("header: data_len 90, reset_data_len 0 (data pending)"),
              std::string::npos) << result.out;
    EXPECT_NE(result.out.find("       8  " + std::string(own) + "  this     0x0022      40"),
              std::string::npos) << result.out;
    EXPECT_NE(result.out.find("      52  "), std::string::npos);
    EXPECT_NE(result.out.find("other    0x0021      20"), std::string::npos);
    EXPECT_NE(result.out.find("      76  " + std::string(own) + "  this"), std::string::npos);
    EXPECT_NE(result.out.find("walk: 3 records, ends exactly at data_len 90"), std::string::npos);

    // Seen from the other channel only its record is its own.
    result = run_program(kTool, {"dump", path, "--channel", "other"});
    const size_t first_own = result.out.find("  this  ");
    EXPECT_EQ(result.out.rfind("\n", first_own), result.out.find("\n      52  "));
    EXPECT_EQ(result.out.find("  this  ", first_own + 1), std::string::npos) << result.out;
}

TEST_F(SensorStoreDumpTest, CorruptImagesAreReportedWithoutCrashing) {
    const uint32_t hash = sensorstore_image::channel_hash("sensors");
    struct corrupt_case {
        const char* what;
        std::string path_contents;
        const char* expected;
    };
    auto bytes_of = [](const sensorstore_image& image) {
        auto b = image.bytes();
        return std::string(b.begin(), b.end());
    };
    const std::vector<corrupt_case> cases = {
        {"short header", std::string("\x10\x00\x00", 3), "less than the 8-byte header"},
        {"data_len below header", bytes_of(sensorstore_image().set_data_len(4)),
         "data_len 4 is smaller than the header"},
        {"data_len past the end",
         bytes_of(sensorstore_image().add_record(hash, make_stored_packet(kJumbo, 12)).set_data_len(5000)),
         "runs past the end of the image"},
        {"packet length zero",
         bytes_of(sensorstore_image().add_raw({0, 0, 0, 0, 0x22, 0, 0, 0, 0, 0}).set_data_len(40)),
         "does not cover the packet head"},
        {"walk ends inside",
         bytes_of(sensorstore_image().add_record(hash, make_stored_packet(kJumbo, 12)).add_raw({1, 2})),
         "its head runs past the end of the area"},
        {"packet past data_len",
         bytes_of(sensorstore_image().add_record(hash, make_stored_packet(kJumbo, 30)).set_data_len(30)),
         "its packet runs past the end of the area"},
    };
    for (const corrupt_case& c : cases) {
        root.write_file(kSensorStorePartition, c.path_contents);
        auto result = run_program(kTool, {"dump", root.host_path(kSensorStorePartition)});
        EXPECT_EQ(result.exit_code, 1) << c.what << "\n" << result.out << result.err;
        EXPECT_EQ(result.term_signal, 0) << c.what;
        EXPECT_NE(result.out.find(c.expected), std::string::npos) << c.what << "\n" << result.out;
    }
}

}  // namespace
