#include <gtest/gtest.h>

#include <cutils/properties.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "kiv_feature_flags.h"
#include "kiv_log.h"
#include "kivhal/host.h"
#include "tav_ducto.h"
#include "test_support.h"

namespace {

using kivhal::host::set_property;

// A switch and the first line it logs, which echoes the value it read.
struct flag_reader {
    bool (*read)();
    const char* echo_pattern;
};

// The caches live for the process, so every reading runs in a child. The
// child mirrors its log to stderr: the echo of the value shows that the
// child ran the reader rather than failing to start.
void expect_in_child(const flag_reader& reader, const std::string& value, bool expected,
                     const std::string& what) {
    EXPECT_EXIT(
        {
            kiv_log::set_level(kiv_log::DEBUG);
            kiv_log::set_stderr_logging(true);
            std::exit(reader.read() ? 0 : 1);
        },
        ::testing::ExitedWithCode(expected ? 0 : 1), reader.echo_pattern + value + "\n")
        << what;
}

class FeatureFlagsTest : public ::testing::Test {
protected:
    void SetUp() override {
        ::testing::FLAGS_gtest_death_test_style = "threadsafe";
        kivhal::host::clear_properties();
        kivhal::host::clear_captured_log();
    }
};

TEST_F(FeatureFlagsTest, UnsetPropertiesLeaveEverythingOff) {
    EXPECT_EQ(get_aon_prop(), 0u);
    EXPECT_FALSE(is_ds_supported());
    EXPECT_FALSE(is_oda_supported());
    EXPECT_FALSE(tav_ducto::check_kiv_trace_support_flag());
    EXPECT_FALSE(kiv_trace_enabled.load());
}

const flag_reader ds{[] { return is_ds_supported(); }, "is_ds_supported:[0-9]+, ds: "};
const flag_reader oda{[] { return is_oda_supported(); }, "is_oda_supported:[0-9]+, ds_oda: "};
const flag_reader aon{[] { return get_aon_prop() == 1; }, "get_aon_prop:[0-9]+, aon_prop: "};
const flag_reader trace{[] { return tav_ducto::check_kiv_trace_support_flag() && kiv_trace_enabled.load(); },
                        "check_kiv_trace_support_flag:[0-9]+, trace_debug: "};

TEST_F(FeatureFlagsTest, EachSwitchAppliesItsOwnLooseComparison) {
    const struct {
        const char* property;
        const flag_reader& reader;
        const char* value;
        bool expected;
    } cases[] = {
        // The sensor store is on unless the value starts with "false".
        {"persist.vendor.kiv.ds", ds, "0", true},
        {"persist.vendor.kiv.ds", ds, "FALSE", true},
        {"persist.vendor.kiv.ds", ds, "disabled", true},
        {"persist.vendor.kiv.ds", ds, "false", false},
        {"persist.vendor.kiv.ds", ds, "falsely", false},
        // On-device analysis and tracing compare four characters with "true".
        {"persist.vendor.kiv.ds_oda", oda, "true1", true},
        {"persist.vendor.kiv.ds_oda", oda, "1", false},
        {"persist.vendor.kiv.ds_oda", oda, "TRUE", false},
        {"persist.vendor.debug.kiv.trace", trace, "trueish", true},
        {"persist.vendor.debug.kiv.trace", trace, "yes", false},
        // Always-on presence looks at the first character only.
        {"ro.vendor.mr_aon_presence", aon, "10", true},
        {"ro.vendor.mr_aon_presence", aon, "true", false},
    };
    for (const auto& c : cases) {
        kivhal::host::clear_properties();
        set_property(c.property, c.value);
        expect_in_child(c.reader, c.value, c.expected, std::string(c.property) + "=" + c.value);
    }
}

TEST_F(FeatureFlagsTest, AonAndSensorStoreAreCachedOdaIsReadEveryTime) {
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

TEST_F(FeatureFlagsTest, SupportLinesMarkOffForSensorStoreAndOnForAonAndTrace) {
    kiv_log::set_level(kiv_log::DEBUG);
    set_property("persist.vendor.kiv.ds", "falsely");
    set_property("persist.vendor.kiv.ds_oda", "no");
    set_property("ro.vendor.mr_aon_presence", "1");
    set_property("persist.vendor.debug.kiv.trace", "true");
    is_ds_supported();
    is_oda_supported();
    get_aon_prop();
    tav_ducto::check_kiv_trace_support_flag();

    using kivhal::test::log_contains;
    EXPECT_TRUE(log_contains(", ds: falsely", ANDROID_LOG_DEBUG));
    EXPECT_TRUE(log_contains(", support_ds : falsely", ANDROID_LOG_INFO));
    EXPECT_TRUE(log_contains(", ds_oda: no", ANDROID_LOG_DEBUG));
    EXPECT_TRUE(log_contains(", support_ds_oda : no", ANDROID_LOG_INFO));
    EXPECT_TRUE(log_contains(", aon_prop: 1", ANDROID_LOG_DEBUG));
    EXPECT_TRUE(log_contains(", support_aon_presence: 1", ANDROID_LOG_INFO));
    EXPECT_TRUE(log_contains(", trace_debug: true", ANDROID_LOG_DEBUG));
    EXPECT_TRUE(log_contains(", support_trace_debug : true", ANDROID_LOG_INFO));
    kiv_log::set_level(kiv_log::INFO);
}

}  // namespace
