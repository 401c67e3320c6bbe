#include <gtest/gtest.h>

#include <signal.h>
#include <stdlib.h>

#include <chrono>
#include <memory>
#include <string>

#include "test_support.h"
#include "tool_process.h"

namespace {

using kivhal::test::run_program;
using kivhal::test::tool_process;
using std::chrono::milliseconds;

const std::string kSim = std::string(KIVHAL_TOOLS_DIR) + "/kivhal-coresim";
const std::string kInfo = std::string(KIVHAL_TOOLS_DIR) + "/kivhal-info";
const std::string kExample = std::string(KIVHAL_SOURCE_DIR) + "/examples/oem_config.xml";
constexpr char kListPath[] = "/mnt/vendor/persist/sensors/kiv_sensors_list.txt";
constexpr milliseconds kDiscoveryBound{60000};

bool contains(const std::string& text, const std::string& needle) {
    return text.find(needle) != std::string::npos;
}

// kivhal-info against the simulator, both as built.
class InfoTest : public ::testing::Test {
protected:
    void start_sim(std::vector<std::string> extra = {}) {
        std::vector<std::string> args{"--root", root.path(), "--config", kExample};
        args.insert(args.end(), extra.begin(), extra.end());
        sim = std::make_unique<tool_process>(kSim, args);
        ASSERT_TRUE(sim->wait_for_output("serving", milliseconds(10000))) << sim->err();
    }
    kivhal::test::tool_result info(std::vector<std::string> extra) {
        std::vector<std::string> args{"--root", root.path(), "--config", kExample};
        args.insert(args.end(), extra.begin(), extra.end());
        return run_program(kInfo, args, kDiscoveryBound);
    }
    void TearDown() override {
        if (!sim) return;
        const auto stopped = sim->stop(SIGTERM, milliseconds(10000));
        EXPECT_EQ(stopped.exit_code, 0) << stopped.err;  // sanitizers report through it
    }

    kivhal::test::scoped_root root;
    std::unique_ptr<tool_process> sim;
};

TEST_F(InfoTest, HelpAndBadArgumentsExitWithOneLine) {
    auto help = run_program(kInfo, {"--help"});
    EXPECT_EQ(help.exit_code, 0);
    EXPECT_TRUE(contains(help.out, "Usage: kivhal-info"));

    const std::vector<std::vector<std::string>> bad = {
        {"--root", root.path(), "--log-level", "loud"},
        {"--root", root.path(), "--property", "=x"},
        {"--root", root.path(), "--wat"},
        {"--root", root.path(), "--config", root.host_path("/missing.xml")},
        {"--root", root.host_path("/missing")},
        {"--root", root.path(), "--channel", "nobody_listens"},  // no such node
    };
    for (const auto& args : bad) {
        auto result = run_program(kInfo, args, milliseconds(20000));
        EXPECT_EQ(result.exit_code, 2) << args.back() << "\n" << result.err;
        EXPECT_EQ(result.out, "");
        EXPECT_TRUE(contains(result.err, "kivhal-info: ")) << result.err;
    }
}

TEST_F(InfoTest, FirstBootReportsSensorsAttributesAndEveryQuery) {
    start_sim();
    auto result = info({"--json", "--first-boot"});
    ASSERT_EQ(result.exit_code, 0) << result.err;

    const std::string& json = result.out;
    EXPECT_TRUE(contains(json, "\"boot\": \"first\"")) << json;
    EXPECT_TRUE(contains(json, "\"found\": true"));
    EXPECT_TRUE(contains(json, "{\"name\": \"heart_rate\", \"available\": true, \"status\": true, "
                               "\"data_types\": [4096, 4104]"))
        << json;
    EXPECT_TRUE(contains(json, "\"vendor\": \"kivhal-coresim\", \"type\": \"heart_rate\", "
                               "\"stream_type\": \"streaming\", \"ranges\": [[0, "));
    EXPECT_TRUE(contains(json, "\"rates\": [1, 5, 25]"));
    // Goals decoded by their data type's output format.
    EXPECT_TRUE(contains(json, "{\"data_type\": 1, \"name\": \"STEPS\", \"comparison\": "
                               "\"GREATER_THAN_OR_EQUAL\", \"threshold\": 10000}"));
    EXPECT_TRUE(contains(json, "\"name\": \"SKIN_TEMPERATURE\", \"comparison\": "
                               "\"LESS_THAN_OR_EQUAL\", \"threshold\": 38.5}"));
    EXPECT_TRUE(contains(json, "\"threshold\": {\"bytes\": \"44454550\", \"text\": \"DEEP\"}"));
    EXPECT_TRUE(contains(json, "{\"exercise\": 2, \"name\": \"RUNNING\", \"data_types\": [1, 6, 4096]}"));
    EXPECT_TRUE(contains(json, "\"auto_stop\": [{\"exercise\": 1, \"name\": \"WALKING\"}, "
                               "{\"exercise\": 2, \"name\": \"RUNNING\"}, {\"exercise\": 3, "
                               "\"name\": \"CYCLING\"}, {\"exercise\": 5, \"name\": \"ROWING\"}]"));

    // Progress says what discovery waits for; the list is written for next time.
    EXPECT_TRUE(contains(result.err, "s  waiting 7 s for SUID answers")) << result.err;
    EXPECT_TRUE(contains(result.err, "discovery finished"));
    EXPECT_TRUE(contains(root.read_file(kListPath), "heart_rate\n"));
}

TEST_F(InfoTest, LaterBootTableWithASilentSensorType) {
    // What a first boot wrote, less the type that now stays silent: a name
    // answered but not listed would make the later boot wait its full 8 s.
    root.write_file(kListPath,
                    "health\nhealth_async_announce\nstep_counter\ncalorie_burn\nspeed\n"
                    "floor_counter\nactivity_recognition\nheart_rate\nskin_temperature\n"
                    "stress_detect\nsleep_state\nexercise_detect\n");
    start_sim({"--silent", "spo2"});
    auto result = info({"--log-level", "info", "--quiet"});
    ASSERT_EQ(result.exit_code, 0) << result.err;

    EXPECT_TRUE(contains(result.out, "Sensor core on channel \"sensors\": later boot")) << result.out;
    EXPECT_TRUE(contains(result.out, "  spo2                   (not found)"));
    EXPECT_TRUE(contains(result.out, "  0x1000     HEART_RATE          LESS_THAN_OR_EQUAL     180"));
    EXPECT_TRUE(contains(result.out, "Auto pause (3)"));
    // The library's own lines at the chosen level; no progress lines.
    EXPECT_TRUE(contains(result.err, "I/KIVHAL-Sensors: init_mandatory_list_db:")) << result.err;
    EXPECT_FALSE(contains(result.err, "D/KIVHAL-Sensors"));
    EXPECT_FALSE(contains(result.err, "kivhal-info: "));
}

TEST_F(InfoTest, ExitStatusSaysNothingWasFound) {
    // The registry answers, but a configuration without data types stops discovery.
    root.write_file("/cfg.xml", "<configuration type=\"x\"/>\n");
    start_sim();
    auto result = run_program(kInfo, {"--root", root.path(), "--config", root.host_path("/cfg.xml")},
                              kDiscoveryBound);
    EXPECT_EQ(result.exit_code, 1) << result.err;
    EXPECT_TRUE(contains(result.out, "(not found)") || contains(result.out, "0 looked up"));
    EXPECT_TRUE(contains(result.err, "discovery found nothing"));
}

TEST_F(InfoTest, SimulatorRestartEndsTheServiceAsOnTheDevice) {
    // Two seconds: discovery is then in its fixed wait, not parsing.
    start_sim({"--restart-after", "2"});
    const auto begin = std::chrono::steady_clock::now();
    auto result = info({"--first-boot"});
    // The hang-up ends the process from the library, long before discovery ends.
    EXPECT_EQ(result.exit_code, 1) << result.err;
    EXPECT_LT(std::chrono::steady_clock::now() - begin, milliseconds(6000));
    EXPECT_TRUE(sim->wait_for_output("restart: closing the channel", milliseconds(1000)));
}

}  // namespace
