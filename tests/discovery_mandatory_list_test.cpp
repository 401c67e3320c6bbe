#include <gtest/gtest.h>

#include "fake_tav_interface.h"
#include "kiv_log.h"
#include "kiv_sensor_factory.h"
#include "test_support.h"

namespace {

using kivhal::test::fake_tav_interface;
using kivhal::test::log_contains;
using kivhal::test::log_lines_containing;

constexpr const char* kListPath = "/mnt/vendor/persist/sensors/kiv_sensors_list.txt";

class MandatoryListTest : public ::testing::Test {
protected:
    void SetUp() override {
        kiv_log::set_level(kiv_log::VERBOSE);
        kivhal::host::clear_captured_log();
        kivhal::test::reset_discovery_state();
        kiv_sensor_factory::tavInterface = &core;
    }

    void create_list_dir() { root.write_file("/mnt/vendor/persist/sensors/.keep", ""); }

    void answer(const std::string& name, std::vector<sensor_uid> suids) {
        factory.handle_suids_lookup_callback(name, suids);
    }

    kivhal::test::scoped_root root;
    fake_tav_interface core;
    kiv_sensor_factory factory;
};

TEST_F(MandatoryListTest, FirstBootCreatesTheListAndWritesEachNameOnce) {
    create_list_dir();
    factory.init_mandatory_list_db();
    EXPECT_FALSE(factory.laterBoot);
    EXPECT_TRUE(root.exists(kListPath));
    EXPECT_TRUE(log_contains("first boot after flash"));

    answer("accel", {{1, 1}});
    answer("gyro", {{2, 2}});
    answer("accel", {{1, 1}});
    factory.deinit_mandatory_list_db();

    EXPECT_FALSE(factory.listWriter.is_open());
    EXPECT_EQ(root.read_file(kListPath), "accel\ngyro\n");
    EXPECT_EQ(num_mandatory_sns, 2u);
    EXPECT_TRUE(log_contains("first boot datatype gyro num_mandatory_sns 2"));
}

TEST_F(MandatoryListTest, LaterBootLoadsSkippingDuplicatesAndKeepsOddLines) {
    root.write_file(kListPath, "a\nb\na\n\nc");
    factory.init_mandatory_list_db();

    EXPECT_TRUE(factory.laterBoot);
    EXPECT_TRUE(log_contains("it's a later boot"));
    EXPECT_EQ(mandatorySensors, (std::vector<std::string>{"a", "b", "", "c"}));
    EXPECT_EQ(log_lines_containing("duplicate entry for ").size(), 1u);
    EXPECT_TRUE(log_contains("duplicate entry for a"));
    EXPECT_TRUE(factory.listReader.is_open());
    EXPECT_TRUE(factory.listWriter.is_open());
    factory.deinit_mandatory_list_db();
    EXPECT_FALSE(factory.listReader.is_open());
    EXPECT_FALSE(factory.listWriter.is_open());
}

TEST_F(MandatoryListTest, LaterBootAppendsNewNamesOnly) {
    root.write_file(kListPath, "a\nb\n");
    factory.init_mandatory_list_db();
    factory.update_mandatory_list_database("b");
    factory.update_mandatory_list_database("new");
    factory.update_mandatory_list_database("new");
    factory.deinit_mandatory_list_db();

    EXPECT_EQ(root.read_file(kListPath), "a\nb\nnew\n");
    EXPECT_EQ(mandatorySensors, (std::vector<std::string>{"a", "b", "new"}));
    EXPECT_EQ(num_mandatory_sns, 0u);
    EXPECT_EQ(log_lines_containing("laterboot datatype new write").size(), 1u);
}

TEST_F(MandatoryListTest, OpenFailuresAreLoggedAndWritesLost) {
    factory.init_mandatory_list_db();  // the persist directory does not exist
    EXPECT_FALSE(factory.laterBoot);
    EXPECT_TRUE(log_contains("create fail for sensors_list with errno No such file or directory "));
    answer("accel", {{1, 1}});
    factory.deinit_mandatory_list_db();
    EXPECT_FALSE(root.exists(kListPath));
    EXPECT_EQ(num_mandatory_sns, 1u);

    kivhal::host::clear_captured_log();
    root.write_file(std::string(kListPath) + "/inside", "");  // the list path is a directory
    kiv_sensor_factory later;
    later.init_mandatory_list_db();
    EXPECT_TRUE(later.laterBoot);
    EXPECT_TRUE(log_contains("open append fail for sensors_list with errno Is a directory "));
    later.deinit_mandatory_list_db();
}

TEST_F(MandatoryListTest, WaitReturnsAtOnceWhenEverythingAnswered) {
    allMandatoryFound = true;
    factory.wait_for_mandatory_sensors();
    EXPECT_TRUE(core.requests().empty());
    EXPECT_FALSE(log_contains("some mandatory sensors"));
}

TEST_F(MandatoryListTest, WaitResendsMissingNamesUntilTheListedOnesAnswer) {
    root.write_file(kListPath, "health\n");
    factory.init_mandatory_list_db();
    mandatoryFound = {{"health", false}};
    factory.laterBoot = true;
    factory.eventCallback = [this](const uint8_t* data, uint32_t length, uint64_t) {
        factory.default_suids_lookup_callback(data, length, 0);
    };
    core.register_cb(fake_tav_interface::lookup_suid(), nullptr, nullptr, factory.eventCallback);
    core.add_sensor_type("health", {{5, 5}});

    factory.wait_for_mandatory_sensors();
    factory.deinit_mandatory_list_db();

    std::vector<kivhal::test::fake_request> requests = core.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].lookup.datatypename(), "health");
    EXPECT_EQ(requests[1].lookup.datatypename(), "health_async_announce");
    EXPECT_TRUE(log_contains("non available ones health"));
    EXPECT_EQ(log_lines_containing("will wait for").size(), 1u);
    EXPECT_TRUE(allMandatoryFound.load());
    EXPECT_FALSE(log_contains("giving up"));
}

TEST_F(MandatoryListTest, FirstBootRediscoveryResendsOnlyMissingNames) {
    factory.laterBoot = false;
    factory.suidMap["health"] = {{1, 1}};
    factory.discoveryList.push_back("accel");
    factory.eventCallback = [this](const uint8_t* data, uint32_t length, uint64_t) {
        factory.default_suids_lookup_callback(data, length, 0);
    };
    core.register_cb(fake_tav_interface::lookup_suid(), nullptr, nullptr, factory.eventCallback);
    core.add_sensor_type("accel", {{7, 7}});

    factory.wait_for_sensors();

    std::vector<kivhal::test::fake_request> requests = core.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].lookup.datatypename(), "health_async_announce");
    EXPECT_EQ(requests[1].lookup.datatypename(), "accel");
    EXPECT_TRUE(requests[1].lookup.lookupoption());
    EXPECT_TRUE(log_contains("ORN not ready yet wait count 8"));
    EXPECT_TRUE(log_contains("sensors found after re discover 7"));
    EXPECT_TRUE(log_contains("re-sending request for accel"));
    for (const auto& line : log_lines_containing("re-sending request for")) {
        EXPECT_FALSE(line.text.size() >= 6 && line.text.compare(line.text.size() - 6, 6, "health") == 0);
    }
    EXPECT_EQ(log_lines_containing("re-sending request for").size(), 2u);
}

}  // namespace
