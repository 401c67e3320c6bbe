#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "kiv_feature_flags.h"
#include "kiv_log.h"
#include "kivhal/host.h"
#include "tav_ducto.h"
#include "test_support.h"

namespace {

using kivhal::host::set_property;

bool ds() { return is_ds_supported(); }
bool oda() { return is_oda_supported(); }
bool aon() { return get_aon_prop() == 1; }
bool trace() { return tav_ducto::check_kiv_trace_support_flag() && kiv_trace_enabled.load(); }

// The caches live for the process, so every reading runs in a child. The
// child echoes the value it read on standard error, so a child that never
// ran the reader fails the match.
TEST(FeatureFlagsTest, EachSwitchAppliesItsOwnLooseComparison) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const struct {
        const char* property;
        bool (*read)();
        const char* echo;  // the reader's first line, before the value
        const char* value;  // nullptr: unset, the default is read
        bool expected;
    } cases[] = {
        // The sensor store is on unless the value starts with "false".
        {"persist.vendor.kiv.ds", ds, "is_ds_supported:[0-9]+, ds: ", nullptr, false},
        {"persist.vendor.kiv.ds", ds, "is_ds_supported:[0-9]+, ds: ", "0", true},
        {"persist.vendor.kiv.ds", ds, "is_ds_supported:[0-9]+, ds: ", "FALSE", true},
        {"persist.vendor.kiv.ds", ds, "is_ds_supported:[0-9]+, ds: ", "falsely", false},
        // On-device analysis and tracing compare four characters with "true".
        {"persist.vendor.kiv.ds_oda", oda, "is_oda_supported:[0-9]+, ds_oda: ", nullptr, false},
        {"persist.vendor.kiv.ds_oda", oda, "is_oda_supported:[0-9]+, ds_oda: ", "true1", true},
        {"persist.vendor.kiv.ds_oda", oda, "is_oda_supported:[0-9]+, ds_oda: ", "TRUE", false},
        {"persist.vendor.debug.kiv.trace", trace, "check_kiv_trace_support_flag:[0-9]+, trace_debug: ", nullptr, false},
        {"persist.vendor.debug.kiv.trace", trace, "check_kiv_trace_support_flag:[0-9]+, trace_debug: ", "trueish", true},
        // Always-on presence looks at the first character only.
        {"ro.vendor.mr_aon_presence", aon, "get_aon_prop:[0-9]+, aon_prop: ", nullptr, false},
        {"ro.vendor.mr_aon_presence", aon, "get_aon_prop:[0-9]+, aon_prop: ", "10", true},
        {"ro.vendor.mr_aon_presence", aon, "get_aon_prop:[0-9]+, aon_prop: ", "true", false},
    };
    for (const auto& c : cases) {
        kivhal::host::clear_properties();
        if (c.value != nullptr) set_property(c.property, c.value);
        const std::string shown = c.value != nullptr ? c.value : (c.read == aon ? "0" : "false");
        EXPECT_EXIT(
            {
                kiv_log::set_level(kiv_log::DEBUG);
                kiv_log::set_stderr_logging(true);
                std::exit(c.read() ? 0 : 1);
            },
            ::testing::ExitedWithCode(c.expected ? 0 : 1), c.echo + shown + "\n")
            << c.property << "=" << shown;
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

// The "support" lines mark the sensor store switches off, presence and tracing on.
TEST(FeatureFlagsTest, SupportLinesAreInformationLinesOfTheValueRead) {
    set_property("persist.vendor.kiv.ds", "falsely");
    set_property("persist.vendor.kiv.ds_oda", "no");
    set_property("ro.vendor.mr_aon_presence", "1");
    set_property("persist.vendor.debug.kiv.trace", "true");
    is_ds_supported();
    is_oda_supported();
    get_aon_prop();
    tav_ducto::check_kiv_trace_support_flag();
    for (const char* line : {", support_ds : falsely", ", support_ds_oda : no", ", support_aon_presence: 1",
                             ", support_trace_debug : true"}) {
        EXPECT_TRUE(kivhal::test::log_contains(line, ANDROID_LOG_INFO)) << line;
    }
}

}  // namespace
