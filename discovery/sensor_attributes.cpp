#include "sensor_attributes.h"

#include <stdexcept>

namespace {

constexpr float kMaxLoadFactor = 1.0f;

}  // namespace

sensor_attributes::sensor_attributes() {
    _attributes.max_load_factor(kMaxLoadFactor);
}

void sensor_attributes::set_attribute(int32_t attribute_id, const sns_std_attr_value& value) {
    _attributes[attribute_id] = value;
}
