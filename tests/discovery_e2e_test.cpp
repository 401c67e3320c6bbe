#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>

#include "core_stub.h"
#include "fake_tav_interface.h"
#include "kiv_log.h"
#include "kiv_sensor_factory.h"
#include "test_support.h"

namespace {

using kivhal::test::core_stub;
using kivhal::test::log_contains;
using std::chrono::milliseconds;

constexpr char kChannel[] = "discovery";
constexpr const char* kListPath = "/mnt/vendor/persist/sensors/kiv_sensors_list.txt";
constexpr const char* kConfigPath = "/vendor/etc/sensors/oem_config.xml";
constexpr const char* kConfig = R"(<configuration type="KIV_oem_datatype">
  <datatypes>
    <datatype sensor_type="heart_rate" type="heart_rate" data_type_value="0x1"/>
  </datatypes>
</configuration>
)";

const sensor_uid kHealth{0x200, 0x2};
const sensor_uid kHeartRate{0x300, 0x3};
const sensor_uid kHeartRateRaw{0x301, 0x3};

// Discovery over the real channel against the core stand-in.
class DiscoveryEndToEndTest : public ::testing::Test {
protected:
    void SetUp() override {
        kiv_log::set_level(kiv_log::DEBUG);
        kivhal::host::clear_captured_log();
        kivhal::test::reset_discovery_state();
        root.write_file("/sys/power/wake_lock", "");
        root.write_file("/sys/power/wake_unlock", "");
        root.write_file(kConfigPath, kConfig);
        root.write_file("/mnt/vendor/persist/sensors/.keep", "");
        core = std::make_unique<core_stub>(kChannel);
        core->set_auto_respond(true);
        core->add_sensor_type("registry", {{0x100, 0x1}});
        core->add_sensor_type("health", {kHealth});
        core->set_attributes(kHealth, stream_type(1));
    }

    static sns_std_attr_event stream_type(int64_t type) {
        sns_std_attr_event event;
        sns_std_attr* attr = event.add_attributelist();
        attr->set_attributeid(sensor_attributes::STREAM_TYPE_ATTRIBUTE_ID);
        attr->mutable_value()->add_elementlist()->set_intvalue(type);
        return event;
    }

    // The connection is gone, and its reader thread with it, before the test
    // looks at what discovery stored.
    void discover() {
        std::unique_ptr<tav_interface> conn(
            tav_interface::create(TAV_DUCTO_CONNECTION, tav_conn_config{kChannel}));
        ASSERT_NE(conn, nullptr);
        factory.startDiscovery(conn.get());
    }

    kivhal::test::scoped_root root;
    std::unique_ptr<core_stub> core;
    kiv_sensor_factory factory;
};

TEST_F(DiscoveryEndToEndTest, FirstBootWritesTheListAndStoresAttributesPerSuid) {
    core->add_sensor_type("heart_rate", {kHeartRate, kHeartRateRaw}, milliseconds(100));
    core->set_attributes(kHeartRate, stream_type(2));
    core->set_attributes(kHeartRateRaw, stream_type(3));

    discover();

    EXPECT_EQ(root.read_file(kListPath), "health\nheart_rate\n");
    EXPECT_EQ(factory.suidMap.at("heart_rate"), (std::vector<sensor_uid>{kHeartRate, kHeartRateRaw}));
    ASSERT_EQ(factory.attributesMap.size(), 3u);
    EXPECT_EQ(factory.attributesMap.at(kHealth).get_stream_type(), 1);
    EXPECT_EQ(factory.attributesMap.at(kHeartRate).get_stream_type(), 2);
    EXPECT_EQ(factory.attributesMap.at(kHeartRateRaw).get_stream_type(), 3);
    EXPECT_TRUE(log_contains("attributes received"));
}

TEST_F(DiscoveryEndToEndTest, LaterBootWaitsForTheListedSensors) {
    root.write_file(kListPath, "health\nheart_rate\n");
    // Answers only the second lookup: the one re-sent by the mandatory wait.
    core->add_silent_sensor_type("heart_rate");
    core->add_sensor_type("health", {kHealth});

    std::thread late_answer([this] {
        // Once the first wait pass has re-sent the lookup, the core learns the type.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!log_contains("re-sending request for heart_rate") &&
               std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(milliseconds(10));
        }
        core->add_sensor_type("heart_rate", {kHeartRate});
        core->set_attributes(kHeartRate, stream_type(2));
    });
    discover();
    late_answer.join();

    EXPECT_TRUE(log_contains("it's a later boot"));
    EXPECT_TRUE(log_contains("non available ones heart_rate"));
    EXPECT_FALSE(log_contains("giving up"));
    EXPECT_TRUE(allMandatoryFound.load());
    EXPECT_EQ(root.read_file(kListPath), "health\nheart_rate\n");
    EXPECT_EQ(factory.attributesMap.at(kHeartRate).get_stream_type(), 2);
    EXPECT_EQ(factory.attributesMap.at(kHealth).get_stream_type(), 1);
}

}  // namespace
