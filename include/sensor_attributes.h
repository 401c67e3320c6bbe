#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "sns_std_attr.pb.h"

// One sensor's attributes as the core reported them, keyed by attribute id.
// Every getter throws std::out_of_range ("unordered_map::at: key not found")
// for an absent id and std::runtime_error when the value has the wrong shape.
class sensor_attributes {
  public:
    static constexpr int32_t STREAM_TYPE_ATTRIBUTE_ID = 16;

    sensor_attributes();

    void set_attribute(int32_t attribute_id, const sns_std_attr_value& value);

    std::string get_string(int32_t attribute_id) const;
    std::vector<float> get_floats(int32_t attribute_id) const;
    std::vector<int64_t> get_ints(int32_t attribute_id) const;
    std::vector<bool> get_bools(int32_t attribute_id) const;
    std::vector<std::pair<float, float>> get_ranges(int32_t attribute_id) const;
    int64_t get_stream_type() const;

    const std::unordered_map<int32_t, sns_std_attr_value>& attributes() const {
        return _attributes;
    }

  private:
    const sns_std_attr_value& value_of(int32_t attribute_id) const;

    std::unordered_map<int32_t, sns_std_attr_value> _attributes;
};
