// Every log line names the operation whose work it reports, never a helper or
// a lambda. Each case runs one subsystem through its common and error paths
// and checks the function-name part of every captured line against the
// operation that writes that text; texts two operations share are pinned in
// order where the scenario writes them.
#include <gmock/gmock.h>
#include <unistd.h>

#include <regex>
#include <set>

#include "connection_test_fixture.h"
#include "fake_power_state_service.h"
#include "fake_tav_interface.h"
#include "kiv_feature_flags.h"
#include "kiv_sensor_factory.h"
#include "kivhal/platform.h"
#include "kivhal/power_state_service_registry.h"
#include "sensorstore_image.h"
#include "sns_wakelock.h"
#include "virtual_clock.h"

namespace kivhal {
namespace test {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

// Which operation writes which text (formats without the "%s:%d, " prefix).
struct writer {
    const char* operation;
    std::vector<const char*> formats;
};

const writer kWriters[] = {
    // Foundation.
    {"get_aon_prop", {"aon_prop: %s", "support_aon_presence: %s"}},
    {"is_ds_supported", {"ds: %s", "support_ds : %s"}},
    {"is_oda_supported", {"ds_oda: %s", "support_ds_oda : %s"}},
    {"check_kiv_trace_support_flag", {"trace_debug: %s", "support_trace_debug : %s"}},
    // Connection.
    {"tav_ducto", {"TAV_DUCTO_int conn = 0x%llx constructor"}},
    {"~tav_ducto", {"TAV_DUCTO_int conn = 0x%llx destructor"}},
    {"ducto_connect", {"TAV_DUCTO_int ducto_connect waiting for _s_ducto_read_mutex"}},
    {"ducto_open",
     {"TAV_DUCTO_int about to open ducto channel on dev node = %s",
      "TAV_DUCTO_int ducto open successful, fd = %d"}},
    {"ducto_read",
     {"TAV_DUCTO_int ducto_read fd = %d buf_len = %zu", "TAV_DUCTO_int partial read bytes = %d",
      "TAV_DUCTO_int pkt size to be read = %d", "TAV_DUCTO_int complete read bytes = %d"}},
    {"ducto_write",
     {"TAV_DUCTO_int conn = 0x%llx write fd = %d buf_len = %zu, waiting for _s_ducto_read_mutex",
      "acquiring wakelock", "releasing wakelock",
      "TAV_DUCTO_int conn = 0x%llx partial bytes written= %d",
      "TAV_DUCTO_int conn = 0x%llx complete bytes written= %d retries %d",
      "TAV_DUCTO_int conn = 0x%llx write has failed with errno = %d & g_ducto_err_cnt = %d"}},
    {"ducto_error_handler",
     {"TAV_DUCTO_int ducto_error_handler received error = %d",
      "TAV_DUCTO_int waitig for _s_ducto_read_mutex"}},
    {"ducto_thread_routine",
     {"TAV_DUCTO waiting on poll wakeup_pipe %d ducto_fd %d", "TAV_DUCTO_int received POLLIN event",
      "TAV_DUCTO_int msg_id %d", "TAV_DUCTO_int received SNS_AON_CLIENT_RESP_V01",
      "TAV_DUCTO_int received SNS_AON_CLIENT_REPORT_IND_V01",
      "TAV_DUCTO_int received SNS_AON_CLIENT_JUMBO_REPORT_IND_V01",
      "TAV_DUCTO_int SNS_AON_CLIENT_INFO_RESP_V01 is received",
      "TAV_DUCTO SNS_AON_CLIENT_LOW_PWR_STATE_IND_V01 is received", "TAV_DUCTO_int invalid msg id",
      "TAV_DUCTO_int report of %d bytes is too short, dropped",
      "TAV_DUCTO_int report payload len %u runs past the %d bytes read, dropped",
      "TAV_DUCTO explicitly requested thread close", "TAV_DUCTO thread exit"}},
    {"ducto_response_handler",
     {"TAV_DUCTO_int %s start", "TAV_DUCTO_int sending response to the client"}},
    {"ducto_indication_handler",
     {"TAV_DUCTO_int conn = 0x%llx received indication", "TAV_DUCTO_int msg_id %d ",
      "Registered callback is null", "acquiring wakelock", "releasing wakelock",
      "TAV_DUCTO_int triggered event callback, got value %d"}},
    {"update_suid", {"TAV_DUCTO_int Done parsing message"}},
    {"initialize_client_req_id_db", {"TAV_DUCTO conn = 0x%llx clinet reqid db initialized size %d"}},
    {"allocate_client_req_id",
     {"TAV_DUCTO conn = 0x%llx clinet allocate_client_req_id size %d",
      "TAV_DUCTO conn = 0x%llx allocated _client_req_id = %d"}},
    {"free_client_req_id",
     {"TAV_DUCTO conn = 0x%llx releasing _client_req_id = %d, waiting for _s_mutex"}},
    {"update_suid_map_table",
     {"TAV_DUCTO_int registered callback successfully deleted for clientreq_id %d"}},
    {"register_cb", {"TAV_DUCTO_int %s start ", "TAV_DUCTO_int This suid is alread registered "}},
    {"send_request",
     {"TAV_DUCTO clientid for suid.high %llx suid.low %llx  is not found in lookup table",
      "TAV_DUCTO_int conn = 0x%llx is sending request", "TAV_DUCTO added _session_id(%d) to _lps_db",
      "TAV_DUCTO _session_id(%d) is already present in _lps_db",
      "TAV_DUCTO_int conn = 0x%llx new session_id = %d client_req_id %d low.suid %llx msgid = %d ",
      "TAV_DUCTO_int conn = 0x%llx ducto_write has failed"}},
    // Discovery.
    {"~kiv_sensor_factory", {"kiv sensor factory destructor called"}},
    {"startDiscovery",
     {"Starting Parsing of XML Config File", "Parsing of XML Config File Successful"}},
    {"is_registry_up",
     {"starting is_registry_up @ t=%fs", "Remote SensorService UpTime from hal_service start = %fs",
      "registry discovery countdown: %d",
      "registry_sensor availability time '%fsec' from serviceup(no of repeats:'%d') "}},
    {"discover_sensors",
     {"discovery start t=%fs", "discovering available sensors...", "requesting %s",
      "before sleep, now=%f", "waiting for suids for %us ...", "after sleep, now=%f",
      "available sensors on tav", "%-20s%4u", "suid discovery time = %fs"}},
    {"request_suid", {"requesting suid for %s"}},
    {"registry_lookup_callback",
     {"suid_event for %s, num_suids=%d", "dropping event message of length %u"}},
    {"default_suids_lookup_callback",
     {"suid_event for %s, num_suids=%d", "invalid event msg_id=%d",
      "dropping event message of length %u"}},
    {"handle_suids_lookup_callback", {"received suid for dt=%s"}},
    {"retrieve_attributes",
     {"requesting attributes for %s-%d", "waiting for attributes...", "attributes request count %d",
      "attributes to be received %d", "requesting rel attributes for %s",
      "timeout while waiting for attributes, pending = %d, err = %d", "attributes received"}},
    {"default_attributes_lookup_callback",
     {"event[%d] msg_id=%d", "dropping attribute message of length %u"}},
    {"handle_attribute_event", {"pending attributes count %d"}},
    {"init_mandatory_list_db",
     {"first boot after flash", "it's a later boot", "duplicate entry for %s"}},
    {"update_mandatory_list_database",
     {"laterboot datatype %s write", "first boot datatype %s num_mandatory_sns %d"}},
    {"wait_for_mandatory_sensors",
     {"some mandatory sensors not available yet, will wait for %d seconds...",
      "non available ones %s", "re-sending request for %s",
      "some mandatory sensors not available even after %d seconds, giving up.",
      "%lu missing sensor(s)", "    %s"}},
    // Catalogue.
    {"parseOEMConfig",
     {"XML Config File Not Opened", "XML Config File Opened", "Parsing Datatypes", "Parsing Goals",
      "Parsing AutoExercise Elements", "configuration with datatypes but without type",
      "threshold without type", "threshold without comparison_type",
      "byte threshold without type_value", "exercisetype %s without sensor_type",
      "exerNum = %d, autoStart = %d, autoStop = %d, autoPause = %d",
      "Adding DataType %s to autoStartList", "Adding exercise %d in exerMap",
      "AutoExerciseMap Size = %d"}},
    {"listAvailableSensorTypes", {"%s"}},
    {"getSupportedMetricsTypes", {"List of all Metrics Types Supported", "%s : %d"}},
    {"getSupportedGoals",
     {"List of all Goals Supported",
      "Sensor = %s, DataType = %d, Threshold = %d, Comparison Type = %u",
      "Sensor = %s, DataType = %d, Threshold = %f, Comparison Type = %u",
      "Sensor = %s, DataType = %d, Comparison Type = %u", "byteArrayThreshold[%d] = %d"}},
    {"isGoalSupported", {"Goal not supported for datatype %u"}},
    {"getAutoStartList", {"List of Auto Start Exercise Types Supported", "Exercise Type : %d "}},
    {"getAutoStopList", {"List of Auto Stop Exercise Types Supported", "%s : %d"}},
    {"getAutoPauseList", {"List of Auto Pause Exercise Types Supported", "%s : %d"}},
    // Low-power state and sensor store.
    {"tav_handle_low_power_state_msg",
     {"SNS_LOW_PWR_STATE_MSG lps_msg_id(%d), lps_session_id(%d)",
      "SNS_LOW_PWR_STATE_MSG invalid lps_session_id", "SNS_LOW_PWR_STATE_MSG aggregate lps(%d)",
      "SNS_LOW_PWR_STATE_MSG received SNS_LOW_POWER_WRITE_INFO",
      "SNS_LOW_PWR_STATE_MSG invalid message id(%d)"}},
    {"tav_process_low_power_sensor_store_write_info",
     {"TAV_SENSORSTORE NO DATA in eMMC, total_byte_count=%d shmem_byte_count=%d",
      "TAV_SENSORSTORE open successful sns_str_fd(%d)",
      "TAV_SENSORSTORE mmap successful sns_str_map(0x%llx)",
      "TAV_SENSORSTORE emmc_byte_count(%d) emmc_trvsd_len(%d)", "TAV_SENSORSTORE channel_hash = %d",
      "TAV_SENSORSTORE parsing lps_pkt_channel_hash(%d) lps_pkt_len(%d)",
      "TAV_SENSORSTORE skipping lps_pkt_channel_hash(%d) lps_pkt_len(%d)",
      "TAV_SENSORSTORE UNEXPECTED_MSG_ID(%d)",
      "TAV_SENSORSTORE eMMC data parsing successfull, emmc_trvsd_len(%d)",
      "TAV_SENSORSTORE munmap successfull", "TAV_SENSORSTORE close successfull"}},
    {"tav_update_sensorstore_header_reset_field",
     {"TAV_SENSORSTORE ODA not supported", "TAV_SENSORSTORE open successful sns_str_fd(%d)",
      "TAV_SENSORSTORE sensorstore_hdr data_len(%d) reset_data_len(%d)",
      "TAV_SENSORSTORE close successfull"}},
    {"tav_sensorstore_write",
     {"TAV_SENSORSTORE write fd = %d buf_len = %zu", "TAV_SENSORSTORE partial bytes written= %d",
      "TAV_SENSORSTORE complete bytes written= %d"}},
    {"get_sns_low_power_state_handler",
     {"SNS_LOW_PWR_STATE_MSG get_sns_low_power_state_handler entry",
      "SNS_LOW_PWR_STATE_MSG creating new low_power_state"}},
    {"power_state_callback_impl", {"SNS_LOW_PWR_STATE_MSG: power_state_callback_impl entry"}},
    {"acquire_wakelock",
     {"SNS_LOW_PWR_STATE_MSG acquire_wakelock _s_is_wakeock_acquired(%d)",
      "SNS_LOW_PWR_STATE_MSG acquireLPMWakelock"}},
    {"release_wakelock",
     {"SNS_LOW_PWR_STATE_MSG release_wakelock _s_is_wakeock_acquired(%d)",
      "SNS_LOW_PWR_STATE_MSG releaseLPMWakelock"}},
    {"sns_wakelock", {"fatal error opening \"%s\": %s\n"}},
    {"acquire", {"sucess wakelock acquire:%s"}},
    {"release", {"sucess release %s wakelock", "Not able to open fd for wakeup:%s"}},
    {"put_n_locks", {"_in_count %d is larger than _accu_count %u"}},
};

// A format as a pattern over the text it produces. Its literal characters
// rank matches: where several formats fit a text, the most specific wins.
struct text_pattern {
    std::string operation;
    std::string literal_prefix;  // up to the first conversion, to skip most formats cheaply
    size_t literal_count;
    std::regex regex;
};

std::string regex_for_conversion(const std::string& conversion) {
    switch (conversion.back()) {
        case 'd':
            return " *-?[0-9]+";
        case 'u':
            return " *[0-9]+";
        case 'x':
            return "[0-9a-f]+";
        case 'f':
            return "-?(?:[0-9]+\\.[0-9]+|inf|nan)";
        case '%':
            return "%";
        default:  // s
            return "[\\s\\S]*";
    }
}

text_pattern compile(const std::string& operation, const std::string& format) {
    static const std::regex conversion("%[-0-9.]*(?:ll|l|z)?[dusxf%]");
    static const std::string special = "\\^$.|?*+()[]{}";
    std::string regex;
    std::string literal_prefix;
    size_t literal_count = 0;
    bool in_prefix = true;
    size_t at = 0;
    auto add_literal = [&](const std::string& text) {
        for (char c : text) {
            if (special.find(c) != std::string::npos) regex += '\\';
            regex += c;
        }
        if (in_prefix) literal_prefix += text;
        literal_count += text.size();
    };
    for (auto it = std::sregex_iterator(format.begin(), format.end(), conversion);
         it != std::sregex_iterator(); ++it) {
        add_literal(format.substr(at, it->position() - at));
        regex += regex_for_conversion(it->str());
        in_prefix = false;
        at = it->position() + it->length();
    }
    add_literal(format.substr(at));
    return {operation, literal_prefix, literal_count, std::regex(regex)};
}

const std::vector<text_pattern>& patterns() {
    static const std::vector<text_pattern> compiled = [] {
        std::vector<text_pattern> all;
        for (const writer& w : kWriters) {
            for (const char* format : w.formats) all.push_back(compile(w.operation, format));
        }
        return all;
    }();
    return compiled;
}

// The operations that write `text`: those of the most specific fitting
// formats, whose literal character count goes to `specificity`.
std::set<std::string> writers_of(const std::string& text, size_t* specificity) {
    std::set<std::string> operations;
    size_t best = 0;
    for (const text_pattern& p : patterns()) {
        if (text.compare(0, p.literal_prefix.size(), p.literal_prefix) != 0) continue;
        if (p.literal_count < best || !std::regex_match(text, p.regex)) continue;
        if (p.literal_count > best) operations.clear();
        best = p.literal_count;
        operations.insert(p.operation);
    }
    *specificity = best;
    return operations;
}

struct attributed_line {
    std::string function;
    std::string text;  // after the prefix
};

// "name:line, text", or nothing when the prefix is malformed.
bool split_prefix(const std::string& line, attributed_line* out) {
    const size_t colon = line.find(':');
    if (colon == std::string::npos || colon == 0) return false;
    size_t end = colon + 1;
    while (end < line.size() && isdigit(static_cast<unsigned char>(line[end]))) ++end;
    if (end == colon + 1 || line.compare(end, 2, ", ") != 0) return false;
    *out = {line.substr(0, colon), line.substr(end + 2)};
    return true;
}

// One entry per wrongly attributed, unprefixed or unlisted text.
std::set<std::string> misattributed_lines() {
    std::set<std::string> wrong;
    for (const host::log_line& line : host::captured_log()) {
        attributed_line parsed;
        if (!split_prefix(line.text, &parsed)) {
            wrong.insert("no prefix: " + line.text);
            continue;
        }
        size_t specificity = 0;
        const std::set<std::string> expected = writers_of(parsed.text, &specificity);
        // Only a bare "%s" fits: an unlisted text, unless its writer is the one.
        const bool unlisted = expected.empty() || (specificity == 0 && !expected.count(parsed.function));
        if (unlisted) {
            wrong.insert("no writer listed: " + line.text);
        } else if (expected.count(parsed.function) == 0) {
            std::string names;
            for (const std::string& name : expected) names += (names.empty() ? "" : " or ") + name;
            wrong.insert(line.text + "  <- written by " + parsed.function + ", expected " + names);
        }
    }
    return wrong;
}

// The function names of the lines containing `needle`, in order.
std::vector<std::string> functions_writing(const std::string& needle) {
    std::vector<std::string> functions;
    for (const host::log_line& line : log_lines_containing(needle)) {
        attributed_line parsed;
        functions.push_back(split_prefix(line.text, &parsed) ? parsed.function : line.text);
    }
    return functions;
}

void expect_seen(std::initializer_list<const char*> needles) {
    for (const char* needle : needles) EXPECT_TRUE(log_contains(needle)) << needle;
}

// --- The helper macros ----------------------------------------------------------

int g_helper_line = 0;

void helper_writing_for(kiv_log_op op) {
    g_helper_line = __LINE__ + 1;
    KIV_LOGI_FOR(op, "helper %d", 7);
}

void operation_with_a_helper() { helper_writing_for(KIV_LOG_OP); }

TEST(LogForTest, HelperLinesCarryTheOperationsNameTheirOwnLineAndTheLevelTest) {
    kiv_log::set_level(kiv_log::INFO);
    kiv_log::set_stderr_logging(true);
    host::clear_captured_log();
    testing::internal::CaptureStderr();
    operation_with_a_helper();
    kiv_log::set_level(kiv_log::ERROR);
    operation_with_a_helper();
    const std::string err = testing::internal::GetCapturedStderr();
    kiv_log::set_stderr_logging(false);
    kiv_log::set_level(kiv_log::INFO);

    const std::string text = "operation_with_a_helper:" + std::to_string(g_helper_line) + ", helper 7";
    const auto log = host::captured_log();
    ASSERT_EQ(1u, log.size());
    EXPECT_EQ(text, log[0].text);
    EXPECT_EQ(ANDROID_LOG_INFO, log[0].priority);
    EXPECT_EQ(text + "\n", err);
}

// --- Connection -------------------------------------------------------------------

class connection_attribution_test : public connection_test {
protected:
    void SetUp() override {
        connection_test::SetUp();
        kiv_log::set_level(kiv_log::VERBOSE);
    }
};

TEST_F(connection_attribution_test, ConnectRegisterReportsAndErrorsAreTheirOperationsLines) {
    host::set_property("ro.vendor.mr_aon_presence", "1");
    host::set_property("persist.vendor.debug.kiv.trace", "true");
    EXPECT_EQ(1u, get_aon_prop());
    core->set_auto_respond(true);
    connect();
    ASSERT_EQ(0, register_sensor(kAccel, accel));
    EXPECT_EQ(-1, register_sensor(kAccel, accel));
    send(kAccel, 513, 3);
    send(kAccel, 513, 3);
    ASSERT_TRUE(accel.wait_responses(2));

    const std::string event = core_stub::make_event(kAccel, 1025, "sample");
    ASSERT_TRUE(core->send_event(event));
    ASSERT_TRUE(core->send_packet(core_stub::make_report(event, true)));
    ASSERT_TRUE(accel.wait_for(2));
    // Malformed and unknown packets, then a report nobody registered for.
    ASSERT_TRUE(core->send_packet(core_stub::make_packet(0x21, {1, 2, 3})));
    ASSERT_TRUE(core->send_packet(core_stub::make_report_with_length(event, 9000)));
    ASSERT_TRUE(core->send_packet(core_stub::make_packet(0x23, {0})));
    ASSERT_TRUE(core->send_packet(core_stub::make_packet(0x24, {0})));
    ASSERT_TRUE(core->send_event(core_stub::make_event(kGyro, 1025, "sample")));
    ASSERT_TRUE(eventually([] { return log_contains("Registered callback is null"); }));

    EXPECT_NE("", thrown_by([&] { send(kGyro, 513); }));
    host::set_channel_hooks({nullptr, nullptr, failing(host::real_write_node, EPIPE), nullptr});
    EXPECT_NE("", thrown_by([&] { send(kAccel, 513); }));
    host::clear_channel_hooks();
    send(kAccel, core_stub::kDisableRequestMsgId);
    ASSERT_TRUE(eventually([] { return log_contains("registered callback successfully deleted"); }));
    conn.reset();

    expect_seen({"TAV_DUCTO_int msg_id 33", "TAV_DUCTO_int received SNS_AON_CLIENT_REPORT_IND_V01",
                 "TAV_DUCTO_int received SNS_AON_CLIENT_JUMBO_REPORT_IND_V01",
                 "bytes is too short, dropped", "runs past the",
                 "TAV_DUCTO_int invalid msg id", "SNS_AON_CLIENT_INFO_RESP_V01 is received",
                 "write has failed with errno", "support_trace_debug", "support_aon_presence"});
    EXPECT_THAT(misattributed_lines(), IsEmpty());
}

// --- Discovery --------------------------------------------------------------------

constexpr const char* kConfigPath = "/vendor/etc/sensors/oem_config.xml";
constexpr const char* kListPath = "/mnt/vendor/persist/sensors/kiv_sensors_list.txt";
const sensor_uid kRegistry{0x100, 0x1}, kHealth{0x200, 0x2}, kHeartRate{0x300, 0x3};

// One boot of the service's discovery against the in-process core, on
// virtual time; the core stops answering once discovery has returned.
struct discovery_boot {
    explicit discovery_boot(bool heart_rate_answers) {
        core.add_sensor_type("registry", {kRegistry});
        core.add_sensor_type("health", {kHealth}, true);
        if (heart_rate_answers) core.add_sensor_type("heart_rate", {kHeartRate});
        factory.startDiscovery(&core);
        core.stop();
    }
    fake_tav_interface core;
    virtual_clock clock{[this] { core.wait_idle(std::chrono::seconds(1)); }};
    kiv_sensor_factory factory;
};

class discovery_attribution_test : public ::testing::Test {
protected:
    void SetUp() override {
        kiv_log::set_level(kiv_log::VERBOSE);
        host::clear_captured_log();
        reset_discovery_state();
        root.write_file(kConfigPath, R"(<configuration type="KIV_oem_datatype"><datatypes>
            <datatype sensor_type="heart_rate" type="heart_rate" data_type_value="0x1"/>
            </datatypes></configuration>)");
        root.write_file("/mnt/vendor/persist/sensors/.keep", "");
    }
    void TearDown() override {
        reset_discovery_state();
        kiv_log::set_level(kiv_log::INFO);
    }
    scoped_root root;
};

TEST_F(discovery_attribution_test, BootsAndMalformedAnswersAreTheirOperationsLines) {
    { discovery_boot first(true); }
    root.write_file(kListPath, root.read_file(kListPath) + "health\n");  // a duplicate line
    reset_discovery_state();
    discovery_boot later(false);  // heart_rate is mandatory now and stays silent

    const uint8_t garbage[5] = {};
    later.factory.default_suids_lookup_callback(nullptr, sizeof(garbage), 0);
    later.factory.registry_lookup_callback(nullptr, sizeof(garbage), 0);
    later.factory.default_attributes_lookup_callback(nullptr, sizeof(garbage), 0);
    const std::string unknown = fake_tav_interface::make_event_msg(kLookupSuid, {{769, ""}});
    later.factory.default_suids_lookup_callback(reinterpret_cast<const uint8_t*>(unknown.data()),
                                                static_cast<uint32_t>(unknown.size()), 0);

    EXPECT_THAT(functions_writing("dropping event message"),
                ElementsAre("default_suids_lookup_callback", "registry_lookup_callback"));
    EXPECT_THAT(functions_writing("re-sending request for"), Not(IsEmpty()));
    EXPECT_THAT(functions_writing("re-sending request for"), Each("wait_for_mandatory_sensors"));
    expect_seen({"first boot after flash", "it's a later boot", "duplicate entry for health",
                 "registry_sensor availability time", "timeout while waiting for attributes",
                 "pending attributes count", "giving up.", "    heart_rate",
                 "invalid event msg_id=769", "dropping attribute message"});
    EXPECT_THAT(misattributed_lines(), IsEmpty());
}

// --- Catalogue ----------------------------------------------------------------------

// Entries the parser drops with an error line, next to ones it keeps.
constexpr const char* kFlawedConfig = R"(<configuration><datatypes>
    <datatype sensor_type="heart_rate" type="heart_rate" data_type_value="0x1"/>
    <datatype sensor_type="speed" type="speed" data_type_value="0x2"/>
    <datatype sensor_type="heart_rate" type="trace" data_type_value="0x10000"/>
  </datatypes><goals>
    <goal data_type_value="0x1">
      <threshold type="int" type_value="60" comparison_type="LESS_THAN_OR_EQUAL"/>
      <threshold type_value="5" comparison_type="LESS_THAN_OR_EQUAL"/>
      <threshold type="int" type_value="5"/>
    </goal>
    <goal data_type_value="0x2">
      <threshold type="float" type_value="1.5" comparison_type="GREATER_THAN_OR_EQUAL"/>
    </goal>
    <goal data_type_value="0x10000">
      <threshold type="byte" type_value="AB" comparison_type="GREATER_THAN_OR_EQUAL"/>
      <threshold type="byte" comparison_type="GREATER_THAN_OR_EQUAL"/>
    </goal>
  </goals><autoExerciseType>
    <exercisetype type="run" sensor_type="heart_rate" exercise_num="7" auto_start="true"
                  auto_stop="true" auto_pause="true"><datatype type="Heart_Rate"/></exercisetype>
    <exercisetype type="walk" exercise_num="8" auto_start="true"/>
  </autoExerciseType></configuration>)";

class catalogue_attribution_test : public discovery_attribution_test {};

TEST_F(catalogue_attribution_test, ConfigurationAndQueriesAreTheirOperationsLines) {
    kiv_sensor_factory factory;
    EXPECT_FALSE(factory.parseOEMConfig("/nonexistent/oem_config.xml"));
    root.write_file(kConfigPath, kFlawedConfig);
    ASSERT_TRUE(factory.parseOEMConfig(platform::resolve_path(kConfigPath).c_str()));

    // heart_rate is found with attributes; speed is found without.
    for (const std::string& answer :
         {fake_tav_interface::make_lookup_event("heart_rate", {kHeartRate}),
          fake_tav_interface::make_lookup_event("speed", {kHealth})}) {
        factory.default_suids_lookup_callback(reinterpret_cast<const uint8_t*>(answer.data()),
                                              static_cast<uint32_t>(answer.size()), 0);
    }
    const std::string attributes = fake_tav_interface::make_event_msg(
        kHeartRate, {{core_stub::kAttributeEventMsgId, sns_std_attr_event().SerializeAsString()}});
    factory.default_attributes_lookup_callback(reinterpret_cast<const uint8_t*>(attributes.data()),
                                               static_cast<uint32_t>(attributes.size()), 0);

    EXPECT_EQ(2u, factory.getSupportedMetricsTypes().size());
    EXPECT_EQ(2u, factory.getSupportedGoals().size());
    kiv_sensor_factory::DataTypeGoal unconfigured{};
    unconfigured.dataType = static_cast<kiv_sensor_factory::DataType>(5);
    EXPECT_FALSE(factory.isGoalSupported(unconfigured));
    EXPECT_EQ(1u, factory.getAutoStartList().size());
    EXPECT_EQ(1u, factory.getAutoStopList().size());
    EXPECT_EQ(1u, factory.getAutoPauseList().size());

    expect_seen({"configuration with datatypes but without type", "threshold without type",
                 "threshold without comparison_type", "byte threshold without type_value",
                 "exercisetype walk without sensor_type", "Adding DataType HEART_RATE to autoStartList",
                 "byteArrayThreshold[1] = 66", "Goal not supported for datatype 5"});
    EXPECT_THAT(misattributed_lines(), IsEmpty());
}

// --- Low-power state, sensor store and wake lock ----------------------------------

class power_attribution_test : public connection_test {
protected:
    void SetUp() override {
        connection_test::SetUp();
        kiv_log::set_level(kiv_log::VERBOSE);
        host::set_property("persist.vendor.kiv.ds", "true");
        host::set_property("persist.vendor.kiv.ds_oda", "true");
    }
    void TearDown() override {
        connection_test::TearDown();
        host::clear_power_state_services();
    }
    bool send_state(uint8_t msg_id, uint8_t session_id, uint32_t total = 0, uint16_t shmem = 0) {
        return core->send_packet(core_stub::make_low_power_state(msg_id, session_id, total, shmem));
    }
};

TEST_F(power_attribution_test, LowPowerMessagesSensorStoreAndWakeLockAreTheirOperationsLines) {
    // The wake lock is made once per process (CTest runs each case in its own),
    // here without its unlock file: every release only logs.
    unlink(root.host_path("/sys/power/wake_unlock").c_str());
    sns_wakelock* wakelock = sns_wakelock::get_instance();
    auto service = fake_power_state_service::register_default();
    sensorstore_image().write(root);
    connect();
    ASSERT_EQ(0, register_sensor(kAccel, accel));
    send(kAccel, 513, 5);
    ASSERT_TRUE(core->wait_for_requests(1, kWait));

    const uint32_t own = sensorstore_image::channel_hash(kChannel);
    const sensorstore_image image =
        sensorstore_image()
            .add_record(own, core_stub::make_report(core_stub::make_event(kAccel, 1025, "kept"), true))
            .add_record(sensorstore_image::channel_hash("other"), make_stored_packet(0x22, 20))
            .add_record(own, make_stored_packet(0x21, 20));
    image.write(root);
    for (uint8_t msg_id : {0, 1, 3}) ASSERT_TRUE(send_state(msg_id, 5));
    ASSERT_TRUE(send_state(0, 9));
    ASSERT_TRUE(send_state(2, 5, 500, 500));
    ASSERT_TRUE(send_state(2, 5, image.area_len() - 8, 0));
    ASSERT_TRUE(accel.wait_for(1));
    ASSERT_TRUE(eventually([&] { return read_sensorstore_header(root).reset_data_len == 1; }));
    conn.reset();
    wakelock->put_n_locks(1000);

    EXPECT_THAT(functions_writing("fatal error opening"), ElementsAre("sns_wakelock"));
    EXPECT_THAT(functions_writing("TAV_SENSORSTORE open successful"),
                ElementsAre("tav_update_sensorstore_header_reset_field",
                            "tav_process_low_power_sensor_store_write_info",
                            "tav_update_sensorstore_header_reset_field"));
    expect_seen({"sucess wakelock acquire", "Not able to open fd for wakeup", "aggregate lps(0)",
                 "SNS_LOW_PWR_STATE_MSG acquireLPMWakelock", "SNS_LOW_PWR_STATE_MSG releaseLPMWakelock",
                 "invalid lps_session_id", "invalid message id(3)", "NO DATA in eMMC",
                 "skipping lps_pkt_channel_hash", "UNEXPECTED_MSG_ID(33)",
                 "TAV_SENSORSTORE complete bytes written", "is larger than _accu_count"});
    EXPECT_EQ(1, service->acquires);
    EXPECT_THAT(misattributed_lines(), IsEmpty());
}

}  // namespace
}  // namespace test
}  // namespace kivhal
