#include <android-base/test_utils.h>
#include <gmock/gmock.h>

#include <cstdlib>

#include "kiv_feature_flags.h"
#include "kiv_log.h"
#include "kivhal/host.h"
#include "tav_ducto.h"

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
    const std::vector<int> all = {ANDROID_LOG_ERROR, ANDROID_LOG_INFO, ANDROID_LOG_DEBUG,
                                  ANDROID_LOG_VERBOSE};
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

// A file-local helper logs for the operation that called it, at its own line.
int g_helper_line = 0;
void helper_logging_for(kiv_log_op op) {
    g_helper_line = __LINE__ + 1;
    KIV_LOGI_FOR(op, "helper %d", 7);
}

TEST(LoggingTest, StderrMirrorsTheTextAfterTheNameAndLineOfTheStatementOrOfAHelper) {
    kiv_log::set_stderr_logging(true);
    CapturedStderr err;
    const int line = __LINE__ + 1;
    KIV_LOGE("opening \"%s\": %s\n", "/x", "gone");
    KIV_LOGD("not at info level");
    err.Stop();
    const std::string text = "TestBody:" + std::to_string(line) + ", opening \"/x\": gone\n";
    EXPECT_EQ(text + "\n", err.str());
    helper_logging_for(KIV_LOG_OP);
    kiv_log::set_level(kiv_log::ERROR);
    helper_logging_for(KIV_LOG_OP);
    EXPECT_THAT(texts(),
                ElementsAre(text, "TestBody:" + std::to_string(g_helper_line) + ", helper 7"));
}

// --- The switches read from system properties ----------------------------------

using kivhal::host::set_property;

// A switch: its property, its reader, the reader's first line up to the
// value it echoes, and the value read when the property is unset.
struct flag {
    const char* property;
    bool (*read)();
    const char* echo;
    const char* fallback;
};
const flag kDs{"persist.vendor.kiv.ds", is_ds_supported, "is_ds_supported:[0-9]+, ds: ", "false"};
const flag kOda{"persist.vendor.kiv.ds_oda", is_oda_supported,
                "is_oda_supported:[0-9]+, ds_oda: ", "false"};
const flag kTrace{
    "persist.vendor.debug.kiv.trace",
    [] { return tav_ducto::check_kiv_trace_support_flag() && kiv_trace_enabled.load(); },
    "check_kiv_trace_support_flag:[0-9]+, trace_debug: ", "false"};
const flag kAon{"ro.vendor.mr_aon_presence", [] { return get_aon_prop() == 1; },
                "get_aon_prop:[0-9]+, aon_prop: ", "0"};

// The caches live for the process, so every reading runs in a child. The
// child echoes the value it read on standard error, so a child that never
// ran the reader fails the match.
TEST(FeatureFlagsTest, EachSwitchAppliesItsOwnLooseComparison) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // clang-format off
    const struct {
        const flag& f;
        const char* value;  // nullptr: unset
        bool expected;
    } cases[] = {
        // The sensor store is on unless the value starts with "false"; on-device
        // analysis and tracing compare four characters with "true"; always-on
        // presence looks at the first character only.
        {kDs, nullptr, false},
        {kDs, "0", true},
        {kDs, "FALSE", true},
        {kDs, "falsely", false},
        {kOda, nullptr, false},
        {kOda, "true1", true},
        {kOda, "TRUE", false},
        {kTrace, nullptr, false},
        {kTrace, "trueish", true},
        {kAon, nullptr, false},
        {kAon, "10", true},
        {kAon, "true", false},
    };
    // clang-format on
    for (const auto& c : cases) {
        kivhal::host::clear_properties();
        if (c.value != nullptr) set_property(c.f.property, c.value);
        const std::string shown = c.value != nullptr ? c.value : c.f.fallback;
        EXPECT_EXIT(
            {
                kiv_log::set_level(kiv_log::DEBUG);
                kiv_log::set_stderr_logging(true);
                std::exit(c.f.read() ? 0 : 1);
            },
            ::testing::ExitedWithCode(c.expected ? 0 : 1), c.f.echo + shown + "\n")
            << c.f.property << "=" << shown;
    }
}

TEST(FeatureFlagsTest, AonAndSensorStoreAreCachedOdaIsReadEveryTime) {
    set_property("persist.vendor.kiv.ds", "false");
    set_property("ro.vendor.mr_aon_presence", "1");
    set_property("persist.vendor.kiv.ds_oda", "true");
    ASSERT_FALSE(is_ds_supported());
    ASSERT_EQ(get_aon_prop(), 1u);
    ASSERT_TRUE(is_oda_supported());

    set_property("persist.vendor.kiv.ds", "1");
    set_property("ro.vendor.mr_aon_presence", "0");
    set_property("persist.vendor.kiv.ds_oda", "1");
    EXPECT_FALSE(is_ds_supported());
    EXPECT_EQ(get_aon_prop(), 1u);
    EXPECT_FALSE(is_oda_supported());
}

}  // namespace
