#include "kiv_types.h"

namespace vendor {
namespace zep {
namespace hardware {
namespace kiv_types {

namespace {

constexpr float kTableMaxLoadFactor = 1.0f;

template <typename Table>
Table make_table() {
    Table table;
    table.max_load_factor(kTableMaxLoadFactor);
    return table;
}

// Values below the extended range: small base codes plus a block at 0x1000.
constexpr int32_t kExtendedRangeStart = 0x5000;
constexpr int32_t kBlockStart = 0x1000;
constexpr int32_t kBlockEnd = 0x1013;
constexpr int32_t kBaseMax = 17;

// Codes of the 0x1000 block; NONE means the value falls through to the base rule.
int block_format(int32_t value) {
    switch (value) {
        case 0x1000:
        case 0x1008:
        case 0x1009:
        case 0x100A:
        case 0x100B:
        case 0x100C:
        case 0x1013:
            return OUTPUT_FORMAT_INT;
        case 0x1001:
        case 0x1002:
        case 0x1005:
        case 0x1006:
        case 0x1007:
            return OUTPUT_FORMAT_FLOAT;
        default:
            return OUTPUT_FORMAT_NONE;
    }
}

int base_format(int32_t value) {
    if (value >= kBlockStart && value <= kBlockEnd) {
        int format = block_format(value);
        if (format != OUTPUT_FORMAT_NONE) return format;
    }
    if (value < 0 || value > kBaseMax) return OUTPUT_FORMAT_NONE;
    switch (value) {
        case 2:
        case 3:
        case 6:
        case 7:
            return OUTPUT_FORMAT_FLOAT;
        case 1:
        case 17:
            return OUTPUT_FORMAT_INT;
        default:
            return OUTPUT_FORMAT_NONE;
    }
}

int extended_format(int32_t value) {
    switch (value) {
        case 0x5000:
        case 0x5002:
        case 0x5003:
        case 0x500C:
            return OUTPUT_FORMAT_FLOAT;
        case 0x5001:
            return 3;
        case 0x5010:
            return OUTPUT_FORMAT_INT;
        case 0x5015:
        case 0x5016:
        case 0x5017:
        case 0x5019:
            return 11;
        case 0x5018:
            return 10;
        case 0xA000:
        case 0xA001:
        case 0xA002:
            return 4;
        case 0xA003:
            return 5;
        case 0xA004:
            return 7;
        case 0xA005:
            return 6;
        case 0xA006:
        case 0xA007:
            return 8;
        case 0x10000:
        case 0x20000:
        case 0x30000:
            return OUTPUT_FORMAT_BYTES;
        default:
            return OUTPUT_FORMAT_NONE;
    }
}

}  // namespace

DataTypeTable dataTypeMap = make_table<DataTypeTable>();
ExerciseTypeTable exerTypeMap = make_table<ExerciseTypeTable>();

int datatype_output_format(DataType type) {
    const int32_t value = static_cast<int32_t>(type);
    return value < kExtendedRangeStart ? base_format(value) : extended_format(value);
}

}  // namespace kiv_types
}  // namespace hardware
}  // namespace zep
}  // namespace vendor
