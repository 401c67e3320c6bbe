#include "kiv_sensor_factory.h"

#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "discovery_util.h"
#include "kiv_log.h"
#include "kivhal/platform.h"
#include "mandatory_list.h"

using kivhal::discovery::current_clock;
using kivhal::discovery::ns_to_seconds;
using kivhal::discovery::sleep_ms;
using kivhal::discovery::steady_now_ns;
using kivhal::discovery::steady_now_seconds;

namespace {

constexpr const char* kHealthSensorType = "health";
constexpr const char* kHealthAsyncAnnounceSensorType = "health_async_announce";
constexpr const char* kRegistrySensorType = "registry";
constexpr const char* kOemConfigPath = "/vendor/etc/sensors/oem_config.xml";

constexpr int kRegistryTries = 80;
constexpr int64_t kRegistryWaitNs = 1000 * kivhal::discovery::kNanosPerMilli;
constexpr int64_t kRegistryRetryPauseMs = 250;
constexpr int64_t kRegistryDisableSettleMs = 100;

constexpr uint32_t kLaterBootDiscoveryTimeoutMs = 1000;
constexpr uint32_t kFirstBootDiscoveryTimeoutMs = 7000;
constexpr uint32_t kMillisPerSecond = 1000;
constexpr int64_t kDiscoveryDisableSettleMs = 50;

constexpr int kRediscoverPasses = 8;
constexpr int64_t kRediscoverPauseMs = 2000;

}  // namespace

tav_interface* kiv_sensor_factory::tavInterface = nullptr;

sensor_uid lookupSuid = {0xababababababababULL, 0xababababababababULL};
kivhal::mutex discoveryMutex;

kiv_sensor_factory::kiv_sensor_factory()
    : registryUp(false), pendingAttributes(0), lastSuidTime(0), laterBoot(true) {
    discoveryList.push_back(kHealthSensorType);
    discoveryList.push_back(kHealthAsyncAnnounceSensorType);
}

kiv_sensor_factory::~kiv_sensor_factory() {
    KIV_LOGD("kiv sensor factory destructor called");
    // Reads every catalogue row once; kept for parity with the service's
    // teardown, which expects the table to be walkable here.
    for (const auto& row : vendor::zep::hardware::kiv_types::dataTypeMap) {
        auto copy = row;
        (void)copy;
    }
}

void kiv_sensor_factory::startDiscovery(tav_interface* conn) {
    // The end stays 0 when the connection's exception ends discovery.
    discoveryStartNs = steady_now_ns();
    discoveryEndNs = 0;
    tavInterface = conn;
    if (!is_registry_up()) {
        KIV_LOGE("registry sensor not ready, not trying to get sensors list");
        discoveryEndNs = steady_now_ns();
        return;
    }

    init_mandatory_list_db();
    if (laterBoot) {
        kivhal::discovery::list_mandatory_as_missing();
    }

    KIV_LOGD("Starting Parsing of XML Config File");
    std::string config_path = kivhal::platform::resolve_path(kOemConfigPath);
    if (!parseOEMConfig(config_path.c_str())) {
        // The list stays open: only a completed discovery closes it.
        KIV_LOGE("Error in Parsing of XML Config File");
        discoveryEndNs = steady_now_ns();
        return;
    }
    KIV_LOGD("Parsing of XML Config File Successful");
    discover_sensors();

    bool found_any;
    {
        kivhal::lock_guard lock(discoveryMutex);
        found_any = !suidMap.empty();
    }
    if (found_any) {
        retrieve_attributes();
    }
    deinit_mandatory_list_db();
    discoveryEndNs = steady_now_ns();
}

bool kiv_sensor_factory::wait_for_registry_answer() {
    kivhal::pthread_lock_guard lock(&registryMutex);
    // One timed wait only: the callback signals after every message, and the
    // caller re-requests on its own schedule.
    current_clock().timed_wait_ns(&registryWait, &registryMutex, kRegistryWaitNs);
    return registryUp;
}

bool kiv_sensor_factory::is_registry_up() {
    {
        kivhal::pthread_lock_guard lock(&registryMutex);
        registryUp = false;
    }
    KIV_LOGD("starting is_registry_up @ t=%fs", steady_now_seconds());

    int64_t t0 = steady_now_ns();
    eventCallback = [this](const uint8_t* data, uint32_t length, uint64_t) {
        registry_lookup_callback(data, length, 0);
    };
    tavInterface->register_cb(lookupSuid, responseCallback, errorCallback, eventCallback);
    KIV_LOGI("Remote SensorService UpTime from hal_service start = %fs",
             ns_to_seconds(steady_now_ns() - t0));

    int64_t t1 = steady_now_ns();
    int countdown = kRegistryTries + 1;
    bool up = false;
    do {
        countdown--;
        KIV_LOGD("registry discovery countdown: %d", countdown);
        request_suid(kRegistrySensorType, false, false);
        up = wait_for_registry_answer();
        if (up) {
            break;
        }
        sleep_ms(kRegistryRetryPauseMs);
    } while (countdown > 1);
    if (!up) {
        countdown = 0;
    }
    up = registry_is_up();

    double elapsed = ns_to_seconds(steady_now_ns() - t1);
    int repeats = kRegistryTries - countdown;
    if (up) {
        KIV_LOGI("registry_sensor availability time '%fsec' from serviceup(no of repeats:'%d') ",
                 elapsed, repeats);
    } else {
        KIV_LOGE("registry_sensor unavailable even after '%fsecs' of serviceup(no of repeats:'%d')",
                 elapsed, repeats);
    }

    // Ends the registry registration; the pause lets the answer drop it before
    // discovery registers the lookup service again.
    request_suid(kRegistrySensorType, true, false);
    sleep_ms(kRegistryDisableSettleMs);
    return registry_is_up();
}

bool kiv_sensor_factory::registry_is_up() {
    kivhal::pthread_lock_guard lock(&registryMutex);
    return registryUp;
}

uint32_t kiv_sensor_factory::get_discovery_timeout_ms() {
    return laterBoot ? kLaterBootDiscoveryTimeoutMs : kFirstBootDiscoveryTimeoutMs;
}

void kiv_sensor_factory::discover_sensors() {
    KIV_LOGD("discovery start t=%fs", steady_now_seconds());
    eventCallback = [this](const uint8_t* data, uint32_t length, uint64_t) {
        default_suids_lookup_callback(data, length, 0);
    };
    tavInterface->register_cb(lookupSuid, responseCallback, errorCallback, eventCallback);

    KIV_LOGD("discovering available sensors...");
    for (const std::string& name : discoveryList) {
        KIV_LOGD("requesting %s", name.c_str());
        request_suid(name, false, true);
    }

    int64_t t_start = steady_now_ns();
    uint32_t timeout_ms = get_discovery_timeout_ms();
    KIV_LOGV("before sleep, now=%f", steady_now_seconds());
    KIV_LOGI("waiting for suids for %us ...", timeout_ms / kMillisPerSecond);
    sleep_ms(timeout_ms);
    KIV_LOGV("after sleep, now=%f", steady_now_seconds());

    if (laterBoot) {
        wait_for_mandatory_sensors();
    } else if (mandatory_count() == 0) {
        KIV_LOGE("first boot generated 0 sensors so re-discover");
        wait_for_sensors();
    }

    KIV_LOGD("available sensors on tav");
    {
        kivhal::lock_guard lock(discoveryMutex);
        for (const auto& entry : suidMap) {
            KIV_LOGD("%-20s%4u", entry.first.c_str(), static_cast<unsigned>(entry.second.size()));
        }
    }
    request_suid(kRegistrySensorType, true, false);
    int64_t last_suid_time;
    {
        kivhal::lock_guard lock(discoveryMutex);
        last_suid_time = lastSuidTime;
    }
    KIV_LOGI("suid discovery time = %fs", ns_to_seconds(last_suid_time - t_start));
    sleep_ms(kDiscoveryDisableSettleMs);
}

std::vector<std::string> kiv_sensor_factory::missing_discovery_names() {
    std::vector<std::string> missing;
    kivhal::lock_guard lock(discoveryMutex);
    for (const std::string& name : discoveryList) {
        if (suidMap.find(name) == suidMap.end()) {
            missing.push_back(name);
        }
    }
    return missing;
}

void kiv_sensor_factory::rerequest_missing(const kiv_log_op& op, int passes, int64_t pause_ms,
                                           const std::function<void(int)>& announce,
                                           const std::function<bool(int)>& settled) {
    for (int count = passes;;) {
        announce(count);
        for (const std::string& name : missing_discovery_names()) {
            KIV_LOGD_FOR(op, "re-sending request for %s", name.c_str());
            request_suid(name, false, true);
        }
        sleep_ms(pause_ms);
        count--;
        kivhal::lock_guard lock(discoveryMutex);
        if (settled(count) || count == 0) {
            return;
        }
    }
}

void kiv_sensor_factory::wait_for_sensors() {
    const kiv_log_op op = KIV_LOG_OP;
    auto announce = [op](int count) { KIV_LOGI_FOR(op, "ORN not ready yet wait count %d", count); };
    auto settled = [op](int count) REQUIRES(discoveryMutex) {
        if (num_mandatory_sns != 0) {
            KIV_LOGI_FOR(op, "sensors found after re discover %d", count);
            return true;
        }
        if (count == 0) {
            KIV_LOGE_FOR(op, "sensors list is 0 after first boot ");
        }
        return false;
    };
    rerequest_missing(op, kRediscoverPasses, kRediscoverPauseMs, announce, settled);
}
