// The simulator against the library's connection in this process. Its
// attribute set and silent types show end to end in the kivhal-info tests.
#include <gmock/gmock.h>
#include <signal.h>

#include <atomic>
#include <memory>

#include "connection_test_fixture.h"
#include "sensorstore_image.h"
#include "sns_suid.pb.h"
#include "tool_process.h"

namespace kivhal {
namespace test {
namespace {

using std::chrono::milliseconds;

const std::string kSim = tool("kivhal-coresim");
const sensor_uid kLookupSuid = core_stub::lookup_suid();

std::string request(sensor_uid suid, uint32_t msg_id, const std::string& payload) {
    sns_client_request_msg envelope;
    envelope.mutable_suid()->set_uidlow(suid.low);
    envelope.mutable_suid()->set_uidhigh(suid.high);
    envelope.set_msg_id(msg_id);
    envelope.mutable_request()->set_payload(payload);
    return envelope.SerializeAsString();
}

sns_client_event_msg decode(const event_recorder::event& event) {
    sns_client_event_msg msg;
    msg.ParseFromString(event.payload);
    return msg;
}

class CoreSimTest : public ::testing::Test {
protected:
    void SetUp() override {
        kiv_log::set_level(kiv_log::DEBUG);
        for (const char* file : {"/sys/power/wake_lock", "/sys/power/wake_unlock"}) root.write_file(file, "");
    }
    void start(std::vector<std::string> extra) {
        extra.insert(extra.begin(), {"--root", root.path(), "--config", kExampleConfig, "--verbose",
                                     "--report-ms", "50"});
        sim = std::make_unique<tool_process>(kSim, extra);
        ASSERT_TRUE(sim->wait_for_output("serving"));
        conn.reset(tav_interface::create(TAV_DUCTO_CONNECTION, tav_conn_config{"sensors"}));
        ASSERT_EQ(0, register_sensor(kLookupSuid, lookups));
    }
    int register_sensor(sensor_uid suid, event_recorder& recorder) {
        return conn->register_cb(suid, [this](uint32_t, uint64_t) { ++responses; }, nullptr, recorder.callback());
    }
    void lookup(const std::string& type) {
        sns_suid_req lookup;
        lookup.set_datatypename(type);
        conn->send_request(kLookupSuid, true, request(kLookupSuid, 512, lookup.SerializeAsString()), 0);
    }
    sns_suid_event lookup_answer(size_t index) {
        sns_suid_event answer;
        answer.ParseFromString(decode(lookups.events().at(index)).eventlist(0).payload());
        return answer;
    }
    void TearDown() override {
        conn.reset();
        host::clear_properties();
        if (sim) {
            EXPECT_EQ(0, sim->stop(SIGTERM).exit_code);
        }
    }

    scoped_root root;
    std::unique_ptr<tool_process> sim;
    std::unique_ptr<tav_interface> conn;
    event_recorder lookups;
    std::atomic<int> responses{0};
};

TEST(CoreSimArgumentsTest, HelpAndBadArgumentsExitWithOneLine) {
    scoped_root root;
    expect_usage_errors(kSim, "Usage: kivhal-coresim",
                        {{"--root", root.path(), "--config", kExampleConfig, "--delay-ms", "soon"},
                         {"--root", root.path(), "--config", kExampleConfig, "--low-power", "100:maybe"},
                         {"--root", root.host_path("/missing"), "--config", kExampleConfig},
                         {"--root", root.path(), "--config", "/missing.xml"}});
}

TEST(CoreSimArgumentsTest, DefaultConfigurationAndASecondSimulatorOnTheSameRoot) {
    scoped_root root;
    // Without --config it reads the copy beside the program, whatever the
    // working directory.
    tool_process first(kSim, {"--root", root.path()});
    ASSERT_TRUE(first.wait_for_output("serving")) << first.out();
    EXPECT_THAT(first.out(), HasSubstr("with 14 sensors from " + tool("oem_config.xml")));

    const tool_result second = run_program(kSim, {"--root", root.path()});
    EXPECT_EQ(2, second.exit_code);
    EXPECT_EQ("kivhal-coresim: " + root.host_path("/dev/ductopkt_vorla_sensors") +
                  " is served by a running kivhal-coresim already; stop it first or pass another --root or --channel\n",
              second.err);
    // The first one still owns the socket and serves the library.
    EXPECT_NO_THROW(std::unique_ptr<tav_interface>(tav_interface::create(TAV_DUCTO_CONNECTION, {"sensors"})));
    EXPECT_EQ(0, first.stop(SIGTERM).exit_code);

    // A socket left by a simulator that died is taken over.
    tool_process killed(kSim, {"--root", root.path()});
    ASSERT_TRUE(killed.wait_for_output("serving"));
    killed.stop(SIGKILL);
    tool_process next(kSim, {"--root", root.path()});
    EXPECT_TRUE(next.wait_for_output("serving")) << next.stop(SIGTERM).err;
}

TEST_F(CoreSimTest, AnswersLateWithoutARegistryAndStreamsAfterARequestUntilDisabled) {
    ASSERT_NO_FATAL_FAILURE(start({"--no-registry", "--delay-ms", "300"}));
    const auto sent = std::chrono::steady_clock::now();
    lookup("registry");
    lookup("heart_rate");
    ASSERT_TRUE(lookups.wait_for(1, milliseconds(5000)));
    EXPECT_GE(std::chrono::steady_clock::now() - sent, milliseconds(300));
    // Answers come in request order: the first is heart_rate's, so the registry stayed silent.
    const sns_suid_event found = lookup_answer(0);
    EXPECT_EQ("heart_rate", found.datatypename());
    ASSERT_EQ(1, found.suids_size());
    const sensor_uid hr{found.suids(0).uidlow(), found.suids(0).uidhigh()};
    event_recorder reports;
    ASSERT_EQ(0, register_sensor(hr, reports));
    conn->send_request(hr, true, request(hr, 1, ""), 0);
    ASSERT_TRUE(reports.wait_for(3, milliseconds(5000)));
    EXPECT_EQ(hr.low, decode(reports.events()[2]).suid().uidlow());  // a report, after the attributes

    // Once the disable is answered nothing more streams: a lookup answered
    // 300 ms later finds no new report.
    conn->send_request(hr, true, request(hr, 10, ""), 0);
    ASSERT_TRUE(eventually([&] { return responses == 4; }));  // one per request, the silent registry's too
    const size_t after_disable = reports.events().size();
    lookup("spo2");
    ASSERT_TRUE(lookups.wait_for(2, milliseconds(5000)));
    EXPECT_EQ(after_disable, reports.events().size());
    EXPECT_THAT(sim->out(), HasSubstr("disable heart_rate"));
}

TEST_F(CoreSimTest, LowPowerScheduleAndWriteInfoFromItsImage) {
    host::set_property("persist.vendor.kiv.ds", "true");
    host::set_property("persist.vendor.kiv.ds_oda", "true");
    ASSERT_NO_FATAL_FAILURE(start({"--low-power", "100:off,300:on", "--write-info", "500"}));
    lookup("health");  // puts session 0 in the library's session table
    // Indications keep their order: the write-info's pass ends after both states.
    ASSERT_TRUE(eventually([] { return log_contains("TAV_SENSORSTORE eMMC data parsing successfull"); })) << sim->out();
    EXPECT_TRUE(log_contains("SNS_LOW_PWR_STATE_MSG lps_msg_id(0), lps_session_id(0)", ANDROID_LOG_DEBUG));
    EXPECT_THAT(dump_of(*conn), HasSubstr("aggregate on\n    session 0: on\n"));
    EXPECT_EQ(1u, read_sensorstore_header(root).reset_data_len);
    // The image it wrote is one the inspector reads cleanly.
    const tool_result dump = run_program(tool("kivhal-sensorstore"), {"dump", root.host_path(kSensorStorePartition)});
    EXPECT_THAT(dump.out, HasSubstr("walk: 7 records, ends exactly"));
}

}  // namespace
}  // namespace test
}  // namespace kivhal
