#include <gtest/gtest.h>

#include <signal.h>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "event_recorder.h"
#include "kiv_log.h"
#include "sensorstore_image.h"
#include "sns_client.pb.h"
#include "sns_std_attr.pb.h"
#include "sns_suid.pb.h"
#include "tav_interface.h"
#include "test_support.h"
#include "tool_process.h"

namespace {

using kivhal::test::event_recorder;
using kivhal::test::run_program;
using kivhal::test::tool_process;
using std::chrono::milliseconds;

const std::string kSim = std::string(KIVHAL_TOOLS_DIR) + "/kivhal-coresim";
const std::string kStoreTool = std::string(KIVHAL_TOOLS_DIR) + "/kivhal-sensorstore";
const std::string kExample = std::string(KIVHAL_SOURCE_DIR) + "/examples/oem_config.xml";
constexpr uint64_t kLookupHalf = 0xababababababababULL;
const sensor_uid kLookupSuid{kLookupHalf, kLookupHalf};
constexpr uint32_t kLookupRequest = 512, kAttributeRequest = 1, kDisableRequest = 10;
constexpr uint32_t kLookupEvent = 768, kAttributeEvent = 128;
constexpr int32_t kAttrName = 0, kAttrVendor = 1, kAttrRates = 3, kAttrRanges = 4, kAttrStream = 16;

std::string request(sensor_uid suid, uint32_t msg_id, const std::string& payload) {
    sns_client_request_msg envelope;
    envelope.mutable_suid()->set_uidlow(suid.low);
    envelope.mutable_suid()->set_uidhigh(suid.high);
    envelope.set_msg_id(msg_id);
    envelope.mutable_request()->set_payload(payload);
    return envelope.SerializeAsString();
}

std::string lookup_payload(const std::string& type) {
    sns_suid_req lookup;
    lookup.set_datatypename(type);
    return lookup.SerializeAsString();
}

sns_client_event_msg decode(const event_recorder::event& event) {
    sns_client_event_msg msg;
    msg.ParseFromString(event.payload);
    return msg;
}

sns_suid_event lookup_answer(const event_recorder::event& event) {
    sns_suid_event answer;
    answer.ParseFromString(decode(event).eventlist(0).payload());
    return answer;
}

// The library's connection, in this process, against the simulator binary.
class CoreSimTest : public ::testing::Test {
protected:
    void SetUp() override {
        kiv_log::set_level(kiv_log::DEBUG);
        kivhal::host::clear_captured_log();
        root.write_file("/sys/power/wake_lock", "");
        root.write_file("/sys/power/wake_unlock", "");
    }

    void start(std::vector<std::string> extra) {
        std::vector<std::string> args{"--root", root.path(), "--config", kExample, "--verbose",
                                      "--report-ms", "50"};
        args.insert(args.end(), extra.begin(), extra.end());
        sim = std::make_unique<tool_process>(kSim, args);
        ASSERT_TRUE(sim->wait_for_output("serving", milliseconds(10000))) << sim->err();
        conn.reset(tav_interface::create(TAV_DUCTO_CONNECTION, tav_conn_config{"sensors"}));
        ASSERT_EQ(conn->register_cb(kLookupSuid, count_responses(), nullptr, lookups.callback()), 0);
    }

    tav_resp_cb count_responses() {
        return [this](uint32_t, uint64_t) { ++responses; };
    }

    void lookup(const std::string& type) {
        conn->send_request(kLookupSuid, true, request(kLookupSuid, kLookupRequest, lookup_payload(type)), 0);
    }

    void TearDown() override {
        conn.reset();
        if (sim) {
            EXPECT_EQ(sim->stop(SIGTERM, milliseconds(10000)).exit_code, 0);
        }
    }

    kivhal::test::scoped_root root;
    std::unique_ptr<tool_process> sim;
    std::unique_ptr<tav_interface> conn;
    event_recorder lookups;
    std::atomic<int> responses{0};
};

TEST(CoreSimArgumentsTest, HelpAndBadArgumentsExitWithOneLine) {
    kivhal::test::scoped_root root;
    auto help = run_program(kSim, {"--help"});
    EXPECT_EQ(help.exit_code, 0);
    EXPECT_NE(help.out.find("Usage: kivhal-coresim"), std::string::npos);

    const std::vector<std::vector<std::string>> bad = {
        {"--root", root.path(), "--config", kExample, "--delay-ms", "soon"},
        {"--root", root.path(), "--config", kExample, "--low-power", "100:maybe"},
        {"--root", root.path(), "--config", kExample, "--frobnicate"},
        {"--root", root.host_path("/missing"), "--config", kExample},
        {"--root", root.path(), "--config", root.host_path("/missing.xml")},
    };
    for (const auto& args : bad) {
        auto result = run_program(kSim, args, milliseconds(10000));
        EXPECT_EQ(result.exit_code, 2) << args.back();
        EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << result.err;
    }
}

TEST_F(CoreSimTest, AnswersLookupsAndAttributesAndStreamsUntilDisabled) {
    start({});
    lookup("heart_rate");
    lookup("no_such_sensor");
    ASSERT_TRUE(lookups.wait_for(2, milliseconds(5000)));
    const sns_suid_event found = lookup_answer(lookups.events()[0]);
    EXPECT_EQ(decode(lookups.events()[0]).eventlist(0).msg_id(), kLookupEvent);
    EXPECT_EQ(found.datatypename(), "heart_rate");
    ASSERT_EQ(found.suids_size(), 1);
    EXPECT_EQ(lookup_answer(lookups.events()[1]).suids_size(), 0);
    const sensor_uid hr{found.suids(0).uidlow(), found.suids(0).uidhigh()};

    event_recorder reports;
    ASSERT_EQ(conn->register_cb(hr, count_responses(), nullptr, reports.callback()), 0);
    sns_std_attr_req attr_req;
    attr_req.set_streamupdates(false);
    conn->send_request(hr, true, request(hr, kAttributeRequest, attr_req.SerializeAsString()), 0);
    ASSERT_TRUE(reports.wait_for(3, milliseconds(5000)));

    const sns_client_event_msg first = decode(reports.events()[0]);
    ASSERT_EQ(first.eventlist(0).msg_id(), kAttributeEvent);
    sns_std_attr_event attrs;
    ASSERT_TRUE(attrs.ParseFromString(first.eventlist(0).payload()));
    std::map<int32_t, sns_std_attr_value> by_id;
    for (const auto& a : attrs.attributelist()) by_id[a.attributeid()] = a.value();
    EXPECT_EQ(by_id[kAttrName].elementlist(0).stringvalue(), "heart_rate");
    EXPECT_EQ(by_id[kAttrVendor].elementlist(0).stringvalue(), "kivhal-coresim");
    EXPECT_EQ(by_id[kAttrStream].elementlist(0).intvalue(), 0);
    ASSERT_EQ(by_id[kAttrRanges].elementlist(0).nestedvalue().elementlist_size(), 2);
    EXPECT_EQ(by_id[kAttrRates].elementlist_size(), 3);
    // Then reports, of the sensor itself.
    const sns_client_event_msg report = decode(reports.events()[2]);
    EXPECT_EQ(report.suid().uidlow(), hr.low);
    EXPECT_NE(report.eventlist(0).msg_id(), kAttributeEvent);

    conn->send_request(hr, true, request(hr, kDisableRequest, ""), 0);
    std::this_thread::sleep_for(milliseconds(300));
    const size_t after_disable = reports.events().size();
    std::this_thread::sleep_for(milliseconds(300));
    EXPECT_EQ(reports.events().size(), after_disable);
    EXPECT_EQ(responses.load(), 4);  // one per request
    EXPECT_NE(sim->out().find("lookup \"heart_rate\": "), std::string::npos);
    EXPECT_NE(sim->out().find("disable heart_rate"), std::string::npos);
}

TEST_F(CoreSimTest, SilentTypesSilentRegistryAndDelayedAnswers) {
    start({"--silent", "spo2", "--no-registry", "--delay-ms", "300"});
    const auto sent = std::chrono::steady_clock::now();
    lookup("registry");
    lookup("spo2");
    lookup("heart_rate");
    ASSERT_TRUE(lookups.wait_for(1, milliseconds(5000)));
    EXPECT_GE(std::chrono::steady_clock::now() - sent, milliseconds(300));
    std::this_thread::sleep_for(milliseconds(500));
    ASSERT_EQ(lookups.events().size(), 1u);
    EXPECT_EQ(lookup_answer(lookups.events()[0]).datatypename(), "heart_rate");
    EXPECT_EQ(responses.load(), 3);  // silent types still get their responses
}

TEST_F(CoreSimTest, LowPowerScheduleAndWriteInfoFromItsImage) {
    kivhal::host::set_property("persist.vendor.kiv.ds", "true");
    kivhal::host::set_property("persist.vendor.kiv.ds_oda", "true");
    start({"--low-power", "100:off,300:on", "--write-info", "500"});
    lookup("health");  // puts session 0 in the library's session table
    std::this_thread::sleep_for(milliseconds(1200));

    using kivhal::test::log_contains;
    EXPECT_TRUE(log_contains("SNS_LOW_PWR_STATE_MSG lps_msg_id(0), lps_session_id(0)")) << sim->out();
    EXPECT_TRUE(log_contains("SNS_LOW_PWR_STATE_MSG aggregate lps(0)"));
    EXPECT_TRUE(log_contains("SNS_LOW_PWR_STATE_MSG aggregate lps(1)"));
    EXPECT_TRUE(log_contains("TAV_SENSORSTORE eMMC data parsing successfull"));
    EXPECT_EQ(kivhal::test::read_sensorstore_header(root).reset_data_len, 1u);

    // The image it wrote is one the inspector reads cleanly.
    auto dump = run_program(kStoreTool, {"dump", root.host_path(kivhal::test::kSensorStorePartition)});
    EXPECT_EQ(dump.exit_code, 0) << dump.out;
    EXPECT_NE(dump.out.find("walk: 7 records, ends exactly"), std::string::npos) << dump.out;
    kivhal::host::clear_properties();
}

}  // namespace
