#pragma once

// An in-process stand-in for the connection: it decodes every request the way
// the sensor core would and answers on its own thread, like the connection's
// reader thread delivers the core's reports.
//
//   kivhal::test::fake_tav_interface core;
//   core.add_sensor_type("registry", {{1, 2}});
//   core.add_sensor_type("health", {{3, 4}}, /*answer_from=*/2);  // silent once
//   core.set_attributes({3, 4}, attr_event);
//   factory.startDiscovery(&core);
//   core.requests()[0].lookup.datatypename() ...
//
// Lookups (512) of configured types are answered with a lookup event (768);
// unknown types get no answer. Attribute requests (1) of sensors with an
// attribute entry get an attribute event (128). Answering a disable request
// (10) drops that sensor's registration, as the connection does.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sns_client.pb.h"
#include "sns_std_attr.pb.h"
#include "sns_suid.pb.h"
#include "tav_interface.h"

namespace kivhal {
namespace test {

// One request as the fake decoded it.
struct fake_request {
    sensor_uid suid{0, 0};
    bool flag = false;
    int session_id = 0;
    std::chrono::steady_clock::time_point sent;
    sns_client_request_msg envelope;
    // Decoded payload: a lookup for requests to the lookup service, an
    // attribute request otherwise.
    sns_suid_req lookup;
    sns_std_attr_req attr;

    uint32_t msg_id() const { return envelope.msg_id(); }
    bool to_lookup_service() const;
};

// One register_cb call.
struct fake_registration {
    sensor_uid suid{0, 0};
    int result = 0;
    bool has_response_cb = false;
    bool has_error_cb = false;
    bool has_event_cb = false;
};

class fake_tav_interface : public tav_interface {
public:
    static constexpr uint32_t kLookupRequestMsgId = 512;
    static constexpr uint32_t kAttributeRequestMsgId = 1;
    static constexpr uint32_t kDisableRequestMsgId = 10;
    static constexpr uint32_t kLookupEventMsgId = 768;
    static constexpr uint32_t kAttributeEventMsgId = 128;
    static constexpr uint64_t kLookupSuidHalf = 0xababababababababULL;

    fake_tav_interface();
    ~fake_tav_interface() override;
    fake_tav_interface(const fake_tav_interface&) = delete;
    fake_tav_interface& operator=(const fake_tav_interface&) = delete;

    int register_cb(sensor_uid suid, tav_resp_cb resp_cb, tav_error_cb error_cb,
                    tav_event_cb event_cb) override;
    int send_request(sensor_uid suid, bool flag, std::string payload, int session_id) override;

    static sensor_uid lookup_suid() { return {kLookupSuidHalf, kLookupSuidHalf}; }

    // --- Core behaviour ------------------------------------------------------
    // Lookups of `data_type` are answered with `suids` from the
    // `answer_from`-th lookup of that type on (1 = the first), `delay` later.
    // Earlier lookups get no answer, or one without SUIDs when `empty_before`.
    void add_sensor_type(const std::string& data_type, std::vector<sensor_uid> suids,
                         int answer_from = 1,
                         std::chrono::milliseconds delay = std::chrono::milliseconds(0),
                         bool empty_before = false);
    void set_attributes(sensor_uid suid, const sns_std_attr_event& attributes);
    // The `n`-th send_request (1 = the first) throws std::runtime_error.
    void throw_on_request(size_t n);
    // Delivers `encoded_event` to the event callback registered for `suid`,
    // from the fake's thread.
    void deliver(sensor_uid suid, std::string encoded_event,
                 std::chrono::milliseconds delay = std::chrono::milliseconds(0));

    // --- What arrived ----------------------------------------------------------
    std::vector<fake_request> requests() const;
    std::vector<fake_registration> registrations() const;
    bool is_registered(sensor_uid suid) const;
    // Returns once every delivery scheduled so far has been made.
    void wait_idle();
    // Stops answering; nothing is delivered afterwards.
    void stop();

    // --- Message builders ------------------------------------------------------
    static std::string make_lookup_event(const std::string& data_type,
                                         const std::vector<sensor_uid>& suids,
                                         uint32_t msg_id = kLookupEventMsgId);
    static std::string make_event_msg(sensor_uid suid,
                                      const std::vector<std::pair<uint32_t, std::string>>& events);

private:
    struct sensor_type {
        std::vector<sensor_uid> suids;
        int answer_from = 1;
        int lookups = 0;
        bool empty_before = false;
        std::chrono::milliseconds delay{0};
    };
    struct delivery {
        std::chrono::steady_clock::time_point due;
        uint64_t sequence;
        sensor_uid suid;
        std::string encoded_event;
        bool unregister = false;  // drop the registration instead of delivering
    };

    void answer(const fake_request& request);
    void schedule(delivery item);
    void run();
    void perform(const delivery& item);

    mutable std::mutex _mutex;
    std::condition_variable _wake;
    std::condition_variable _idle;
    bool _stopping = false;
    bool _busy = false;
    uint64_t _next_sequence = 0;
    size_t _throw_on = 0;
    std::vector<fake_request> _requests;
    std::vector<fake_registration> _registrations;
    std::vector<std::pair<sensor_uid, tav_register_cb>> _callbacks;
    std::map<std::string, sensor_type> _sensor_types;
    std::vector<std::pair<sensor_uid, sns_std_attr_event>> _attributes;
    std::vector<delivery> _queue;
    std::thread _thread;
};

// Puts discovery's process-wide state back to its load-time values, so test
// cases that share a process start alike.
void reset_discovery_state();

}  // namespace test
}  // namespace kivhal
