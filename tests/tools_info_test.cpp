#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <regex>

#include "core_stub.h"
#include "event_recorder.h"
#include "sns_suid.pb.h"
#include "tav_interface.h"
#include "test_support.h"
#include "tool_process.h"

namespace kivhal {
namespace test {
namespace {

using std::chrono::milliseconds;
using ::testing::HasSubstr;
using ::testing::Not;

const std::string kInfo = tool("kivhal-info");
constexpr char kListPath[] = "/mnt/vendor/persist/sensors/kiv_sensors_list.txt";
// What a first boot against the example writes, less the type that stays silent
// later: a name answered but not listed would make a later boot wait its full 8 s.
constexpr char kExampleListWithoutSpo2[] =
    "health\nhealth_async_announce\nstep_counter\ncalorie_burn\nspeed\nfloor_counter\nactivity_"
    "recognition\n"
    "heart_rate\nskin_temperature\nstress_detect\nsleep_state\nexercise_detect\n";

// kivhal-info against the simulator, both as built.
class InfoTest : public ::testing::Test {
  protected:
    void start_sim(std::vector<std::string> extra = {}, const std::string& config = kExampleConfig) {
        extra.insert(extra.begin(), {"--root", root.path(), "--config", config});
        sim = std::make_unique<tool_process>(tool("kivhal-coresim"), extra);
        ASSERT_TRUE(sim->wait_for_output("serving"));
    }
    tool_result info(std::vector<std::string> extra, const std::string& config = kExampleConfig) {
        extra.insert(extra.begin(), {"--root", root.path(), "--config", config});
        return run_program(kInfo, extra);
    }
    void TearDown() override {
        if (sim) {
            EXPECT_EQ(0, sim->stop(SIGTERM).exit_code);  // sanitizers report through it
        }
    }
    scoped_root root;
    std::unique_ptr<tool_process> sim;
};

TEST_F(InfoTest, BadArgumentsAndRuntimeErrorsSayWhatHappenedAndWhatToDo) {
    expect_usage_errors(kInfo, "Usage: kivhal-info",
                        {{"--root", root.path(), "--log-level", "loud"},
                         {"--root", root.path(), "--wat"},
                         {"--root", root.path(), "--config", "/missing.xml"}});
    // No simulator: the node really tried, the system's text, the usual fix;
    // the library's own error lines come before it.
    const tool_result no_core = info({"--channel", "nobody_listens"});
    EXPECT_EQ(2, no_core.exit_code);
    EXPECT_EQ("kivhal-info: cannot open channel \"nobody_listens\" at " +
                  root.host_path("/dev/ductopkt_vorla_nobody_listens") +
                  ": No such file or directory; is kivhal-coresim serving this root?",
              last_line(no_core.err));

    // A configuration the parser rejects stops the run before it connects:
    // no simulator runs, yet the only line is about the file.
    root.write_file("/bad.xml", "<configuration type=\"x\">\n  <datatypes>\n  <datatype\n");
    const std::string bad = root.host_path("/bad.xml");
    const tool_result rejected = info({}, bad);
    EXPECT_EQ(2, rejected.exit_code);
    EXPECT_EQ(
        "kivhal-info: configuration " + bad +
            " rejected (line 3: not well-formed XML "
            "(XML_ERROR_PARSING_ELEMENT): the parser rejects the whole file); run kivhal-lint " +
            bad + " for every problem\n",
        rejected.err);
    // One the parser would hang on is refused the same way.
    root.write_file("/hang.xml",
                    "<configuration type=\"x\"><datatypes>\n"
                    "<datatype type=\"a\" data_type_value=\"0x1\"/></datatypes></configuration>\n");
    const tool_result hang = info({}, root.host_path("/hang.xml"));
    EXPECT_EQ(2, hang.exit_code);
    EXPECT_THAT(hang.err, HasSubstr("rejected (line 2: <datatype> without \"sensor_type\""));
}

TEST_F(InfoTest, FirstBootReportsSensorsAttributesAndEveryQuery) {
    ASSERT_NO_FATAL_FAILURE(start_sim());
    const tool_result result = info({"--json", "--first-boot"});
    ASSERT_EQ(0, result.exit_code) << result.err;
    for (const char* text :
         {"\"boot\": \"first\"",
          "{\"name\": \"heart_rate\", \"available\": true, \"status\": true, \"data_types\": "
          "[4096, 4104]",
          "\"vendor\": \"kivhal-coresim\", \"type\": \"heart_rate\", \"stream_type\": "
          "\"streaming\", "
          "\"ranges\": [[0, ",
          "\"rates\": [1, 5, 25]",
          // Goals decoded by their data type's output format.
          "\"name\": \"STEPS\", \"comparison\": \"GREATER_THAN_OR_EQUAL\", \"threshold\": 10000}",
          "\"name\": \"SKIN_TEMPERATURE\", \"comparison\": \"LESS_THAN_OR_EQUAL\", \"threshold\": "
          "38.5}",
          "\"threshold\": {\"bytes\": \"44454550\", \"text\": \"DEEP\"}",
          "\"auto_stop\": [{\"exercise\": 1, \"name\": \"WALKING\"}, "}) {
        EXPECT_THAT(result.out, HasSubstr(text));
    }
    // Progress says what discovery waits for; the list is written for next time.
    EXPECT_THAT(result.err, HasSubstr("s  waiting 7 s for SUID answers"));
    EXPECT_THAT(root.read_file(kListPath), HasSubstr("heart_rate\n"));
}

// Names are bytes; JSON is text: what is not UTF-8 is escaped byte by byte.
TEST_F(InfoTest, JsonEscapesNamesThatAreNotUtf8) {
    root.write_file(
        "/odd.xml",
        "<configuration type=\"KIV_oem_datatype\"><datatypes><datatype "
        "sensor_type=\"hr\xff\xc3\xa9\" type=\"heart_rate\" data_type_value=\"0x1000\"/>"
        "</datatypes></configuration>\n");
    const std::string config = root.host_path("/odd.xml");
    ASSERT_NO_FATAL_FAILURE(start_sim({}, config));
    const tool_result result = info({"--json", "--first-boot", "--quiet"}, config);
    ASSERT_EQ(0, result.exit_code) << result.err;
    EXPECT_THAT(result.out, HasSubstr("{\"name\": \"hr\\u00ff\xc3\xa9\", \"available\": true"));
    EXPECT_EQ(std::string::npos, result.out.find('\xff'));
}

TEST_F(InfoTest, LaterBootTableAndDumpWithASilentSensorType) {
    root.write_file(kListPath, kExampleListWithoutSpo2);
    // Session 0 leaves its low-power state soon after each connection.
    ASSERT_NO_FATAL_FAILURE(start_sim({"--silent", "spo2", "--low-power", "100:off"}));
    const tool_result table = info({"--log-level", "info", "--quiet"});
    ASSERT_EQ(0, table.exit_code) << table.err;
    EXPECT_THAT(table.out, HasSubstr("Sensor core on channel \"sensors\": later boot"));
    EXPECT_THAT(table.out, HasSubstr("  spo2                   (not found)"));
    EXPECT_THAT(table.out,
                HasSubstr("  0x1000     HEART_RATE          LESS_THAN_OR_EQUAL     180"));
    // The library's own lines at the chosen level; no progress lines.
    EXPECT_THAT(table.err, HasSubstr("I/KIVHAL-Sensors: init_mandatory_list_db:"));
    EXPECT_THAT(table.err, Not(HasSubstr("D/KIVHAL-Sensors")));
    EXPECT_THAT(table.err, Not(HasSubstr("kivhal-info: ")));

    const tool_result result =
        info({"--dump", "--quiet", "--property", "persist.vendor.kiv.ds=true"});
    ASSERT_EQ(0, result.exit_code) << result.err;
    const std::string& out = result.out;
    const size_t factory = out.find("\nSensor factory (kiv_sensor_factory)\n");
    EXPECT_NE(std::string::npos, factory) << out;
    EXPECT_EQ(0u, out.find("Connection (tav_ducto 0x")) << out;
    for (const char* text :
         {// Discovery disabled every lookup: nothing stays registered.
          "  registered sensors: 0 (client request ids 0 in use, 255 free)\n",
          "  low-power sessions: 1, aggregate off\n    session 0: off\n",
          "  boot: later (persisted sensor list read)\n", "  registry: up\n",
          "  mandatory sensors: 12 listed, 12 found this boot, all found: yes\n",
          "  sensor types: 13, 12 found\n", "    spo2: not found\n",
          "  attributes: 12 sensors answered, 0 pending\n",
          // The example: 13 data types, 11 of them with 12 goals, 5 exercises.
          "  catalogue: 13 data types (11 with goals, 12 goals), 5 exercises\n"}) {
        EXPECT_THAT(out, HasSubstr(text));
    }
    // At least the SUID wait; more on a loaded machine.
    EXPECT_TRUE(std::regex_search(
        out, std::regex("\n  discovery: took [1-9][0-9]*\\.[0-9]+ s, SUID wait 1000 ms\n")))
        << out;
    EXPECT_TRUE(std::regex_search(
        out, std::regex("\n    heart_rate: [0-9a-f]{16}:[0-9a-f]{16}, attributes received\n")))
        << out;
    EXPECT_THAT(out, Not(HasSubstr("Supported metrics"))) << "the dump replaces the report";
}

// Each failure names what failed, at once and before discovery writes
// anything; the simulator serves throughout.
TEST_F(InfoTest, EachFailureNamesWhatFailedBeforeDiscoveryWritesAnything) {
    ASSERT_NO_FATAL_FAILURE(start_sim());
    const std::string pipe = root.host_path("/pipe.xml");
    ASSERT_EQ(0, mkfifo(pipe.c_str(), 0600));
    const std::string partition = "/dev/block/bootdevice/by-name/sensorstore";
    const std::string held = root.host_path("/dev/ductopkt_vorla_held");
    root.write_file("/dev/ductopkt_vorla_held", "");
    tool_process holder("/bin/sh", {"-c", "exec 3<" + held + "; echo open; exec sleep 60"});
    ASSERT_TRUE(holder.wait_for_output("open"));
    const std::vector<std::string> oda = {"--config", kExampleConfig, "--property",
                                          "persist.vendor.kiv.ds_oda=true"};
    auto with = [](std::vector<std::string> a, const std::vector<std::string>& b) {
        a.insert(a.end(), b.begin(), b.end());
        return a;
    };
    const struct {
        std::function<void()> prepare;
        std::vector<std::string> args;
        std::string error;
    } cases[] = {
        {nullptr,
         {},
         "cannot read " + root.host_path("/vendor/etc/sensors/oem_config.xml") +
             ": No such file or directory; pass --config FILE"},
        {nullptr, {"--config", pipe}, "cannot read " + pipe + ": a pipe, not a regular file"},
        {nullptr,
         {"--config", "/dev/zero"},
         "cannot read /dev/zero: a character device, not a regular file"},
        {nullptr, oda,
         "cannot use the sensor store partition " + root.host_path(partition) +
             ": No such file or directory"},
        {[&] { root.write_file(partition + "/x", ""); }, oda,
         "sensor store partition " + root.host_path(partition) + ": Is a directory"},
        {[&] {
             std::filesystem::remove_all(root.host_path(partition));
             root.write_file(partition, "abc");
         },
         oda,
         "partition " + root.host_path(partition) + ": 3 bytes, shorter than its 8-byte header"},
        {nullptr,
         {"--config", kExampleConfig, "--channel", "sensor"},
         "No such file or directory; channels under " + root.host_path("/dev") +
             ": \"held\", \"sensors\""},
        {nullptr, {"--config", kExampleConfig, "--channel", "held"}, "_held is open in pid "},
    };
    for (const auto& c : cases) {
        if (c.prepare) c.prepare();
        const tool_result result =
            run_program(kInfo, with({"--root", root.path()}, c.args), std::chrono::seconds(5));
        EXPECT_EQ(2, result.exit_code) << c.error;
        EXPECT_THAT(last_line(result.err), HasSubstr(c.error));  // after the library's own lines
        EXPECT_FALSE(root.exists(kListPath)) << c.error;
    }
    // Forced, it takes the held channel and waits for a registry until killed.
    const tool_result forced = run_program(
        kInfo, {"--root", root.path(), "--config", kExampleConfig, "--channel", "held", "--force"},
        std::chrono::milliseconds(1500));
    EXPECT_EQ(-1, forced.exit_code) << forced.err;
    EXPECT_THAT(forced.err, Not(HasSubstr("is open in")));
    holder.stop(SIGTERM);
}

TEST_F(InfoTest, SimulatorRestartEndsTheServiceAsOnTheDevice) {
    // Two seconds: discovery is then in its fixed wait, not parsing.
    ASSERT_NO_FATAL_FAILURE(start_sim({"--restart-after", "2"}));
    // The hang-up ends the process from the library's reader thread, in the
    // middle of discovery; at the default level one line says so (after the
    // library's own error line, if that was printed before the end).
    const tool_result result = info({"--first-boot", "--quiet"});
    EXPECT_EQ(1, result.exit_code);
    EXPECT_EQ(
        "kivhal-info: the sensor core hung up the channel (it restarted or stopped); the library "
        "ends the process then, as it would end the HAL service",
        last_line(result.err));
    EXPECT_TRUE(sim->wait_for_output("restart: closing the channel", milliseconds(1000)));
}

// Answers still delayed when a client goes never reach the client after it:
// its own answer comes last, after anything else due before it.
TEST_F(InfoTest, AnswersPendingForAClientThatLeftNeverReachTheNextOne) {
    ASSERT_NO_FATAL_FAILURE(start_sim({"--delay-ms", "300"}));
    sns_suid_req lookup;
    lookup.set_datatypename("registry");
    sns_client_request_msg request;
    request.mutable_suid()->set_uidlow(core_stub::kLookupSuidHalf);
    request.mutable_suid()->set_uidhigh(core_stub::kLookupSuidHalf);
    request.set_msg_id(core_stub::kLookupRequestMsgId);
    request.mutable_request()->set_payload(lookup.SerializeAsString());
    const std::string payload = request.SerializeAsString();
    for (const int requests : {50, 1}) {
        event_recorder recorder;
        std::unique_ptr<tav_interface> conn(
            tav_interface::create(TAV_DUCTO_CONNECTION, {"sensors"}));
        ASSERT_EQ(0, conn->register_cb(core_stub::lookup_suid(), recorder.response_callback(),
                                       nullptr, recorder.callback()));
        for (int i = 0; i < requests; ++i)
            conn->send_request(core_stub::lookup_suid(), true, payload, 0);
        if (requests > 1) continue;  // gone at once, its answers still due
        ASSERT_TRUE(recorder.wait_for(1));
        EXPECT_EQ(1u, recorder.events().size());
    }
}

// The simulator's command line and its hold on the channel's socket.
TEST(CoreSimArgumentsTest, BadArgumentsADefaultConfigurationAndASecondSimulatorOnTheSameRoot) {
    scoped_root root;
    expect_usage_errors(
        tool("kivhal-coresim"), "Usage: kivhal-coresim",
        {{"--root", root.path(), "--config", kExampleConfig, "--delay-ms", "soon"},
         {"--root", root.path(), "--config", kExampleConfig, "--low-power", "100:maybe"},
         {"--root", root.host_path("/missing"), "--config", kExampleConfig},
         {"--root", root.path(), "--config", "/missing.xml"}});
    // Without --config it reads the copy beside the program, whatever the working directory.
    tool_process first(tool("kivhal-coresim"), {"--root", root.path()});
    ASSERT_TRUE(first.wait_for_output("serving")) << first.out();
    EXPECT_THAT(first.out(),
                ::testing::HasSubstr("with 14 sensors from " + tool("oem_config.xml")));
    const tool_result second = run_program(tool("kivhal-coresim"), {"--root", root.path()});
    EXPECT_EQ(2, second.exit_code);
    EXPECT_EQ("kivhal-coresim: " + root.host_path("/dev/ductopkt_vorla_sensors") +
                  " is served by a running kivhal-coresim already; stop it first or pass another "
                  "--root or --channel\n",
              second.err);
    EXPECT_EQ(0, first.stop(SIGTERM).exit_code);
    // A socket left by a simulator that died is taken over.
    tool_process killed(tool("kivhal-coresim"), {"--root", root.path()});
    ASSERT_TRUE(killed.wait_for_output("serving"));
    killed.stop(SIGKILL);
    tool_process next(tool("kivhal-coresim"), {"--root", root.path()});
    EXPECT_TRUE(next.wait_for_output("serving")) << next.stop(SIGTERM).err;
}

}  // namespace
}  // namespace test
}  // namespace kivhal
