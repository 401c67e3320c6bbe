#pragma once

// Attribute ids the simulated core sends and kivhal-info prints. The stream
// type id is the one the library's getter reads.

#include <cstdint>

#include "sensor_attributes.h"

namespace kivhal {
namespace tools {

constexpr int32_t kAttrName = 0;
constexpr int32_t kAttrVendor = 1;
constexpr int32_t kAttrType = 2;
constexpr int32_t kAttrRates = 3;
constexpr int32_t kAttrRanges = 4;
constexpr int32_t kAttrStreamType = sensor_attributes::STREAM_TYPE_ATTRIBUTE_ID;

enum stream_type : int64_t {
    kStreamStreaming = 0,
    kStreamOnChange = 1,
    kStreamSingleOutput = 2,
};

inline const char* stream_type_name(int64_t type) {
    switch (type) {
        case kStreamStreaming:
            return "streaming";
        case kStreamOnChange:
            return "on-change";
        case kStreamSingleOutput:
            return "single-output";
        default:
            return "unknown";
    }
}

}  // namespace tools
}  // namespace kivhal
