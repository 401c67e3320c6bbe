#include <gtest/gtest.h>

#include <stdexcept>

#include "fake_tav_interface.h"
#include "kiv_log.h"
#include "kiv_sensor_factory.h"
#include "test_support.h"

// startDiscovery against the in-process fake core, which records every request.

namespace {

using kivhal::test::fake_request;
using kivhal::test::log_contains;
using kivhal::test::log_lines_containing;

constexpr const char* kListPath = "/mnt/vendor/persist/sensors/kiv_sensors_list.txt";
constexpr const char* kConfigPath = "/vendor/etc/sensors/oem_config.xml";
constexpr uint32_t kLookup = 512, kDisable = 10, kAttribute = 1;
const sensor_uid kHealth{0x200, 0x2}, kHeartRate{0x300, 0x3};

class DiscoveryDriverTest : public ::testing::Test {
protected:
    void SetUp() override {
        kiv_log::set_level(kiv_log::VERBOSE);
        kivhal::host::clear_captured_log();
        kivhal::test::reset_discovery_state();
        root.write_file(kConfigPath, R"(<configuration type="KIV_oem_datatype"><datatypes>
            <datatype sensor_type="heart_rate" type="heart_rate" data_type_value="0x1"/>
            </datatypes></configuration>)");
        root.write_file("/mnt/vendor/persist/sensors/.keep", "");
        core.add_sensor_type("registry", {{0x100, 0x1}});
    }

    void answer(const std::string& type, sensor_uid suid) {
        core.add_sensor_type(type, {suid});
        core.set_attributes(suid, sns_std_attr_event());
    }

    // Discovery, then the fake stops so nothing arrives while the test reads.
    void discover() {
        factory.startDiscovery(&core);
        core.stop();
    }

    size_t lookups_of(const std::string& name) {
        size_t n = 0;
        for (const fake_request& r : core.requests()) {
            n += r.msg_id() == kLookup && r.lookup.datatypename() == name;
        }
        return n;
    }

    kivhal::test::scoped_root root;
    kivhal::test::fake_tav_interface core;
    kiv_sensor_factory factory;
};

TEST_F(DiscoveryDriverTest, LaterBootSendsTheRequestsInOrder) {
    root.write_file(kListPath, "health\nheart_rate\n");
    answer("health", kHealth);
    answer("heart_rate", kHeartRate);
    discover();

    // Registry lookup and disable, the four names, disable, attributes, releases.
    const std::vector<fake_request> requests = core.requests();
    const std::vector<std::pair<uint32_t, std::string>> lookups = {
        {kLookup, "registry"},   {kDisable, "registry"}, {kLookup, "health"},
        {kLookup, "health_async_announce"}, {kLookup, "heart_rate"}, {kDisable, "registry"}};
    ASSERT_EQ(requests.size(), lookups.size() + 4);
    for (size_t i = 0; i < requests.size(); i++) {
        const fake_request& r = requests[i];
        const bool lookup = i < lookups.size();
        EXPECT_TRUE(r.flag && r.session_id == 0 && r.to_lookup_service() == lookup) << i;
        EXPECT_TRUE(r.envelope.suid().uidlow() == r.suid.low &&
                    r.envelope.suid().uidhigh() == r.suid.high) << i;
        EXPECT_TRUE(r.envelope.suspendconfig().has_processorkind() &&
                    r.envelope.suspendconfig().processorkind() == 0 &&
                    r.envelope.suspendconfig().deliverymode() == 1) << i;
        if (!lookup) {
            EXPECT_EQ(r.msg_id(), i < lookups.size() + 2 ? kAttribute : kDisable) << i;
            EXPECT_TRUE(r.attr.has_streamupdates() && !r.attr.streamupdates()) << i;
            continue;
        }
        EXPECT_EQ(r.msg_id(), lookups[i].first) << i;
        EXPECT_EQ(r.lookup.datatypename(), lookups[i].second) << i;
        EXPECT_TRUE(r.lookup.streamupdates() && r.lookup.has_lookupoption()) << i;
        EXPECT_EQ(r.lookup.lookupoption(), i >= 2 && i < 5) << i;
    }
    EXPECT_EQ(requests[6].suid, requests[8].suid);
    EXPECT_EQ(requests[7].suid, requests[9].suid);
    EXPECT_NE(requests[6].suid, requests[7].suid);

    EXPECT_TRUE(log_contains("(no of repeats:'0') "));
    EXPECT_TRUE(log_contains("waiting for suids for 1s ..."));
    EXPECT_FALSE(log_contains("some mandatory sensors not available yet"));
    EXPECT_TRUE(log_contains("attributes received"));
    EXPECT_EQ(factory.attributesMap.size(), 2u);
    EXPECT_FALSE(factory.listWriter.is_open());
    EXPECT_EQ(root.read_file(kListPath), "health\nheart_rate\n");
}

TEST_F(DiscoveryDriverTest, ParseFailureLeavesTheListOpen) {
    root.write_file(kConfigPath, "<configuration");
    discover();

    EXPECT_TRUE(log_contains("Error in Parsing of XML Config File"));
    EXPECT_EQ(core.requests().size(), 2u);
    EXPECT_TRUE(factory.listWriter.is_open());
    EXPECT_TRUE(root.exists(kListPath));
}

// The connection's write errors are not discovery's to handle.
TEST_F(DiscoveryDriverTest, ConnectionErrorsPropagate) {
    struct failing_core : kivhal::test::fake_tav_interface {
        int send_request(sensor_uid suid, bool flag, std::string payload, int session) override {
            if (requests().size() == 2) throw std::runtime_error("write failed");
            return fake_tav_interface::send_request(suid, flag, std::move(payload), session);
        }
    } failing;
    failing.add_sensor_type("registry", {{0x100, 0x1}});
    EXPECT_THROW(factory.startDiscovery(&failing), std::runtime_error);
    EXPECT_EQ(failing.requests().size(), 2u);
}

TEST_F(DiscoveryDriverTest, FirstBootWithoutAnswersRediscoversEightTimes) {
    discover();

    // The initial round plus eight passes re-sending all three names.
    for (const char* name : {"health", "health_async_announce", "heart_rate"}) {
        EXPECT_EQ(lookups_of(name), 9u) << name;
    }
    EXPECT_EQ(core.requests().size(), 2u + 27u + 1u);
    EXPECT_TRUE(log_contains("waiting for suids for 7s ..."));
    EXPECT_TRUE(log_contains("first boot generated 0 sensors so re-discover"));
    EXPECT_EQ(log_lines_containing("ORN not ready yet wait count").size(), 8u);
    EXPECT_TRUE(log_contains("ORN not ready yet wait count 1"));
    EXPECT_TRUE(log_contains("sensors list is 0 after first boot "));
    EXPECT_FALSE(factory.listWriter.is_open());
    EXPECT_EQ(root.read_file(kListPath), "");
}

// An unlisted answer grows the list but never counts, so the wait runs out.
TEST_F(DiscoveryDriverTest, LaterBootWithEmptyListWaitsInVain) {
    root.write_file(kListPath, "");
    answer("health", kHealth);
    discover();

    EXPECT_TRUE(mandatoryFound.empty());
    EXPECT_EQ(mandatorySensors, std::vector<std::string>{"health"});
    EXPECT_EQ(num_mandatory_sns, 0u);
    EXPECT_EQ(log_lines_containing("some mandatory sensors not available yet").size(), 8u);
    EXPECT_TRUE(log_contains("some mandatory sensors not available even after 8 seconds, giving up."));
    EXPECT_TRUE(log_contains("1 missing sensor(s)"));
    // Every pass re-sends the two names that never answered.
    EXPECT_EQ(log_lines_containing("re-sending request for").size(), 8u * 2u);
    EXPECT_EQ(root.read_file(kListPath), "health\n");
    EXPECT_EQ(factory.attributesMap.count(kHealth), 1u);
}

}  // namespace
