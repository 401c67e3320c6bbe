#pragma once

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "kiv_thread_annotations.h"
#include "kiv_types.h"
#include "sensor_attributes.h"
#include "sns_client.pb.h"
#include "tav_interface.h"

// Guards suidMap updates and the mandatory-list state (declared below).
extern kivhal::mutex discoveryMutex;

struct kiv_log_op;

// Learns which sensors the sensor core offers and answers the HAL service's
// capability questions from that and from the OEM configuration.
class kiv_sensor_factory {
  public:
    using DataType = vendor::zep::hardware::kiv_types::DataType;
    using ExerciseType = vendor::zep::hardware::kiv_types::ExerciseType;
    using DataTypeGoal = vendor::zep::hardware::kiv_types::DataTypeGoal;
    using AutoStartCapability = vendor::zep::hardware::kiv_types::AutoStartCapability;

    kiv_sensor_factory();
    ~kiv_sensor_factory();
    kiv_sensor_factory(const kiv_sensor_factory&) = delete;
    kiv_sensor_factory& operator=(const kiv_sensor_factory&) = delete;

    // Discovery: runs on the caller's thread; answers arrive on the
    // connection's reader thread. The connection is not owned.
    void startDiscovery(tav_interface* conn) EXCLUDES(discoveryMutex, attributesMapMutex);
    bool is_registry_up();
    void discover_sensors();
    void wait_for_sensors() EXCLUDES(discoveryMutex);
    uint32_t get_discovery_timeout_ms();

    // SUID lookup.
    void request_suid(std::string datatype, bool disable, bool lookupOption);
    void registry_lookup_callback(const uint8_t* data, uint32_t length, uint64_t timestamp)
        EXCLUDES(registryMutex);
    void default_suids_lookup_callback(const uint8_t* data, uint32_t length, uint64_t timestamp);
    void handle_suids_lookup_callback(const std::string& datatype,
                                      const std::vector<sensor_uid>& suids) EXCLUDES(discoveryMutex);
    sensor_uid get_suids(const std::string& datatype) const EXCLUDES(discoveryMutex);

    // Attributes.
    void retrieve_attributes() EXCLUDES(attrMutex, discoveryMutex);
    sns_client_request_msg create_attr_request(sensor_uid suid, bool disable);
    void default_attributes_lookup_callback(const uint8_t* data, uint32_t length,
                                            uint64_t timestamp);
    void handle_attribute_event(sensor_uid suid, const sns_client_event_msg_sns_client_event& event)
        EXCLUDES(attributesMapMutex, attrMutex);
    // The stored attributes of one sensor; false when none arrived (yet).
    bool find_attributes(sensor_uid suid, sensor_attributes* out) const EXCLUDES(attributesMapMutex);

    // Mandatory sensor list persisted across boots (discovery/mandatory_list.cpp).
    // Discovery thread, before the lookups and at the end: decide first or
    // later boot and load the file, or close it. Failures are logged only.
    void init_mandatory_list_db() EXCLUDES(discoveryMutex);
    void deinit_mandatory_list_db() EXCLUDES(discoveryMutex);
    // Reader thread: records an answered name once, in memory and in the
    // file; the first boot counts it. Aborts rather than let the count wrap.
    void update_mandatory_list_database(std::string datatype) REQUIRES(discoveryMutex);
    // Discovery thread, later boot: re-requests the missing names until every
    // listed one answered or 8 s passed. What the connection throws passes through.
    void wait_for_mandatory_sensors() EXCLUDES(discoveryMutex);

    // OEM configuration.
    bool parseOEMConfig(const char* path);

    // Catalogue lookups (insert-if-absent on the process-wide tables).
    std::string getSensorType(uint32_t type, bool isExercise);
    bool isSampleDataType(DataType type);
    int32_t hexStrToDec(const char* text);

    // Capability queries; meant for after startDiscovery has returned.
    std::unordered_set<std::string> listAvailableSensorTypes()
        EXCLUDES(discoveryMutex, attributesMapMutex);
    std::vector<DataType> getSupportedMetricsTypes();
    std::vector<DataTypeGoal> getSupportedGoals();
    bool isGoalSupported(DataTypeGoal goal);
    std::vector<AutoStartCapability> getAutoStartList();
    std::vector<ExerciseType> getAutoStopList();
    std::vector<ExerciseType> getAutoPauseList();
    void setSensorAvailabilityStatus(std::string sensorType, bool status);
    bool getSensorAvailabilityStatus(std::string sensorType);
    std::vector<DataType> getAllDatatypes(std::string sensorType);

    // Writes discovery's outcome and the catalogue's sizes to `fd` as text,
    // for bug reports. Like the queries, meant for after startDiscovery; what
    // the reader thread writes is copied under its lock, nothing is held
    // while writing.
    void dump(int fd) EXCLUDES(discoveryMutex, attributesMapMutex, attrMutex);

    // Process-wide discovery state.
    static tav_interface* tavInterface;

    // Members, in this order.
    std::condition_variable registryCond;
    kivhal::pthread_mutex registryMutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t registryWait = PTHREAD_COND_INITIALIZER;
    bool registryUp GUARDED_BY(registryMutex);
    // The callables are set and handed over on the discovery thread only.
    tav_event_cb eventCallback;
    tav_resp_cb responseCallback;
    tav_error_cb errorCallback;
    std::unordered_map<std::string, std::vector<sensor_uid>> suidMap GUARDED_BY(discoveryMutex);
    // Answers can still arrive on the reader thread after startDiscovery
    // returned, while the service's queries read the map; never held across
    // a call into the connection or a client.
    mutable kivhal::mutex attributesMapMutex;
    std::unordered_map<sensor_uid, sensor_attributes, sensor_uid_hash> attributesMap
        GUARDED_BY(attributesMapMutex);
    kivhal::mutex attrMutex;
    uint32_t pendingAttributes GUARDED_BY(attrMutex);
    int64_t lastSuidTime GUARDED_BY(discoveryMutex);
    // Filled by the configuration parse on the discovery thread, before any
    // lookup is sent; the reader thread never reads it.
    std::vector<std::string> discoveryList;
    // Written once by init_mandatory_list_db before the first lookup is sent,
    // only read afterwards: the send orders it before every answer.
    bool laterBoot;
    std::ofstream listWriter GUARDED_BY(discoveryMutex);
    std::ifstream listReader GUARDED_BY(discoveryMutex);

  private:
    // When the last startDiscovery began and ended (steady clock, ns; 0 while
    // it has not), for dump().
    int64_t discoveryStartNs = 0;
    int64_t discoveryEndNs = 0;

    // Discovery steps that read state the reader thread writes, under its lock.
    bool wait_for_registry_answer() EXCLUDES(registryMutex);
    bool registry_is_up() EXCLUDES(registryMutex);
    // num_mandatory_sns, read under its lock.
    uint32_t mandatory_count() const EXCLUDES(discoveryMutex);
    std::vector<std::string> missing_discovery_names() EXCLUDES(discoveryMutex);
    // The re-request loop of the waits after the lookups: up to `passes`
    // passes of announce(passes left), the lookups of every name still
    // missing, a pause of `pause_ms`, then settled(passes left, 0 on the
    // last) with discoveryMutex held; ends when settled is true or no pass
    // is left. Discovery thread; lines are logged for `op`; what the
    // connection throws passes through.
    void rerequest_missing(const kiv_log_op& op, int passes, int64_t pause_ms,
                           const std::function<void(int)>& announce,
                           const std::function<bool(int)>& settled) EXCLUDES(discoveryMutex);
    std::vector<std::pair<std::string, std::vector<sensor_uid>>> suid_snapshot()
        EXCLUDES(discoveryMutex);
};

// The core's SUID lookup service.
extern sensor_uid lookupSuid;
// The mandatory list (discovery/mandatory_list.cpp): the names that must
// answer, those of them that answered this boot (later boot) and their count.
extern std::vector<std::string> mandatorySensors GUARDED_BY(discoveryMutex);
extern std::map<std::string, bool> mandatoryFound GUARDED_BY(discoveryMutex);
extern uint32_t num_mandatory_sns GUARDED_BY(discoveryMutex);
extern std::atomic<bool> allMandatoryFound;
