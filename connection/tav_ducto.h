#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "channel_capture.h"
#include "kiv_thread_annotations.h"
#include "report_sensor_id.h"
#include "sns_ducto_packet.h"
#include "tav_interface.h"
#include "worker.h"

class sns_wakelock;

struct tav_ducto_config {
    const char* channel_name;
};

// Error of the connection: "TAV_DUCTO_ERROR <msg> : <strerror(code)> (<code>)".
class ducto_error : public std::runtime_error {
  public:
    ducto_error(int code, const std::string& msg);
    static std::string error_code_to_string(int code, std::string msg);
};

// The connection to the sensor core over its packet IPC channel.
class tav_ducto : public tav_interface {
  public:
    explicit tav_ducto(tav_ducto_config config);
    ~tav_ducto() override;

    tav_ducto(const tav_ducto&) = delete;
    tav_ducto& operator=(const tav_ducto&) = delete;

    int register_cb(sensor_uid suid, tav_resp_cb resp_cb, tav_error_cb error_cb,
                    tav_event_cb event_cb) override;
    int send_request(sensor_uid suid, bool flag, std::string payload, int session_id) override;
    void dump(int fd) override
        EXCLUDES(_s_ducto_read_mutex, _cb_map_mutex, _s_mutex, _suid_map_mutex, _lps_db_mutex);

    // Channel I/O.
    void ducto_connect(std::string channel_name) EXCLUDES(_s_ducto_read_mutex);
    int ducto_open(std::string dev_node);
    int ducto_read(int fd, uint8_t* buf, uint32_t len);
    int ducto_write(int fd, uint8_t* buf, uint32_t len) EXCLUDES(_s_ducto_read_mutex);
    void ducto_disconnect(bool stop_reader) EXCLUDES(_s_ducto_read_mutex, _s_mutex);
    void destroy_map_table() EXCLUDES(_cb_map_mutex);
    void ducto_error_handler(int error) EXCLUDES(_s_ducto_read_mutex);
    static bool check_kiv_trace_support_flag();

    // Reader thread and inbound dispatch.
    static void ducto_thread_routine(tav_ducto* conn);
    void ducto_response_handler(sns_aon_client_resp_msg_v01* msg) EXCLUDES(_s_mutex);
    // The packet is taken by reference: a 10 KB copy per report buys nothing,
    // the callback sees the payload only during the call either way.
    void ducto_indication_handler(uint32_t msg_id, const sns_ducto_packet& packet);
    int update_suid(uint32_t ignored, sensor_uid& suid);
    // The callback is taken by reference: copying a capturing callable on
    // every report would allocate.
    int trigger_event_cb(uint32_t ignored, const tav_event_cb& cb, uint64_t timestamp);

    // Client registry.
    void initialize_client_req_id_db() EXCLUDES(_s_mutex);
    uint8_t allocate_client_req_id() EXCLUDES(_s_mutex);
    void free_client_req_id(uint8_t id) EXCLUDES(_s_mutex);
    tav_register_cb* get_register_cb(sensor_uid suid) EXCLUDES(_cb_map_mutex);
    uint8_t get_clientreq_id(sensor_uid suid) EXCLUDES(_cb_map_mutex);
    bool is_suid_already_registered(sensor_uid suid);
    void update_suid_map_table(sensor_uid suid) EXCLUDES(_suid_map_mutex, _cb_map_mutex, _s_mutex);

    // Low-power state and sensor store.
    void tav_handle_low_power_state_msg(sns_aon_client_low_pwr_state_ind_msg_v01* msg);
    void tav_process_low_power_sensor_store_write_info(
        sns_aon_client_low_pwr_state_write_info* write_info);
    void tav_update_sensorstore_header_reset_field(uint32_t value);
    int tav_sensorstore_write(int fd, uint8_t* buf, uint32_t len);
    uint32_t ducto_get_channel_hash(const char* name, uint8_t len);

  private:
    std::string _channel_name;
    std::atomic<int> _s_chnl_fd;
    int _wakeup_pipe[2];
    // Serialises connecting, every write and the error threshold; the
    // descriptor itself is atomic because the reader thread polls it unlocked.
    kivhal::mutex _s_ducto_read_mutex;
    bool _thread_started;
    std::thread _reader_thread;
    std::vector<sensor_uid> _pending_resp_suids GUARDED_BY(_s_mutex);
    kivhal::mutex _s_mutex;
    uint32_t _max_err_cnt;
    // Atomic: the reader thread resets it after every clean pass unlocked.
    std::atomic<uint32_t> g_ducto_err_cnt;
    std::atomic<bool> _is_reconnecting;
    std::atomic<bool> _is_closing;
    kivhal::mutex _suid_map_mutex ACQUIRED_BEFORE(_s_mutex, _cb_map_mutex);
    std::vector<sensor_uid> _registered_suids GUARDED_BY(_suid_map_mutex);
    std::vector<uint8_t> _free_client_req_ids GUARDED_BY(_s_mutex);
    std::vector<uint8_t> _used_client_req_ids GUARDED_BY(_s_mutex);
    // Guards the two maps below: clients register while the reader thread
    // dispatches. Never held across a client callback; records are deleted
    // only on the reader thread or after it stopped, so the reader may use a
    // record it found after dropping the lock.
    kivhal::mutex _cb_map_mutex;
    std::map<tav_register_cb*, sensor_uid> _cb_suid_map GUARDED_BY(_cb_map_mutex);
    std::map<uint8_t, sensor_uid> _clientreq_suid_map GUARDED_BY(_cb_map_mutex);
    // Written by senders, read by the reader thread.
    kivhal::mutex _lps_db_mutex;
    std::unordered_map<uint8_t, uint8_t> _lps_db GUARDED_BY(_lps_db_mutex);
    const uint8_t* _ind_payload;
    uint32_t _ind_payload_len;
    sns_wakelock* _wakelock;
    // Reader thread only.
    report_sensor_id_reader _report_ids;
    // Null unless the capture property named a usable file; set before the
    // reader thread starts and never changed, so testing it needs no lock.
    std::unique_ptr<kivhal::connection::channel_capture> _capture;
    worker _worker;
};
