#pragma once

// Message ids of the sensor core's protocol-buffer messages that this library
// sends and reads, and the suspend configuration every request carries.

#include <cstdint>

namespace kivhal {
namespace msg {

constexpr uint32_t ATTRIBUTE_REQUEST = 1;
constexpr uint32_t DISABLE_REQUEST = 10;
constexpr uint32_t LOOKUP_REQUEST = 512;
constexpr uint32_t ATTRIBUTE_EVENT = 128;
constexpr uint32_t LOOKUP_EVENT = 768;

constexpr uint32_t PROCESSOR_KIND = 0;
constexpr uint32_t DELIVERY_MODE = 1;

}  // namespace msg
}  // namespace kivhal
