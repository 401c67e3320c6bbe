#include <cutils/properties.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "kivhal/host.h"

namespace kivhal {
namespace host {
namespace {

struct property_store {
    std::mutex mutex;
    std::map<std::string, std::string> values;
};

property_store& the_store() {
    static property_store* store = new property_store();
    return *store;
}

}  // namespace

void set_property(const std::string& name, const std::string& value) {
    property_store& s = the_store();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.values[name] = value;
}

void clear_property(const std::string& name) {
    property_store& s = the_store();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.values.erase(name);
}

void clear_properties() {
    property_store& s = the_store();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.values.clear();
}

}  // namespace host
}  // namespace kivhal

extern "C" int property_get(const char* key, char* value, const char* default_value) {
    std::string found;
    bool have = false;
    {
        kivhal::host::property_store& s = kivhal::host::the_store();
        std::lock_guard<std::mutex> lock(s.mutex);
        auto it = s.values.find(key != nullptr ? key : "");
        if (it != s.values.end() && !it->second.empty()) {
            found = it->second;
            have = true;
        }
    }
    if (!have) found = default_value != nullptr ? default_value : "";

    // Like the platform: at most PROPERTY_VALUE_MAX - 1 bytes, always terminated.
    size_t length = std::min(found.size(), static_cast<size_t>(PROPERTY_VALUE_MAX - 1));
    memcpy(value, found.data(), length);
    value[length] = '\0';
    return static_cast<int>(length);
}
