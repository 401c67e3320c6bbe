#include "sensor_attributes.h"

#include <stdexcept>

namespace {

constexpr float kMaxLoadFactor = 1.0f;
// The text the device's standard library gives a failed unordered_map::at;
// callers match on it, so every host library must give the same.
constexpr const char* kAttributeAbsent = "unordered_map::at: key not found";
constexpr int kRangeBoundCount = 2;

using attr_element = sns_std_attr_value_data;

std::string element_error(int32_t attribute_id, int index, const char* kind) {
    return "attribute " + std::to_string(attribute_id) + " element " + std::to_string(index) +
           " is not " + kind;
}

bool is_float_range(const attr_element& element) {
    if (!element.has_nestedvalue()) {
        return false;
    }
    const sns_std_attr_value& bounds = element.nestedvalue();
    return bounds.elementlist_size() >= kRangeBoundCount &&
           bounds.elementlist(0).has_floatvalue() && bounds.elementlist(1).has_floatvalue();
}

}  // namespace

sensor_attributes::sensor_attributes() {
    _attributes.max_load_factor(kMaxLoadFactor);
}

void sensor_attributes::set_attribute(int32_t attribute_id, const sns_std_attr_value& value) {
    _attributes[attribute_id] = value;
}

const sns_std_attr_value& sensor_attributes::value_of(int32_t attribute_id) const {
    auto it = _attributes.find(attribute_id);
    if (it == _attributes.end()) {
        throw std::out_of_range(kAttributeAbsent);
    }
    return it->second;
}

std::string sensor_attributes::get_string(int32_t attribute_id) const {
    const sns_std_attr_value& value = value_of(attribute_id);
    if (value.elementlist_size() == 0 || !value.elementlist(0).has_stringvalue()) {
        throw std::runtime_error("attribute value is not a string");
    }
    return value.elementlist(0).stringvalue();
}

std::vector<float> sensor_attributes::get_floats(int32_t attribute_id) const {
    const sns_std_attr_value& value = value_of(attribute_id);
    std::vector<float> floats;
    for (int i = 0; i < value.elementlist_size(); i++) {
        if (!value.elementlist(i).has_floatvalue()) {
            throw std::runtime_error(element_error(attribute_id, i, "a float"));
        }
        floats.push_back(value.elementlist(i).floatvalue());
    }
    return floats;
}

std::vector<int64_t> sensor_attributes::get_ints(int32_t attribute_id) const {
    const sns_std_attr_value& value = value_of(attribute_id);
    std::vector<int64_t> ints;
    for (int i = 0; i < value.elementlist_size(); i++) {
        if (!value.elementlist(i).has_intvalue()) {
            throw std::runtime_error(element_error(attribute_id, i, "an int"));
        }
        ints.push_back(value.elementlist(i).intvalue());
    }
    return ints;
}

std::vector<bool> sensor_attributes::get_bools(int32_t attribute_id) const {
    const sns_std_attr_value& value = value_of(attribute_id);
    std::vector<bool> bools;
    for (int i = 0; i < value.elementlist_size(); i++) {
        if (!value.elementlist(i).has_boolvalue()) {
            throw std::runtime_error(element_error(attribute_id, i, "a boolean"));
        }
        bools.push_back(value.elementlist(i).boolvalue());
    }
    return bools;
}

std::vector<std::pair<float, float>> sensor_attributes::get_ranges(int32_t attribute_id) const {
    const sns_std_attr_value& value = value_of(attribute_id);
    std::vector<std::pair<float, float>> ranges;
    for (const attr_element& element : value.elementlist()) {
        if (!is_float_range(element)) {
            throw std::runtime_error("malformed value for SNS_STD_SENSOR_ATTRID_RANGES");
        }
        const sns_std_attr_value& bounds = element.nestedvalue();
        ranges.emplace_back(bounds.elementlist(0).floatvalue(), bounds.elementlist(1).floatvalue());
    }
    return ranges;
}

int64_t sensor_attributes::get_stream_type() const {
    std::vector<int64_t> types = get_ints(STREAM_TYPE_ATTRIBUTE_ID);
    if (types.empty()) {
        throw std::runtime_error("stream_type attribute not available");
    }
    return types.front();
}
