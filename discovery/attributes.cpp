#include <errno.h>
#include <time.h>
#include <unistd.h>

#include <climits>
#include <utility>

#include "discovery_util.h"
#include "kiv_log.h"
#include "kiv_sensor_factory.h"
#include "sns_client.pb.h"
#include "sns_msg_ids.h"
#include "sns_std_attr.pb.h"

using kivhal::discovery::increment_or_abort;

namespace {

constexpr int kSessionId = 0;

constexpr int kAttributeWaitSteps = 100;
constexpr int64_t kAttributeWaitStepNs = 30 * kivhal::discovery::kNanosPerMilli;
constexpr int64_t kReleaseSettleMs = 50;

// A relative monotonic sleep that starts over when a signal cuts it short.
int sleep_attribute_step() {
    return kivhal::discovery::current_clock().sleep_ns(kAttributeWaitStepNs);
}

}  // namespace

std::vector<std::pair<std::string, std::vector<sensor_uid>>> kiv_sensor_factory::suid_snapshot() {
    std::vector<std::pair<std::string, std::vector<sensor_uid>>> snapshot;
    kivhal::lock_guard lock(discoveryMutex);
    snapshot.assign(suidMap.begin(), suidMap.end());
    return snapshot;
}

sns_client_request_msg kiv_sensor_factory::create_attr_request(sensor_uid suid, bool disable) {
    sns_std_attr_req attr_req;
    attr_req.set_streamupdates(false);
    std::string attr_payload;
    attr_req.SerializeToString(&attr_payload);

    sns_client_request_msg envelope;
    envelope.mutable_suid()->set_uidlow(suid.low);
    envelope.mutable_suid()->set_uidhigh(suid.high);
    envelope.set_msg_id(disable ? kivhal::msg::DISABLE_REQUEST : kivhal::msg::ATTRIBUTE_REQUEST);
    envelope.mutable_suspendconfig()->set_processorkind(kivhal::msg::PROCESSOR_KIND);
    envelope.mutable_suspendconfig()->set_deliverymode(kivhal::msg::DELIVERY_MODE);
    envelope.mutable_request()->set_payload(attr_payload);
    return envelope;
}

void kiv_sensor_factory::retrieve_attributes() {
    eventCallback = [this](const uint8_t* data, uint32_t length, uint64_t) {
        default_attributes_lookup_callback(data, length, 0);
    };

    const auto sensors = suid_snapshot();
    int index = 0;
    for (const auto& entry : sensors) {
        for (const sensor_uid& suid : entry.second) {
            {
                kivhal::lock_guard lock(attrMutex);
                increment_or_abort(pendingAttributes);
            }
            KIV_LOGD("requesting attributes for %s-%d", entry.first.c_str(), index++);
            std::string encoded;
            create_attr_request(suid, false).SerializeToString(&encoded);
            tavInterface->register_cb(suid, responseCallback, errorCallback, eventCallback);
            tavInterface->send_request(suid, true, encoded, kSessionId);
        }
    }

    KIV_LOGD("waiting for attributes...");
    kivhal::unique_lock lock(attrMutex);
    KIV_LOGD("attributes request count %d", kAttributeWaitSteps);
    int err = 0;
    for (int count = kAttributeWaitSteps; count > 0; count--) {
        KIV_LOGD("attributes to be received %d", pendingAttributes);
        if (pendingAttributes == 0) {
            break;
        }
        lock.unlock();
        err = sleep_attribute_step();
        lock.lock();
        if (err != 0) {
            KIV_LOGE("clock_nanosleep() failed, err=%d, count=%d", err, count);
        }
    }

    // Still under attrMutex: late answers are stored but not counted until
    // the verdict below is written.
    for (const auto& entry : suid_snapshot()) {
        for (const sensor_uid& suid : entry.second) {
            KIV_LOGD("requesting rel attributes for %s", entry.first.c_str());
            std::string encoded;
            create_attr_request(suid, true).SerializeToString(&encoded);
            tavInterface->send_request(suid, true, encoded, kSessionId);
        }
    }
    kivhal::discovery::sleep_ms(kReleaseSettleMs);
    if (pendingAttributes != 0) {
        KIV_LOGE("timeout while waiting for attributes, pending = %d, err = %d", pendingAttributes,
                 err);
    } else {
        KIV_LOGD("attributes received");
    }
}

void kiv_sensor_factory::default_attributes_lookup_callback(const uint8_t* data, uint32_t length,
                                                            uint64_t /*timestamp*/) {
    if (length > static_cast<uint32_t>(INT_MAX) || (data == nullptr && length != 0)) {
        KIV_LOGE("dropping attribute message of length %u", length);
        return;
    }
    sns_client_event_msg msg;
    msg.ParseFromArray(data, static_cast<int>(length));
    sensor_uid suid{msg.suid().uidlow(), msg.suid().uidhigh()};
    int index = 0;
    for (const auto& event : msg.eventlist()) {
        KIV_LOGV("event[%d] msg_id=%d", index++, event.msg_id());
        if (event.msg_id() == kivhal::msg::ATTRIBUTE_EVENT) {
            handle_attribute_event(suid, event);
        }
    }
}

void kiv_sensor_factory::handle_attribute_event(sensor_uid suid,
                                                const sns_client_event_msg_sns_client_event& event) {
    sns_std_attr_event attr_event;
    attr_event.ParseFromString(event.payload());
    sensor_attributes attributes;
    for (const sns_std_attr& attr : attr_event.attributelist()) {
        attributes.set_attribute(attr.attributeid(), attr.value());
    }
    {
        kivhal::lock_guard lock(attributesMapMutex);
        attributesMap[suid] = std::move(attributes);
    }

    kivhal::lock_guard lock(attrMutex);
    if (pendingAttributes != 0) {
        pendingAttributes--;
        KIV_LOGV("pending attributes count %d", pendingAttributes);
    }
}

bool kiv_sensor_factory::find_attributes(sensor_uid suid, sensor_attributes* out) const {
    kivhal::lock_guard lock(attributesMapMutex);
    auto found = attributesMap.find(suid);
    if (found == attributesMap.end()) return false;
    *out = found->second;
    return true;
}
