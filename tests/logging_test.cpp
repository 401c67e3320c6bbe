#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "kiv_log.h"
#include "kivhal/host.h"

namespace {

using kivhal::host::captured_log;

class LoggingTest : public ::testing::Test {
protected:
    void SetUp() override {
        kivhal::host::clear_captured_log();
        kiv_log::set_level(kiv_log::INFO);
        kiv_log::set_tag("KIVHAL-Sensors");
        kiv_log::set_stderr_logging(false);
    }
    void TearDown() override { SetUp(); }
};

void log_one_of_each() {
    KIV_LOGE("error %d", 1);
    KIV_LOGI("info %d", 2);
    KIV_LOGD("debug %d", 3);
    KIV_LOGV("verbose %d", 4);
}

std::vector<int> priorities() {
    std::vector<int> result;
    for (const auto& line : captured_log()) result.push_back(line.priority);
    return result;
}

TEST_F(LoggingTest, EachLevelLetsThroughItsOwnClassAndTheOnesAbove) {
    const struct {
        kiv_log::log_level level;
        std::vector<int> expected;
    } cases[] = {
        {kiv_log::SILENT, {}},
        {kiv_log::ERROR, {ANDROID_LOG_ERROR}},
        {kiv_log::INFO, {ANDROID_LOG_ERROR, ANDROID_LOG_INFO}},
        {kiv_log::DEBUG, {ANDROID_LOG_ERROR, ANDROID_LOG_INFO, ANDROID_LOG_DEBUG}},
        {kiv_log::VERBOSE,
         {ANDROID_LOG_ERROR, ANDROID_LOG_INFO, ANDROID_LOG_DEBUG, ANDROID_LOG_VERBOSE}},
        {static_cast<kiv_log::log_level>(9),
         {ANDROID_LOG_ERROR, ANDROID_LOG_INFO, ANDROID_LOG_DEBUG, ANDROID_LOG_VERBOSE}},
    };
    EXPECT_EQ(kiv_log::get_level(), kiv_log::INFO);
    kiv_log::set_stderr_logging(true);
    for (const auto& c : cases) {
        kivhal::host::clear_captured_log();
        kiv_log::set_level(c.level);
        testing::internal::CaptureStderr();
        log_one_of_each();
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(priorities(), c.expected) << "level " << static_cast<int>(c.level);
        // Silent means silent on standard error too.
        EXPECT_EQ(err.empty(), c.expected.empty()) << err;
    }
}

struct named_component {
    named_component() { KIV_LOGI("constructed"); }
    void member() { KIV_LOGI("member"); }
};

TEST_F(LoggingTest, LinesCarryTheBareFunctionNameAndTheStatementsOwnLine) {
    const int line = __LINE__ + 1;
    KIV_LOGI("value=%s", "x");
    named_component().member();
    auto log = captured_log();
    ASSERT_EQ(log.size(), 3u);
    EXPECT_EQ(log[0].text, "TestBody:" + std::to_string(line) + ", value=x");
    EXPECT_EQ(log[0].tag, "KIVHAL-Sensors");
    EXPECT_EQ(log[1].text.rfind("named_component:", 0), 0u) << log[1].text;
    EXPECT_EQ(log[2].text.rfind("member:", 0), 0u) << log[2].text;
}

TEST_F(LoggingTest, StderrMirrorsTheSameTextWithItsOwnLineEnd) {
    kiv_log::set_stderr_logging(true);
    testing::internal::CaptureStderr();
    const int line = __LINE__ + 1;
    KIV_LOGE("opening \"%s\": %s\n", "/x", "gone");
    KIV_LOGD("not at info level");
    std::string err = testing::internal::GetCapturedStderr();

    const std::string text = "TestBody:" + std::to_string(line) + ", opening \"/x\": gone\n";
    EXPECT_EQ(err, text + "\n");
    auto log = captured_log();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].text, text);
}

TEST_F(LoggingTest, ANewTagIsUsedByTheNextStatementOnAnyThread) {
    static const char kTag[] = "OTHER-TAG";
    KIV_LOGI("before");
    kiv_log::set_tag(kTag);
    std::thread([] { KIV_LOGI("from another thread"); }).join();
    auto log = captured_log();
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(log[0].tag, "KIVHAL-Sensors");
    EXPECT_EQ(log[1].tag, "OTHER-TAG");
}

TEST_F(LoggingTest, CaptureKeepsOnlyTheNewestLines) {
    const size_t extra = 10;
    for (size_t i = 0; i < kivhal::host::kCapturedLogCapacity + extra; ++i) {
        KIV_LOGI("line %zu", i);
    }
    auto log = captured_log();
    ASSERT_EQ(log.size(), kivhal::host::kCapturedLogCapacity);
    EXPECT_EQ(kivhal::host::captured_log_dropped(), extra);
    EXPECT_NE(log.front().text.find(", line " + std::to_string(extra)), std::string::npos);
}

}  // namespace
