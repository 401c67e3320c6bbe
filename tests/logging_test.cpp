#include <android-base/test_utils.h>
#include <gmock/gmock.h>

#include <string>
#include <thread>

#include "kiv_feature_flags.h"
#include "kiv_log.h"
#include "kivhal/host.h"

namespace {

using kivhal::host::captured_log;
using ::testing::ElementsAre;

std::vector<int> priorities() {
    std::vector<int> result;
    for (const auto& line : captured_log()) result.push_back(line.priority);
    return result;
}

std::vector<std::string> texts() {
    std::vector<std::string> result;
    for (const auto& line : captured_log()) result.push_back(line.text);
    return result;
}

// Each case runs in a process of its own, so this one sees the initial settings.
TEST(LoggingTest, EachLevelLetsThroughItsOwnClassAndTheOnesAboveFromInfoOnAtFirst) {
    EXPECT_EQ(kiv_log::INFO, kiv_log::get_level());
    EXPECT_STREQ("KIVHAL-Sensors", kiv_log::get_tag());
    EXPECT_FALSE(kiv_log::get_stderr_logging());
    const std::vector<int> all = {ANDROID_LOG_ERROR, ANDROID_LOG_INFO, ANDROID_LOG_DEBUG, ANDROID_LOG_VERBOSE};
    kiv_log::set_stderr_logging(true);
    for (int level : {0, 1, 2, 3, 4, 9}) {
        kivhal::host::clear_captured_log();
        kiv_log::set_level(static_cast<kiv_log::log_level>(level));
        CapturedStderr err;
        KIV_LOGE("error");
        KIV_LOGI("info");
        KIV_LOGD("debug");
        KIV_LOGV("verbose");
        err.Stop();
        const std::vector<int> expected(all.begin(), all.begin() + std::min(level, 4));
        EXPECT_EQ(expected, priorities()) << "level " << level;
        // Silent means silent on standard error too.
        EXPECT_EQ(level == 0, err.str().empty()) << err.str();
    }
}

TEST(LoggingTest, StderrMirrorsTheTextWithItsOwnLineEndAfterTheStatementsNameAndLine) {
    kiv_log::set_stderr_logging(true);
    CapturedStderr err;
    const int line = __LINE__ + 1;
    KIV_LOGE("opening \"%s\": %s\n", "/x", "gone");
    KIV_LOGD("not at info level");
    err.Stop();
    const std::string text = "TestBody:" + std::to_string(line) + ", opening \"/x\": gone\n";
    EXPECT_EQ(text + "\n", err.str());
    EXPECT_THAT(texts(), ElementsAre(text));
}

// A file-local helper logs for the operation that called it, at its own line.
int g_helper_line = 0;
void helper_logging_for(kiv_log_op op) {
    g_helper_line = __LINE__ + 1;
    KIV_LOGI_FOR(op, "helper %d", 7);
}

TEST(LoggingTest, AHelpersLineNamesItsOperationAndKeepsItsOwnLine) {
    helper_logging_for(KIV_LOG_OP);
    kiv_log::set_level(kiv_log::ERROR);
    helper_logging_for(KIV_LOG_OP);
    EXPECT_THAT(texts(), ElementsAre("TestBody:" + std::to_string(g_helper_line) + ", helper 7"));
}

TEST(LoggingTest, ANewTagIsUsedByTheNextStatementOnAnyThread) {
    static const char kTag[] = "OTHER-TAG";
    KIV_LOGI("before");
    kiv_log::set_tag(kTag);
    std::thread(is_oda_supported).join();  // logs its "support" line at info level
    const auto log = captured_log();
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(log[0].tag, "KIVHAL-Sensors");
    EXPECT_EQ(log[1].tag, "OTHER-TAG");
}

TEST(LoggingTest, CaptureKeepsOnlyTheNewestLines) {
    const size_t extra = 10;
    for (size_t i = 0; i < kivhal::host::kCapturedLogCapacity + extra; ++i) KIV_LOGI("line %zu", i);
    const auto log = captured_log();
    ASSERT_EQ(log.size(), kivhal::host::kCapturedLogCapacity);
    EXPECT_EQ(kivhal::host::captured_log_dropped(), extra);
    EXPECT_NE(log.front().text.find(", line " + std::to_string(extra)), std::string::npos);
}

}  // namespace
