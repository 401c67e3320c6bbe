#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "discovery_util.h"
#include "kiv_log.h"
#include "kiv_sensor_factory.h"
#include "kivhal/platform.h"

using kivhal::discovery::increment_or_abort;

namespace {

constexpr const char* kMandatoryListPath = "/mnt/vendor/persist/sensors/kiv_sensors_list.txt";
constexpr int kMandatoryWaitPasses = 8;
constexpr int64_t kMandatoryWaitPauseMs = 1000;

bool is_mandatory(const std::string& name) REQUIRES(discoveryMutex) {
    return std::find(mandatorySensors.begin(), mandatorySensors.end(), name) !=
           mandatorySensors.end();
}

}  // namespace

void kiv_sensor_factory::init_mandatory_list_db() {
    // Nothing answers yet; taken so every access to the list state is locked.
    kivhal::lock_guard lock(discoveryMutex);
    const std::string path = kivhal::platform::resolve_path(kMandatoryListPath);
    struct stat info;
    laterBoot = stat(path.c_str(), &info) == 0;

    if (!laterBoot) {
        KIV_LOGI("first boot after flash");
        if (!listWriter.is_open()) {
            listWriter.open(path, std::ios::out | std::ios::trunc);
            if (!listWriter.is_open()) {
                KIV_LOGE("create fail for sensors_list with errno %s ", strerror(errno));
            }
        }
        return;
    }

    KIV_LOGI("it's a later boot");
    if (!listReader.is_open()) {
        listReader.open(path, std::ios::in);
        if (!listReader.is_open()) {
            KIV_LOGE("open read fail for sensors_list reading with errno %s ", strerror(errno));
            return;
        }
    }
    std::string name;
    while (std::getline(listReader, name)) {
        if (is_mandatory(name)) {
            KIV_LOGI("duplicate entry for %s", name.c_str());
            continue;
        }
        mandatorySensors.push_back(name);
    }
    if (!listWriter.is_open()) {
        listWriter.open(path, std::ios::out | std::ios::app);
        if (!listWriter.is_open()) {
            KIV_LOGE("open append fail for sensors_list with errno %s ", strerror(errno));
        }
    }
}

void kiv_sensor_factory::deinit_mandatory_list_db() {
    // Late lookup answers may still write the list from the reader thread.
    kivhal::lock_guard lock(discoveryMutex);
    if (listWriter.is_open()) {
        listWriter.close();
    }
    if (laterBoot && listReader.is_open()) {
        listReader.close();
    }
}

void kiv_sensor_factory::update_mandatory_list_database(std::string datatype) {
    if (is_mandatory(datatype)) {
        return;
    }
    if (laterBoot) {
        mandatorySensors.push_back(datatype);
        listWriter << datatype << "\n";
        KIV_LOGI("laterboot datatype %s write", datatype.c_str());
        return;
    }
    listWriter << datatype << "\n";
    increment_or_abort(num_mandatory_sns);
    KIV_LOGI("first boot datatype %s num_mandatory_sns %d", datatype.c_str(), num_mandatory_sns);
    mandatorySensors.push_back(datatype);
}

void kiv_sensor_factory::wait_for_mandatory_sensors() {
    if (allMandatoryFound.load()) {
        return;
    }
    int count = kMandatoryWaitPasses;
    while (true) {
        KIV_LOGI("some mandatory sensors not available yet, will wait for %d seconds...", count);
        {
            kivhal::lock_guard lock(discoveryMutex);
            for (const auto& listed : mandatoryFound) {
                if (!listed.second) {
                    KIV_LOGD("non available ones %s", listed.first.c_str());
                }
            }
        }
        for (const std::string& name : missing_discovery_names()) {
            KIV_LOGD("re-sending request for %s", name.c_str());
            request_suid(name, false, true);
        }
        kivhal::discovery::sleep_ms(kMandatoryWaitPauseMs);
        count--;

        kivhal::lock_guard lock(discoveryMutex);
        if (count == 0 && !allMandatoryFound.load()) {
            KIV_LOGE("some mandatory sensors not available even after %d seconds, giving up.",
                     kMandatoryWaitPasses);
            KIV_LOGE("%lu missing sensor(s)",
                     static_cast<unsigned long>(mandatorySensors.size() - num_mandatory_sns));
            for (const auto& listed : mandatoryFound) {
                if (!listed.second) {
                    KIV_LOGE("    %s", listed.first.c_str());
                }
            }
            return;
        }
        if (allMandatoryFound.load()) {
            return;
        }
    }
}
