#pragma once

// An in-process stand-in for the connection: it decodes every request the way
// the sensor core would and answers it at once, on the sender's thread, or
// holds the answer until asked.
//
// Lookups (512) of configured types get a lookup event (768); unknown types get
// no answer. Attribute requests (1) of sensors set to answer get an empty
// attribute event (128). A disable request (10) drops that sensor's
// registration, as the connection does.

#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "sns_client.pb.h"
#include "sns_std_attr.pb.h"
#include "sns_suid.pb.h"
#include "tav_interface.h"

namespace kivhal {
namespace test {

inline constexpr uint64_t kLookupSuidHalf = 0xababababababababULL;
inline const sensor_uid kLookupSuid{kLookupSuidHalf, kLookupSuidHalf};

// One request as the fake decoded it: a lookup for the lookup service, an
// attribute request otherwise.
struct fake_request {
    sensor_uid suid{0, 0};
    bool flag = false;
    int session_id = 0;
    sns_client_request_msg envelope;
    sns_suid_req lookup;
    sns_std_attr_req attr;

    uint32_t msg_id() const { return envelope.msg_id(); }
};

class fake_tav_interface : public tav_interface {
  public:
    int register_cb(sensor_uid suid, tav_resp_cb resp_cb, tav_error_cb error_cb,
                    tav_event_cb event_cb) override;
    int send_request(sensor_uid suid, bool flag, std::string payload, int session_id) override;

    // Lookups of `data_type` are answered with `suids`, in request order; with
    // `attributes`, so are those sensors' attribute requests.
    void add_sensor_type(const std::string& data_type, std::vector<sensor_uid> suids,
                         bool attributes = false);
    const std::vector<fake_request>& requests() const { return _requests; }
    // Set: answers wait for deliver_held() instead of coming at once.
    bool hold_answers = false;
    void deliver_held();

    static std::string make_lookup_event(const std::string& data_type,
                                         const std::vector<sensor_uid>& suids);
    static std::string make_event_msg(sensor_uid suid,
                                      const std::vector<std::pair<uint32_t, std::string>>& events);

  private:
    std::vector<fake_request> _requests;
    std::vector<std::pair<tav_event_cb, std::string>> _held;
    std::unordered_map<sensor_uid, tav_event_cb, sensor_uid_hash> _callbacks;
    std::map<std::string, std::vector<sensor_uid>> _sensor_types;
    std::unordered_set<sensor_uid, sensor_uid_hash> _with_attributes;
};

// Puts discovery's process-wide state back to its load-time values, so test
// cases that share a process start alike.
void reset_discovery_state();

}  // namespace test
}  // namespace kivhal
