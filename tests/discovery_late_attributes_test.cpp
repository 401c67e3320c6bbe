#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "fake_tav_interface.h"
#include "kiv_log.h"
#include "kiv_sensor_factory.h"
#include "sensor_attributes.h"
#include "test_support.h"

// A core that answers the attribute requests only after discovery gave up
// waiting: the answers are stored on the core's thread while the service
// already asks its capability queries on another. Under ThreadSanitizer this
// is the check that the attribute map is locked on both sides.

namespace {

constexpr const char* kListPath = "/mnt/vendor/persist/sensors/kiv_sensors_list.txt";
constexpr const char* kConfigPath = "/vendor/etc/sensors/oem_config.xml";
constexpr const char* kConfig = R"(<configuration type="KIV_oem_datatype"><datatypes>
    <datatype sensor_type="heart_rate" type="heart_rate" data_type_value="0x1"/></datatypes></configuration>)";
constexpr int kHeartRateDataType = 0x1;
// Enough sensors that storing their answers rehashes the map several times.
constexpr uint64_t kLateSensors = 64;
constexpr auto kDeliveryDeadline = std::chrono::seconds(30);
constexpr auto kPollPause = std::chrono::milliseconds(1);

std::vector<sensor_uid> heart_rate_sensors() {
    std::vector<sensor_uid> suids;
    for (uint64_t i = 1; i <= kLateSensors; i++) suids.push_back({0x300 + i, 0x3});
    return suids;
}

TEST(DiscoveryLateAttributesTest, AnswersStoredWhileQueriesRunAreSeenWhole) {
    kivhal::test::scoped_root root;
    kivhal::test::reset_discovery_state();
    root.write_file(kConfigPath, kConfig);
    root.write_file(kListPath, "heart_rate\n");  // later boot: the short wait
    const std::vector<sensor_uid> suids = heart_rate_sensors();
    kivhal::test::fake_tav_interface core;
    core.add_sensor_type("registry", {{0x100, 0x1}});
    core.add_sensor_type("heart_rate", suids, true);
    core.hold_attribute_answers();

    kiv_sensor_factory factory;
    factory.startDiscovery(&core);
    sensor_attributes ignored;
    ASSERT_FALSE(factory.find_attributes(suids.front(), &ignored));
    EXPECT_TRUE(factory.getSupportedMetricsTypes().empty());

    // No logging from here on: the log's own lock would order the two threads
    // and hide an unlocked map from ThreadSanitizer.
    kiv_log::set_level(kiv_log::ERROR);
    std::atomic<bool> done{false};
    std::atomic<size_t> queries{0};
    std::thread service([&] {
        while (!done) {
            factory.getSupportedMetricsTypes();
            factory.getAutoStopList();
            queries++;
        }
    });
    while (queries == 0) std::this_thread::yield();
    core.deliver_held_answers();
    // Answers arrive in request order: the last one stored means all are.
    const auto deadline = std::chrono::steady_clock::now() + kDeliveryDeadline;
    while (!factory.find_attributes(suids.back(), &ignored) &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(kPollPause);
    }
    done = true;
    service.join();
    core.stop();

    for (const sensor_uid& suid : suids) {
        EXPECT_TRUE(factory.find_attributes(suid, &ignored)) << suid.low;
    }
    const std::vector<kiv_sensor_factory::DataType> metrics = factory.getSupportedMetricsTypes();
    ASSERT_EQ(metrics.size(), 1u);
    EXPECT_EQ(static_cast<int>(metrics.front()), kHeartRateDataType);
}

}  // namespace
