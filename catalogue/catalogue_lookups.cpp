#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "catalogue.h"
#include "kiv_log.h"

namespace kivhal {
namespace catalogue {

namespace {

// By convention "0x"; never examined.
constexpr size_t kHexPrefixLength = 2;
constexpr int kBitsPerHexDigit = 4;
constexpr int kDecimalDigits = 10;
// Beyond this many places every non-zero term is already infinite.
constexpr size_t kMaxPlace = 1024;

bool hex_digit_value(char c, int* value) {
    if (c >= '0' && c <= '9') {
        *value = c - '0';
    } else if (c >= 'a' && c <= 'f') {
        *value = c - 'a' + kDecimalDigits;
    } else if (c >= 'A' && c <= 'F') {
        *value = c - 'A' + kDecimalDigits;
    } else {
        return false;
    }
    return true;
}

// Truncates toward zero and clamps, the way the device's float-to-int
// conversion does (NaN becomes 0).
int32_t saturate_to_int32(double value) {
    if (std::isnan(value)) return 0;
    if (value >= static_cast<double>(std::numeric_limits<int32_t>::max())) {
        return std::numeric_limits<int32_t>::max();
    }
    if (value <= static_cast<double>(std::numeric_limits<int32_t>::min())) {
        return std::numeric_limits<int32_t>::min();
    }
    return static_cast<int32_t>(value);
}

// A text too short to reach its digits has an empty digit string too.
size_t digit_count(const char* text) {
    for (size_t i = 0; i < kHexPrefixLength; ++i) {
        if (text[i] == '\0') return 0;
    }
    return strlen(text + kHexPrefixLength);
}

}  // namespace

std::string getSensorType(kt::DataTypeTable& dataTypes, kt::ExerciseTypeTable& exercises,
                          uint32_t type, bool isExercise) {
    const int32_t key = static_cast<int32_t>(type);
    if (isExercise) return exercises[static_cast<kt::ExerciseType>(key)].sensorType;
    return dataTypes[static_cast<kt::DataType>(key)].sensorType;
}

bool isSampleDataType(kt::DataTypeTable& dataTypes, kt::DataType type) {
    return dataTypes[type].isSample;
}

int32_t hexStrToDec(const char* text) {
    if (text == nullptr) {
        KIV_LOGE("missing hexadecimal value");
        abort();
    }
    const size_t count = digit_count(text);
    if (count == 0) {
        KIV_LOGE("no hexadecimal digits in '%s'", text);
        abort();
    }
    const char* digits = text + kHexPrefixLength;
    // A character that is not a hex digit repeats the digit to its right.
    int digit = 0;
    int32_t sum = 0;
    for (size_t k = 0; k < count; ++k) {
        hex_digit_value(digits[count - 1 - k], &digit);
        const int exponent = static_cast<int>(std::min(k, kMaxPlace)) * kBitsPerHexDigit;
        const double term = std::ldexp(static_cast<double>(digit), exponent);
        sum = saturate_to_int32(static_cast<double>(sum) + term);
    }
    return sum;
}

}  // namespace catalogue
}  // namespace kivhal
