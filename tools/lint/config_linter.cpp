#include "config_linter.h"

#include <tinyxml2.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <type_traits>

#include "input_file.h"
#include "kiv_sensor_factory.h"
#include "kiv_types.h"
#include "tool_cli.h"
#include "utf8_text.h"

namespace kivhal {
namespace tools {

namespace {

using tinyxml2::XMLElement;
namespace kt = vendor::zep::hardware::kiv_types;

constexpr char kIntType[] = "int";
constexpr char kFloatType[] = "float";
constexpr char kByteType[] = "byte";
constexpr char kGreaterOrEqual[] = "GREATER_THAN_OR_EQUAL";
constexpr char kLessOrEqual[] = "LESS_THAN_OR_EQUAL";
constexpr size_t kHexPrefixLen = 2;

std::string quoted(const char* text) {
    return std::string("\"") + text + "\"";
}

std::string hex(int32_t value) {
    char text[16];
    snprintf(text, sizeof(text), "0x%x", static_cast<uint32_t>(value));
    return text;
}

std::string upper(const char* text) {
    std::string out(text);
    for (char& c : out) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    return out;
}

// The bytes of a name, with what is not UTF-8 shown as \xNN.
std::string printable(const char* text) {
    std::string out;
    const auto* bytes = reinterpret_cast<const unsigned char*>(text);
    const size_t size = strlen(text);
    for (size_t at = 0; at < size;) {
        const size_t length = utf8_sequence_length(bytes + at, size - at);
        if (length == 0) {
            char escaped[8];
            snprintf(escaped, sizeof(escaped), "\\x%02X", bytes[at]);
            out += escaped;
            ++at;
        } else {
            out.append(text + at, length);
            at += length;
        }
    }
    return out;
}

// Whether an integer as tinyxml2 reads it (decimal, or hex after "0x") fits
// the 32 bits it is stored in; the parser keeps whatever the overflow left.
bool fits_int32(const char* text) {
    while (*text == ' ' || *text == '\t' || *text == '\n' || *text == '\r') ++text;
    errno = 0;
    if (text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        const unsigned long long value = strtoull(text + kHexPrefixLen, nullptr, 16);
        return errno != ERANGE && value <= UINT32_MAX;
    }
    const long long value = strtoll(text, nullptr, 10);
    return errno != ERANGE && value >= INT32_MIN && value <= INT32_MAX;
}

// Namespace declarations and schema hints (xsi:noNamespaceSchemaLocation)
// are there for editors and validators; the parser never looks at them.
bool is_for_validators(const char* name) {
    return strncmp(name, "xmlns", strlen("xmlns")) == 0 ||
           strncmp(name, "xsi:", strlen("xsi:")) == 0;
}

// How the parser matches a word: as a prefix of the written value.
enum class match { none, exact, prefix };
template <size_t N>
match match_prefix(const char* text, const char (&word)[N]) {
    if (strncmp(text, word, N - 1) != 0) return match::none;
    return text[N - 1] == '\0' ? match::exact : match::prefix;
}

struct data_type_row {
    int line;
    std::string type_name;
    std::string sensor_type;
};

class linter {
  public:
    std::vector<lint_finding> run(const std::string& path);

  private:
    void error(const XMLElement* at, const std::string& message) { add(at, true, message); }
    void warning(const XMLElement* at, const std::string& message) { add(at, false, message); }
    void fatal(const XMLElement* at, const std::string& message) {
        add(at, true, message);
        _findings.back().fatal = true;
    }
    void add(const XMLElement* at, bool is_error, const std::string& message) {
        _findings.push_back({at ? at->GetLineNum() : 1, is_error, false, message});
    }

    void check_children(const XMLElement& parent, std::set<std::string> known);
    void check_attributes(const XMLElement& element, std::set<std::string> known);
    std::optional<int32_t> data_type_value(const XMLElement& element);
    void check_configuration(const XMLElement& configuration, bool last);
    void check_data_types(const XMLElement& datatypes);
    void check_goals(const XMLElement& goals);
    void check_threshold(const XMLElement& threshold, int32_t key);
    void check_exercises(const XMLElement& container);
    void check_exercise_data_types(const XMLElement& exercise, bool auto_start);
    template <typename T, typename Query>
    void check_number(const XMLElement& element, const char* name, const char* kind,
                      const char* default_text, Query query);
    void check_exercise_sensor_types();

    kiv_sensor_factory _factory;  // the parser's own hex conversion
    std::vector<lint_finding> _findings;
    std::map<int32_t, data_type_row> _data_types;
    std::map<int32_t, int> _exercises;
    std::vector<std::pair<const XMLElement*, std::string>> _stop_pause_sensor_types;
};

std::vector<lint_finding> linter::run(const std::string& path) {
    check_input_file(path, input_kind::regular_file, kMaxConfigFileSize);
    read_file(path);  // unreadable files are a usage error, not a finding
    tinyxml2::XMLDocument document(true, tinyxml2::PRESERVE_WHITESPACE);
    if (document.LoadFile(path.c_str()) != tinyxml2::XML_SUCCESS) {
        _findings.push_back({document.ErrorLineNum(), true, true,
                             std::string("not well-formed XML (") + document.ErrorName() +
                                 "): the parser rejects the whole file"});
        return _findings;
    }
    const XMLElement* configuration = document.FirstChildElement("configuration");
    if (configuration == nullptr) {
        fatal(document.RootElement(), "no <configuration> element: the parser rejects the file");
        return _findings;
    }
    for (const XMLElement* e = document.FirstChildElement(); e; e = e->NextSiblingElement()) {
        if (strcmp(e->Name(), "configuration") != 0) {
            warning(e, "unknown element <" + std::string(e->Name()) + "> is ignored");
        }
    }
    while (configuration != nullptr) {
        const XMLElement* next = configuration->NextSiblingElement("configuration");
        check_configuration(*configuration, next == nullptr);
        configuration = next;
    }
    check_exercise_sensor_types();
    std::stable_sort(_findings.begin(), _findings.end(),
                     [](const lint_finding& a, const lint_finding& b) { return a.line < b.line; });
    return _findings;
}

void linter::check_children(const XMLElement& parent, std::set<std::string> known) {
    std::set<std::string> seen;
    for (const XMLElement* child = parent.FirstChildElement(); child;
         child = child->NextSiblingElement()) {
        const std::string name = child->Name();
        if (known.count(name) == 0) {
            warning(child, "unknown element <" + name + "> in <" + parent.Name() + "> is ignored");
        } else if (!seen.insert(name).second && name != "datatype" && name != "goal" &&
                   name != "threshold" && name != "exercisetype") {
            warning(child, "only the first <" + name + "> of a <" + parent.Name() +
                               "> is read; this one is ignored");
        }
    }
}

void linter::check_attributes(const XMLElement& element, std::set<std::string> known) {
    for (const auto* a = element.FirstAttribute(); a; a = a->Next()) {
        if (known.count(a->Name()) == 0 && !is_for_validators(a->Name())) {
            warning(&element, "unknown attribute \"" + std::string(a->Name()) + "\" of <" +
                                  element.Name() + "> is ignored");
        }
    }
}

// The value the parser reads, when it can read one at all.
std::optional<int32_t> linter::data_type_value(const XMLElement& element) {
    const char* text = element.Attribute("data_type_value");
    if (text == nullptr) {
        fatal(&element, "<" + std::string(element.Name()) +
                            "> without \"data_type_value\": the parser aborts");
        return std::nullopt;
    }
    if (strlen(text) <= kHexPrefixLen) {
        fatal(&element, "data_type_value " + quoted(text) +
                            " has no digits after its two-character prefix: the parser aborts");
        return std::nullopt;
    }
    const int32_t value = _factory.hexStrToDec(text);
    if (text[0] != '0' || (text[1] != 'x' && text[1] != 'X')) {
        error(&element, "data_type_value " + quoted(text) +
                            " lacks the 0x prefix: the parser skips its first two characters "
                            "and reads " +
                            hex(value));
    } else if (strspn(text + kHexPrefixLen, "0123456789abcdefABCDEF") !=
               strlen(text + kHexPrefixLen)) {
        error(&element, "data_type_value " + quoted(text) +
                            " has non-hex digits: the parser reads " + hex(value));
    } else {
        const char* digits = text + kHexPrefixLen + strspn(text + kHexPrefixLen, "0");
        const size_t count = strlen(digits);
        if (count > 8 || (count == 8 && strchr("89abcdefABCDEF", digits[0]) != nullptr)) {
            error(&element, "data_type_value " + quoted(text) +
                                " is beyond 0x7fffffff: the parser reads " + hex(value));
        }
    }
    return value;
}

void linter::check_configuration(const XMLElement& configuration, bool last) {
    check_attributes(configuration, {"type"});
    check_children(configuration, {"datatypes", "goals", "autoExerciseType"});
    const XMLElement* datatypes = configuration.FirstChildElement("datatypes");
    const XMLElement* first = datatypes ? datatypes->FirstChildElement("datatype") : nullptr;
    if (first == nullptr && last && _data_types.empty()) {
        fatal(&configuration,
              "no data type is defined before the last <configuration> ends: the parse fails");
        return;
    }
    if (datatypes != nullptr) check_data_types(*datatypes);
    if (first != nullptr && configuration.Attribute("type") == nullptr) {
        error(&configuration, "<configuration> holds data types but has no \"type\"");
    }
    if (const XMLElement* goals = configuration.FirstChildElement("goals")) check_goals(*goals);
    if (const XMLElement* exercises = configuration.FirstChildElement("autoExerciseType")) {
        check_exercises(*exercises);
    }
}

void linter::check_data_types(const XMLElement& datatypes) {
    check_children(datatypes, {"datatype"});
    for (const XMLElement* entry = datatypes.FirstChildElement("datatype"); entry;
         entry = entry->NextSiblingElement("datatype")) {
        check_attributes(*entry, {"sensor_type", "type", "data_type_value"});
        const char* sensor_type = entry->Attribute("sensor_type");
        const char* type = entry->Attribute("type");
        for (const char* missing :
             {sensor_type ? nullptr : "sensor_type", type ? nullptr : "type"}) {
            if (missing) {
                fatal(entry, std::string("<datatype> without \"") + missing +
                                 "\": the parser never gets past it");
            }
        }
        if (sensor_type != nullptr && !is_utf8(sensor_type)) {
            error(entry, "sensor_type \"" + printable(sensor_type) + "\" is not UTF-8 text");
        }
        const std::optional<int32_t> key = data_type_value(*entry);
        if (!key || !sensor_type || !type) continue;
        auto earlier = _data_types.find(*key);
        if (earlier != _data_types.end()) {
            error(entry, "data type " + hex(*key) + " is defined again: this overwrites line " +
                             std::to_string(earlier->second.line) + " and clears its goals");
        }
        _data_types[*key] = {entry->GetLineNum(), upper(type), sensor_type};
    }
}

void linter::check_goals(const XMLElement& goals) {
    check_children(goals, {"goal"});
    for (const XMLElement* goal = goals.FirstChildElement("goal"); goal;
         goal = goal->NextSiblingElement("goal")) {
        check_attributes(*goal, {"datatype", "data_type_value"});
        check_children(*goal, {"threshold"});
        const std::optional<int32_t> key = data_type_value(*goal);
        if (!key) continue;
        if (_data_types.count(*key) == 0) {
            error(goal, "goal for data type " + hex(*key) +
                            ", which is not defined in this or an earlier <configuration>: "
                            "the parser drops it");
            continue;
        }
        for (const XMLElement* t = goal->FirstChildElement("threshold"); t;
             t = t->NextSiblingElement("threshold")) {
            check_threshold(*t, *key);
        }
    }
}

template <typename T, typename Query>
void linter::check_number(const XMLElement& element, const char* name, const char* kind,
                          const char* default_text, Query query) {
    const char* text = element.Attribute(name);
    T value{};
    if (text == nullptr) {
        warning(&element, std::string("no \"") + name + "\": the parser uses " + default_text);
    } else if (query(&value) != tinyxml2::XML_SUCCESS) {
        error(&element, std::string(name) + " " + quoted(text) + " is not " + kind +
                            ": the parser uses " + default_text);
    } else if constexpr (std::is_same_v<T, int>) {
        if (!fits_int32(text)) {
            error(&element, std::string(name) + " " + quoted(text) +
                                " is beyond the 32-bit range: the parser reads " +
                                std::to_string(value));
        }
    }
}

void linter::check_threshold(const XMLElement& threshold, int32_t key) {
    check_attributes(threshold, {"type", "type_value", "comparison_type"});
    const char* type = threshold.Attribute("type");
    const char* comparison = threshold.Attribute("comparison_type");
    if (comparison == nullptr) {
        error(&threshold, "<threshold> without \"comparison_type\": the parser drops it");
    } else if (match_prefix(comparison, kGreaterOrEqual) == match::none &&
               match_prefix(comparison, kLessOrEqual) == match::none) {
        error(&threshold, "comparison_type " + quoted(comparison) + " is neither " +
                              kGreaterOrEqual + " nor " + kLessOrEqual + ": the parser drops it");
    } else if (match_prefix(comparison, kGreaterOrEqual) == match::prefix ||
               match_prefix(comparison, kLessOrEqual) == match::prefix) {
        warning(&threshold, "comparison_type " + quoted(comparison) + " is read by its prefix");
    }
    if (type == nullptr) {
        error(&threshold, "<threshold> without \"type\": the parser drops it");
        return;
    }
    int wanted_format = kt::OUTPUT_FORMAT_NONE;
    const char* word = nullptr;
    if (match_prefix(type, kIntType) != match::none) {
        wanted_format = kt::OUTPUT_FORMAT_INT;
        word = kIntType;
        check_number<int>(threshold, "type_value", "an integer", "0",
                          [&](int* v) { return threshold.QueryIntAttribute("type_value", v); });
    } else if (match_prefix(type, kFloatType) != match::none) {
        wanted_format = kt::OUTPUT_FORMAT_FLOAT;
        word = kFloatType;
        check_number<float>(threshold, "type_value", "a float", "0", [&](float* v) {
            return threshold.QueryFloatAttribute("type_value", v);
        });
    } else if (match_prefix(type, kByteType) != match::none) {
        wanted_format = kt::OUTPUT_FORMAT_BYTES;
        word = kByteType;
        if (threshold.Attribute("type_value") == nullptr) {
            error(&threshold, "byte threshold without \"type_value\": the parser drops it");
        }
    } else {
        error(&threshold,
              "threshold type " + quoted(type) + " is not int, float or byte: the parser drops it");
        return;
    }
    if (strcmp(type, word) != 0) {
        warning(&threshold, "threshold type " + quoted(type) + " is read as \"" + word + "\"");
    }
    const int format = kt::datatype_output_format(static_cast<kt::DataType>(key));
    if (format == kt::OUTPUT_FORMAT_NONE) {
        error(&threshold, "data type " + hex(key) +
                              " has output format 0: its goals are never decoded nor accepted");
    } else if (format != wanted_format &&
               (format == kt::OUTPUT_FORMAT_INT || format == kt::OUTPUT_FORMAT_FLOAT ||
                format == kt::OUTPUT_FORMAT_BYTES)) {
        error(&threshold, std::string("threshold type \"") + word + "\" on data type " + hex(key) +
                              ", whose output format is " + std::to_string(format) +
                              ": the value is read as the wrong type");
    } else if (format != wanted_format) {
        warning(&threshold, "data type " + hex(key) + " has output format " +
                                std::to_string(format) + ": its goals are never accepted");
    }
}

void linter::check_exercises(const XMLElement& container) {
    check_children(container, {"exercisetype"});
    for (const XMLElement* e = container.FirstChildElement("exercisetype"); e;
         e = e->NextSiblingElement("exercisetype")) {
        check_attributes(
            *e, {"type", "sensor_type", "exercise_num", "auto_start", "auto_stop", "auto_pause"});
        check_children(*e, {"datatype"});
        if (e->Attribute("type") == nullptr) {
            error(e, "<exercisetype> without \"type\": the parser skips it");
            continue;
        }
        const char* sensor_type = e->Attribute("sensor_type");
        if (sensor_type == nullptr) error(e, "<exercisetype> without \"sensor_type\"");
        if (sensor_type != nullptr && !is_utf8(sensor_type)) {
            error(e, "sensor_type \"" + printable(sensor_type) + "\" is not UTF-8 text");
        }
        check_number<int>(*e, "exercise_num", "an integer", "exercise 0",
                          [&](int* v) { return e->QueryIntAttribute("exercise_num", v); });
        const char* number_text = e->Attribute("exercise_num");
        if (number_text != nullptr && fits_int32(number_text) &&
            e->IntAttribute("exercise_num", 0) < 0) {
            error(e, "exercise_num " + quoted(number_text) +
                         " is negative: exercise numbers count from 0");
        }
        bool flags[3] = {false, false, false};
        const char* names[3] = {"auto_start", "auto_stop", "auto_pause"};
        for (int i = 0; i < 3; ++i) {
            const char* text = e->Attribute(names[i]);
            if (text && e->QueryBoolAttribute(names[i], &flags[i]) != tinyxml2::XML_SUCCESS) {
                error(e, std::string(names[i]) + " " + quoted(text) +
                             " is not a boolean: the parser reads false");
            }
        }
        const int number = e->IntAttribute("exercise_num", 0);
        auto earlier = _exercises.find(number);
        if (earlier != _exercises.end()) {
            error(e, "exercise " + std::to_string(number) +
                         " is defined again: this overwrites line " +
                         std::to_string(earlier->second));
        }
        _exercises[number] = e->GetLineNum();
        if (sensor_type && (flags[1] || flags[2]))
            _stop_pause_sensor_types.emplace_back(e, sensor_type);
        check_exercise_data_types(*e, flags[0]);
    }
}

void linter::check_exercise_data_types(const XMLElement& exercise, bool auto_start) {
    const XMLElement* first = exercise.FirstChildElement("datatype");
    if (first != nullptr && !auto_start) {
        warning(first, "auto_start is not true: the parser ignores these data types");
        return;
    }
    for (const XMLElement* d = first; d; d = d->NextSiblingElement("datatype")) {
        check_attributes(*d, {"type"});
        const char* type = d->Attribute("type");
        if (type == nullptr) {
            warning(d, "<datatype> without \"type\" is skipped");
            continue;
        }
        const std::string name = upper(type);
        const bool known =
            std::any_of(_data_types.begin(), _data_types.end(),
                        [&](const auto& row) { return row.second.type_name == name; });
        if (!known) {
            error(d, "exercise data type " + quoted(type) +
                         " matches no data type defined so far: the auto-start list loses it");
        }
    }
}

// Discovery looks up only the sensor types of data types; an exercise on any
// other sensor type never counts as available.
void linter::check_exercise_sensor_types() {
    // Plain names, not a structured binding: C++17 lambdas cannot capture one.
    for (const auto& entry : _stop_pause_sensor_types) {
        const XMLElement* element = entry.first;
        const std::string& sensor_type = entry.second;
        const bool looked_up =
            std::any_of(_data_types.begin(), _data_types.end(),
                        [&](const auto& row) { return row.second.sensor_type == sensor_type; });
        if (!looked_up) {
            warning(element, "sensor type " + quoted(sensor_type.c_str()) +
                                 " is no data type's: discovery never looks it up, so auto "
                                 "stop and pause never list this exercise");
        }
    }
}

}  // namespace

std::vector<lint_finding> lint_config(const std::string& path) {
    return linter().run(path);
}

}  // namespace tools
}  // namespace kivhal
