#include "mandatory_list.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "discovery_util.h"
#include "kiv_log.h"
#include "kiv_sensor_factory.h"
#include "kivhal/platform.h"
#include "sns_ducto_packet.h"

using kivhal::discovery::increment_or_abort;

namespace {

constexpr const char* kMandatoryListPath = "/mnt/vendor/persist/sensors/kiv_sensors_list.txt";
constexpr int kMandatoryWaitPasses = 8;
constexpr int64_t kMandatoryWaitPauseMs = 1000;
// A listed name was once looked up, so it fit a request's payload; a longer
// line is damage and is not kept in memory.
constexpr size_t kMaxListedNameLen = SNS_DUCTO_REQ_MAX_PAYLOAD_LEN;

// The reason a path that exists cannot be read as the list: anything but a
// regular file (a FIFO would block the open for ever).
int unreadable_kind_errno(const struct stat& info) {
    if (S_ISREG(info.st_mode)) return 0;
    return S_ISDIR(info.st_mode) ? EISDIR : EINVAL;
}

// Reads one line of at most kMaxListedNameLen bytes into `name`; a longer one
// is skipped to its end and reported through `length`. False at the end.
bool read_listed_name(std::istream& in, std::string* name, size_t* length) {
    name->clear();
    *length = 0;
    std::streambuf* buffer = in.rdbuf();
    for (;;) {
        const int c = buffer->sbumpc();
        if (c == std::char_traits<char>::eof()) {
            // As std::getline leaves the stream.
            in.setstate(*length > 0 ? std::ios::eofbit : std::ios::eofbit | std::ios::failbit);
            return *length > 0;
        }
        if (c == '\n') return true;
        if (++*length <= kMaxListedNameLen) name->push_back(static_cast<char>(c));
    }
}

bool is_mandatory(const std::string& name) REQUIRES(discoveryMutex) {
    return std::find(mandatorySensors.begin(), mandatorySensors.end(), name) !=
           mandatorySensors.end();
}

}  // namespace

std::vector<std::string> mandatorySensors;
std::map<std::string, bool> mandatoryFound;
uint32_t num_mandatory_sns = 0;
std::atomic<bool> allMandatoryFound{false};

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
        const int unreadable = unreadable_kind_errno(info);
        if (unreadable == 0) listReader.open(path, std::ios::in);
        if (!listReader.is_open()) {
            KIV_LOGE("open read fail for sensors_list reading with errno %s ",
                     strerror(unreadable != 0 ? unreadable : errno));
            return;
        }
    }
    std::string name;
    size_t length;
    for (unsigned line = 1; read_listed_name(listReader, &name, &length); ++line) {
        if (length > kMaxListedNameLen) {
            KIV_LOGE("sensors_list line %u is %zu bytes, longer than any sensor type name; dropped",
                     line, length);
            continue;
        }
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
    const kiv_log_op op = KIV_LOG_OP;
    auto announce = [op](int count) {
        KIV_LOGI_FOR(op, "some mandatory sensors not available yet, will wait for %d seconds...",
                     count);
        kivhal::lock_guard lock(discoveryMutex);
        for (const auto& listed : mandatoryFound) {
            if (!listed.second) {
                KIV_LOGD_FOR(op, "non available ones %s", listed.first.c_str());
            }
        }
    };
    auto settled = [op](int count) REQUIRES(discoveryMutex) {
        if (count == 0 && !allMandatoryFound.load()) {
            KIV_LOGE_FOR(op,
                         "some mandatory sensors not available even after %d seconds, giving up.",
                         kMandatoryWaitPasses);
            KIV_LOGE_FOR(op, "%lu missing sensor(s)",
                         static_cast<unsigned long>(mandatorySensors.size() - num_mandatory_sns));
            for (const auto& listed : mandatoryFound) {
                if (!listed.second) {
                    KIV_LOGE_FOR(op, "    %s", listed.first.c_str());
                }
            }
            return true;
        }
        return allMandatoryFound.load();
    };
    rerequest_missing(op, kMandatoryWaitPasses, kMandatoryWaitPauseMs, announce, settled);
}

void kivhal::discovery::list_mandatory_as_missing() {
    kivhal::lock_guard lock(discoveryMutex);
    for (const std::string& name : mandatorySensors) {
        mandatoryFound.emplace(name, false);
    }
}

void kivhal::discovery::mark_mandatory_found(const std::string& datatype) {
    auto listed = mandatoryFound.find(datatype);
    if (listed != mandatoryFound.end() && !listed->second) {
        listed->second = true;
        increment_or_abort(num_mandatory_sns);
        if (num_mandatory_sns == mandatorySensors.size()) {
            allMandatoryFound.store(true);
        }
    }
}

uint32_t kiv_sensor_factory::mandatory_count() const {
    kivhal::lock_guard lock(discoveryMutex);
    return num_mandatory_sns;
}
