// The tests' main. Every case starts with an empty captured log, and each line
// it leaves there must name the operation whose work it reports: a file-local
// helper or a lambda logs under its operation's name, never its own.
#include <gmock/gmock.h>

#include <cctype>
#include <set>
#include <string>

#include "kivhal/host.h"

namespace {

// The library's operations that may write a log line, and the tests' own bodies.
const std::set<std::string> kOperations = {
    "get_aon_prop", "is_ds_supported", "is_oda_supported", "check_kiv_trace_support_flag",
    "TestBody",
    // Connection.
    "tav_ducto", "~tav_ducto", "ducto_connect", "ducto_open", "ducto_read", "ducto_write",
    "ducto_disconnect", "ducto_error_handler", "ducto_thread_routine", "ducto_response_handler",
    "ducto_indication_handler", "update_suid", "trigger_event_cb", "initialize_client_req_id_db",
    "allocate_client_req_id", "free_client_req_id", "update_suid_map_table", "register_cb",
    "send_request", "run", "start_file", "switch_off", "attach", "add_interface",
    // Discovery.
    "~kiv_sensor_factory", "startDiscovery", "is_registry_up", "discover_sensors",
    "wait_for_sensors", "request_suid", "registry_lookup_callback", "default_suids_lookup_callback",
    "handle_suids_lookup_callback", "retrieve_attributes", "default_attributes_lookup_callback",
    "handle_attribute_event", "init_mandatory_list_db", "update_mandatory_list_database",
    "wait_for_mandatory_sensors",
    // Catalogue.
    "parseOEMConfig", "hexStrToDec", "listAvailableSensorTypes", "getSupportedMetricsTypes",
    "getSupportedGoals", "isGoalSupported", "getAutoStartList", "getAutoStopList",
    "getAutoPauseList",
    // Low-power state, sensor store and wake locks.
    "tav_handle_low_power_state_msg", "tav_process_low_power_sensor_store_write_info",
    "tav_update_sensorstore_header_reset_field", "tav_sensorstore_write",
    "get_sns_low_power_state_handler", "power_state_callback_impl", "acquire_wakelock",
    "release_wakelock", "sns_wakelock", "acquire", "release", "get_n_locks", "put_n_locks"};

constexpr int kReportedLines = 5;

// "name:line, text" with a listed name.
bool attributed(const std::string& text) {
    const size_t colon = text.find(':');
    if (colon == std::string::npos || kOperations.count(text.substr(0, colon)) == 0) return false;
    size_t end = colon + 1;
    while (end < text.size() && isdigit(static_cast<unsigned char>(text[end]))) ++end;
    return end > colon + 1 && text.compare(end, 2, ", ") == 0;
}

class attribution_check : public ::testing::EmptyTestEventListener {
    void OnTestStart(const ::testing::TestInfo&) override { kivhal::host::clear_captured_log(); }
    void OnTestEnd(const ::testing::TestInfo&) override {
        int reported = 0;
        for (const kivhal::host::log_line& line : kivhal::host::captured_log()) {
            if (!attributed(line.text) && reported++ < kReportedLines) {
                ADD_FAILURE() << "log line names no operation: " << line.text;
            }
        }
    }
};

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleMock(&argc, argv);
    // Ahead of the printer, so that a case's verdict includes the check.
    ::testing::TestEventListeners& listeners = ::testing::UnitTest::GetInstance()->listeners();
    ::testing::TestEventListener* printer = listeners.Release(listeners.default_result_printer());
    listeners.Append(new attribution_check);
    if (printer != nullptr) listeners.Append(printer);
    return RUN_ALL_TESTS();
}
