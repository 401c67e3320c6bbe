#include <gtest/gtest.h>

#include <stdexcept>

#include "fake_tav_interface.h"
#include "kiv_log.h"
#include "kiv_sensor_factory.h"
#include "test_support.h"

namespace {

using kivhal::test::fake_request;
using kivhal::test::fake_tav_interface;
using kivhal::test::log_contains;
using kivhal::test::log_lines_containing;
using std::chrono::milliseconds;

constexpr const char* kListPath = "/mnt/vendor/persist/sensors/kiv_sensors_list.txt";
constexpr const char* kConfigPath = "/vendor/etc/sensors/oem_config.xml";
constexpr const char* kConfig = R"(<configuration type="KIV_oem_datatype">
  <datatypes>
    <datatype sensor_type="heart_rate" type="heart_rate" data_type_value="0x1"/>
    <datatype sensor_type="spo2" type="spo2" data_type_value="0x2"/>
  </datatypes>
</configuration>
)";

const sensor_uid kRegistry{0x100, 0x1};
const sensor_uid kHealth{0x200, 0x2};
const sensor_uid kHeartRate{0x300, 0x3};
const sensor_uid kSpo2{0x400, 0x4};

class DiscoveryDriverTest : public ::testing::Test {
protected:
    void SetUp() override {
        kiv_log::set_level(kiv_log::VERBOSE);
        kivhal::host::clear_captured_log();
        kivhal::test::reset_discovery_state();
        root.write_file(kConfigPath, kConfig);
        root.write_file("/mnt/vendor/persist/sensors/.keep", "");
        core.add_sensor_type("registry", {kRegistry});
    }

    static sns_std_attr_event named(const std::string& name) {
        sns_std_attr_event event;
        sns_std_attr* attr = event.add_attributelist();
        attr->set_attributeid(0);
        attr->mutable_value()->add_elementlist()->set_stringvalue(name);
        return event;
    }

    void answer_with_attributes(const std::string& type, sensor_uid suid,
                                milliseconds delay = milliseconds(0)) {
        core.add_sensor_type(type, {suid}, 1, delay);
        core.set_attributes(suid, named(type));
    }

    // Discovery, then the fake stops so nothing arrives while the test reads.
    void discover() {
        factory.startDiscovery(&core);
        core.stop();
    }

    std::vector<std::string> lookups_of(const std::vector<fake_request>& requests, uint32_t msg_id) {
        std::vector<std::string> names;
        for (const fake_request& request : requests) {
            if (request.to_lookup_service() && request.msg_id() == msg_id) {
                names.push_back(request.lookup.datatypename());
            }
        }
        return names;
    }

    kivhal::test::scoped_root root;
    fake_tav_interface core;
    kiv_sensor_factory factory;
};

TEST_F(DiscoveryDriverTest, LaterBootSendsTheRequestsInOrder) {
    root.write_file(kListPath, "health\nheart_rate\n");
    answer_with_attributes("health", kHealth);
    answer_with_attributes("heart_rate", kHeartRate);

    discover();

    std::vector<fake_request> requests = core.requests();
    ASSERT_EQ(requests.size(), 11u);
    EXPECT_EQ(requests[0].msg_id(), 512u);
    EXPECT_EQ(requests[0].lookup.datatypename(), "registry");
    EXPECT_FALSE(requests[0].lookup.lookupoption());
    EXPECT_EQ(requests[1].msg_id(), 10u);
    EXPECT_EQ(requests[1].lookup.datatypename(), "registry");
    EXPECT_EQ(requests[2].lookup.datatypename(), "health");
    EXPECT_EQ(requests[3].lookup.datatypename(), "health_async_announce");
    for (int i = 2; i <= 5; i++) {
        EXPECT_EQ(requests[i].msg_id(), 512u);
        EXPECT_TRUE(requests[i].lookup.lookupoption());
    }
    EXPECT_EQ(requests[6].msg_id(), 10u);
    EXPECT_TRUE(requests[6].to_lookup_service());
    for (int i = 7; i < 11; i++) {
        EXPECT_FALSE(requests[i].to_lookup_service());
        EXPECT_EQ(requests[i].msg_id(), i < 9 ? 1u : 10u);
    }
    EXPECT_EQ(requests[7].suid, requests[9].suid);
    EXPECT_EQ(requests[8].suid, requests[10].suid);

    std::vector<kivhal::test::fake_registration> registrations = core.registrations();
    ASSERT_EQ(registrations.size(), 4u);
    EXPECT_EQ(registrations[0].suid, fake_tav_interface::lookup_suid());
    EXPECT_EQ(registrations[1].suid, fake_tav_interface::lookup_suid());
    for (const auto& registration : registrations) EXPECT_EQ(registration.result, 0);

    EXPECT_TRUE(log_contains("(no of repeats:'0') "));
    EXPECT_TRUE(log_contains("it's a later boot"));
    EXPECT_TRUE(log_contains("waiting for suids for 1s ..."));
    EXPECT_FALSE(log_contains("some mandatory sensors not available yet"));
    EXPECT_TRUE(log_contains("attributes received"));
    EXPECT_EQ(factory.attributesMap.at(kHealth).get_string(0), "health");
    EXPECT_EQ(factory.attributesMap.at(kHeartRate).get_string(0), "heart_rate");
    EXPECT_EQ(factory.get_suids("heart_rate"), kHeartRate);
    EXPECT_FALSE(factory.listWriter.is_open());
    EXPECT_EQ(root.read_file(kListPath), "health\nheart_rate\n");
}

TEST_F(DiscoveryDriverTest, RegistryAnswersWithoutSuidsDoNotCount) {
    core.add_sensor_type("registry", {kRegistry}, 3, milliseconds(0), true);
    kiv_sensor_factory::tavInterface = &core;

    EXPECT_TRUE(factory.is_registry_up());
    core.stop();

    std::vector<fake_request> requests = core.requests();
    EXPECT_EQ(lookups_of(requests, 512), std::vector<std::string>(3, "registry"));
    EXPECT_EQ(lookups_of(requests, 10), std::vector<std::string>{"registry"});
    EXPECT_TRUE(log_contains("registry discovery countdown: 78"));
    EXPECT_TRUE(log_contains("from serviceup(no of repeats:'2') "));
}

TEST_F(DiscoveryDriverTest, ParseFailureStopsAfterOpeningTheList) {
    root.write_file(kConfigPath, "<configuration");
    discover();

    EXPECT_TRUE(log_contains("Error in Parsing of XML Config File"));
    EXPECT_EQ(core.requests().size(), 2u);
    EXPECT_FALSE(factory.laterBoot);
    EXPECT_TRUE(factory.listWriter.is_open());
    EXPECT_TRUE(root.exists(kListPath));
}

TEST_F(DiscoveryDriverTest, ConnectionErrorsPropagate) {
    core.throw_on_request(3);
    EXPECT_THROW(factory.startDiscovery(&core), std::runtime_error);
    EXPECT_EQ(core.requests().size(), 3u);
}

TEST_F(DiscoveryDriverTest, SilentRegistryGivesUpAfterEightyLookups) {
    core.add_sensor_type("registry", {kRegistry}, 1000);
    discover();

    std::vector<fake_request> requests = core.requests();
    EXPECT_EQ(lookups_of(requests, 512), std::vector<std::string>(80, "registry"));
    EXPECT_EQ(lookups_of(requests, 10), std::vector<std::string>{"registry"});
    ASSERT_EQ(requests.size(), 81u);
    EXPECT_EQ(requests.back().msg_id(), 10u);
    EXPECT_TRUE(log_contains("registry discovery countdown: 1"));
    EXPECT_TRUE(log_contains("of serviceup(no of repeats:'80')"));
    EXPECT_TRUE(log_contains("registry sensor not ready, not trying to get sensors list"));
    EXPECT_FALSE(root.exists(kListPath));
    EXPECT_FALSE(log_contains("Starting Parsing of XML Config File"));
}

TEST_F(DiscoveryDriverTest, FirstBootWritesAnsweredNamesInAnswerOrder) {
    answer_with_attributes("heart_rate", kHeartRate);
    answer_with_attributes("health", kHealth, milliseconds(200));

    discover();

    EXPECT_TRUE(log_contains("first boot after flash"));
    EXPECT_TRUE(log_contains("waiting for suids for 7s ..."));
    EXPECT_FALSE(log_contains("re-discover"));
    EXPECT_EQ(root.read_file(kListPath), "heart_rate\nhealth\n");
    EXPECT_EQ(factory.attributesMap.size(), 2u);
    EXPECT_EQ(num_mandatory_sns, 2u);
}

TEST_F(DiscoveryDriverTest, FirstBootWithoutAnswersRediscoversEightTimes) {
    discover();

    std::vector<fake_request> requests = core.requests();
    // The initial round plus eight passes re-sending all four names.
    EXPECT_EQ(lookups_of(requests, 512).size(), 1u + 4u * 9u);
    EXPECT_EQ(lookups_of(requests, 10).size(), 2u);
    EXPECT_TRUE(log_contains("first boot generated 0 sensors so re-discover"));
    EXPECT_EQ(log_lines_containing("ORN not ready yet wait count").size(), 8u);
    EXPECT_TRUE(log_contains("ORN not ready yet wait count 1"));
    EXPECT_TRUE(log_contains("sensors list is 0 after first boot "));
    for (const fake_request& request : requests) EXPECT_TRUE(request.to_lookup_service());
    EXPECT_FALSE(factory.listWriter.is_open());
    EXPECT_TRUE(root.exists(kListPath));
    EXPECT_EQ(root.read_file(kListPath), "");
}

TEST_F(DiscoveryDriverTest, LaterBootUnlistedAnswerKeepsTheWaitGoing) {
    root.write_file(kListPath, "health\nhealth_async_announce\nheart_rate\n");
    answer_with_attributes("health", kHealth);
    answer_with_attributes("spo2", kSpo2, milliseconds(100));
    core.add_sensor_type("health_async_announce", {{0x500, 0x5}}, 1, milliseconds(200));
    answer_with_attributes("heart_rate", kHeartRate, milliseconds(300));

    discover();

    EXPECT_EQ(mandatorySensors.size(), 4u);
    EXPECT_EQ(num_mandatory_sns, 3u);
    EXPECT_FALSE(allMandatoryFound.load());
    EXPECT_EQ(log_lines_containing("some mandatory sensors not available yet").size(), 8u);
    EXPECT_TRUE(log_contains("some mandatory sensors not available even after 8 seconds, giving up."));
    EXPECT_TRUE(log_contains("1 missing sensor(s)"));
    EXPECT_TRUE(log_lines_containing(",     ").empty());
    EXPECT_EQ(root.read_file(kListPath), "health\nhealth_async_announce\nheart_rate\nspo2\n");
    EXPECT_EQ(factory.attributesMap.size(), 3u);
}

TEST_F(DiscoveryDriverTest, LaterBootWithEmptyListReportsNewNamesMissing) {
    root.write_file(kListPath, "");
    answer_with_attributes("health", kHealth);

    discover();

    EXPECT_TRUE(mandatoryFound.empty());
    EXPECT_EQ(log_lines_containing("some mandatory sensors not available yet").size(), 8u);
    EXPECT_TRUE(log_contains("1 missing sensor(s)"));
    // Every pass re-sends the three names that never answered.
    EXPECT_EQ(log_lines_containing("re-sending request for").size(), 8u * 3u);
    EXPECT_EQ(root.read_file(kListPath), "health\n");
    EXPECT_EQ(factory.attributesMap.count(kHealth), 1u);
}

}  // namespace
