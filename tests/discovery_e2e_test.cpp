#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "core_stub.h"
#include "fake_tav_interface.h"
#include "kiv_log.h"
#include "kiv_sensor_factory.h"
#include "test_support.h"

// Whole boots over the real channel against the sensor-core stand-in, in
// real time: one per boot kind. The registry that never answers is a driver
// case, on virtual time.

namespace {

using std::chrono::milliseconds;

constexpr char kChannel[] = "discovery";
constexpr const char* kListPath = "/mnt/vendor/persist/sensors/kiv_sensors_list.txt";
const sensor_uid kHealth{0x200, 0x2}, kHeartRate{0x300, 0x3}, kHeartRateRaw{0x301, 0x3};

sns_std_attr_event stream_type(int64_t type) {
    sns_std_attr_event event;
    sns_std_attr* attr = event.add_attributelist();
    attr->set_attributeid(sensor_attributes::STREAM_TYPE_ATTRIBUTE_ID);
    attr->mutable_value()->add_elementlist()->set_intvalue(type);
    return event;
}

class DiscoveryEndToEndTest : public ::testing::Test {
protected:
    void SetUp() override {
        kiv_log::set_level(kiv_log::VERBOSE);
        kivhal::test::reset_discovery_state();
        for (const char* file : {"/sys/power/wake_lock", "/sys/power/wake_unlock", "/mnt/vendor/persist/sensors/.keep"}) {
            root.write_file(file, "");
        }
        root.write_file("/vendor/etc/sensors/oem_config.xml", R"(<configuration><datatypes>
            <datatype sensor_type="heart_rate" type="heart_rate" data_type_value="0x1"/></datatypes></configuration>)");
        core.set_auto_respond(true);
        core.add_sensor_type("registry", {{0x100, 0x1}});
        core.set_attributes(kHealth, stream_type(1));
        core.set_attributes(kHeartRate, stream_type(2));
    }

    // The connection and its reader thread are gone before the test reads.
    void discover() {
        std::unique_ptr<tav_interface> conn(tav_interface::create(TAV_DUCTO_CONNECTION, tav_conn_config{kChannel}));
        ASSERT_NE(conn, nullptr);
        factory.startDiscovery(conn.get());
    }

    int stream_type_of(sensor_uid suid) { return factory.attributesMap.at(suid).get_stream_type(); }

    kivhal::test::scoped_root root;  // before the core: its socket lives under the root
    kivhal::test::core_stub core{kChannel};
    kiv_sensor_factory factory;
};

TEST_F(DiscoveryEndToEndTest, FirstBootWritesTheListInAnswerOrderAndAttributesPerSuid) {
    core.add_sensor_type("health", {kHealth}, milliseconds(200));
    core.add_sensor_type("heart_rate", {kHeartRate, kHeartRateRaw});
    core.set_attributes(kHeartRateRaw, stream_type(3));
    ASSERT_NO_FATAL_FAILURE(discover());

    EXPECT_EQ(root.read_file(kListPath), "heart_rate\nhealth\n");
    EXPECT_EQ(factory.suidMap.at("heart_rate"), (std::vector<sensor_uid>{kHeartRate, kHeartRateRaw}));
    ASSERT_EQ(factory.attributesMap.size(), 3u);
    EXPECT_EQ((std::vector<int>{stream_type_of(kHealth), stream_type_of(kHeartRate), stream_type_of(kHeartRateRaw)}),
              (std::vector<int>{1, 2, 3}));
}

TEST_F(DiscoveryEndToEndTest, LaterBootWaitsForTheListedSensors) {
    root.write_file(kListPath, "health\nheart_rate\n");
    core.add_sensor_type("health", {kHealth});
    // Answered only after the fixed wait, while the mandatory wait re-sends it.
    core.add_sensor_type("heart_rate", {kHeartRate}, milliseconds(3000));
    ASSERT_NO_FATAL_FAILURE(discover());

    EXPECT_TRUE(allMandatoryFound.load());
    EXPECT_EQ(root.read_file(kListPath), "health\nheart_rate\n");
    EXPECT_EQ(stream_type_of(kHealth), 1);
    EXPECT_EQ(stream_type_of(kHeartRate), 2);  // answered late, still asked for
}

}  // namespace
