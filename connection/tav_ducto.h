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
    // Connects and starts the reader and worker threads; throws ducto_error
    // (and std::runtime_error from the sensor store); any thread.
    explicit tav_ducto(tav_ducto_config config);
    // Stops and joins both threads; not on the reader thread; does not throw.
    ~tav_ducto() override;

    tav_ducto(const tav_ducto&) = delete;
    tav_ducto& operator=(const tav_ducto&) = delete;

    // 0, or -1 when already registered; std::runtime_error when no client
    // request id is left; any thread.
    int register_cb(sensor_uid suid, tav_resp_cb resp_cb, tav_error_cb error_cb,
                    tav_event_cb event_cb) override;
    // 0; throws ducto_error (write failed) or std::runtime_error (payload too
    // large, no client request id); any thread.
    int send_request(sensor_uid suid, bool flag, std::string payload, int session_id) override;
    // Writes the connection's state to `fd`; does not throw; any thread.
    void dump(int fd) override
        EXCLUDES(_s_ducto_read_mutex, _cb_map_mutex, _s_mutex, _suid_map_mutex, _lps_db_mutex);

    // Channel I/O.
    // Throws ducto_error when the channel or the pipe cannot be opened;
    // constructor's thread.
    void ducto_connect(std::string channel_name) EXCLUDES(_s_ducto_read_mutex);
    // The descriptor, or a negative errno (-ETIMEDOUT after the retries); does
    // not throw; any thread.
    int ducto_open(std::string dev_node);
    // Bytes read, 0 (nothing, or the buffer is too small), or a negative
    // errno; does not throw; reader thread.
    int ducto_read(int fd, uint8_t* buf, uint32_t len);
    // The last write's result, 0 when the channel is closed, or a negative
    // errno; does not throw; any thread.
    int ducto_write(int fd, uint8_t* buf, uint32_t len) EXCLUDES(_s_ducto_read_mutex);
    // Closes the channel, joining the reader when asked (not from it); does
    // not throw; any thread.
    void ducto_disconnect(bool stop_reader) EXCLUDES(_s_ducto_read_mutex, _s_mutex);
    // Deletes every registration record; after the reader stopped.
    void destroy_map_table() EXCLUDES(_cb_map_mutex);
    // Counts a channel error; a hang-up (POLLHUP) ends the process with
    // exit(1); reader thread.
    void ducto_error_handler(int error) EXCLUDES(_s_ducto_read_mutex);
    // Reads the trace property into kiv_trace_enabled; returns it; any thread.
    static bool check_kiv_trace_support_flag();

    // Reader thread and inbound dispatch.
    // The reader thread's body; returns on the pipe's 'd'; a hang-up ends the
    // process (exit(1)), an error write-info throws ducto_error uncaught.
    static void ducto_thread_routine(tav_ducto* conn);
    // Calls the oldest pending sensor's response callback; reader thread;
    // what the callback throws passes through.
    void ducto_response_handler(sns_aon_client_resp_msg_v01* msg) EXCLUDES(_s_mutex);
    // The packet is taken by reference: a 10 KB copy per report buys nothing,
    // the callback sees the payload only during the call either way.
    // Reader thread; what the event callback throws passes through.
    void ducto_indication_handler(uint32_t msg_id, const sns_ducto_packet& packet);
    // 0, or -1 when the payload is empty; reader thread; does not throw.
    int update_suid(uint32_t ignored, sensor_uid& suid);
    // The callback is taken by reference: copying a capturing callable on
    // every report would allocate.
    // 0, or -1 when the payload is empty; std::bad_function_call for an
    // empty callback; reader thread.
    int trigger_event_cb(uint32_t ignored, const tav_event_cb& cb, uint64_t timestamp);

    // Client registry.
    // Each: any thread. Fills the free list; does not throw.
    void initialize_client_req_id_db() EXCLUDES(_s_mutex);
    // The id; std::runtime_error when none is free.
    uint8_t allocate_client_req_id() EXCLUDES(_s_mutex);
    // Does not throw.
    void free_client_req_id(uint8_t id) EXCLUDES(_s_mutex);
    // Null when not registered (0 for the id below); does not throw.
    tav_register_cb* get_register_cb(sensor_uid suid) EXCLUDES(_cb_map_mutex);
    uint8_t get_clientreq_id(sensor_uid suid) EXCLUDES(_cb_map_mutex);
    bool is_suid_already_registered(sensor_uid suid);
    // Forgets an answered disable request's registration; does not throw.
    void update_suid_map_table(sensor_uid suid) EXCLUDES(_suid_map_mutex, _cb_map_mutex, _s_mutex);

    // Low-power state and sensor store.
    // Reader thread. Updates the sessions and the low-power-mode lock; does not
    // throw.
    void tav_handle_low_power_state_msg(sns_aon_client_low_pwr_state_ind_msg_v01* msg);
    // Throws ducto_error (error code, open, size, mapping); a record length
    // past the address space ends the process (abort).
    void tav_process_low_power_sensor_store_write_info(
        sns_aon_client_low_pwr_state_write_info* write_info);
    // Throws ducto_error when the partition cannot be opened, read or written;
    // constructor's thread.
    void tav_update_sensorstore_header_reset_field(uint32_t value);
    // Bytes written, 0, or a negative errno; does not throw; any thread.
    int tav_sensorstore_write(int fd, uint8_t* buf, uint32_t len);
    // Pure; any thread.
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
