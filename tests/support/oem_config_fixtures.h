#pragma once

// OEM configurations shared by the linter's and the schema's tests.

namespace kivhal {
namespace test {

// Mistakes the linter only warns about: an unknown attribute, a threshold type
// read by its prefix, an exercise on a sensor type no data type has.
constexpr char kWarningsOnlyConfig[] = R"(<configuration type="KIV_oem_datatype"><datatypes>
    <datatype sensor_type="steps" type="steps" data_type_value="0x1" colour="red"/></datatypes><goals>
    <goal data_type_value="0x1"><threshold type="integer" type_value="5" comparison_type="GREATER_THAN_OR_EQUAL"/>
    </goal></goals><autoExerciseType>
    <exercisetype type="walk" sensor_type="exercise" exercise_num="2" auto_stop="true"/>
  </autoExerciseType></configuration>
)";

}  // namespace test
}  // namespace kivhal
