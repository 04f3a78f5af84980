#include "OptionMap.h"

#include <cerrno>
#include <cstdlib>

bool OptionMap::parse(int argc, char** argv, const std::set<std::string>& known,
                      std::string& error) {
    for (int i = 1; i < argc; i += 2) {
        const std::string name = argv[i];
        if (known.count(name) == 0) {
            error = "unknown option " + name;
            return false;
        }
        if (i + 1 >= argc) {
            error = "option " + name + " needs a value";
            return false;
        }
        values[name] = argv[i + 1];
    }
    return true;
}

std::string OptionMap::text(const std::string& name, const std::string& fallback) const {
    const auto entry = values.find(name);
    return entry == values.end() ? fallback : entry->second;
}

bool OptionMap::number(const std::string& name, uint64_t fallback, uint64_t& value) const {
    const auto entry = values.find(name);
    if (entry == values.end()) {
        value = fallback;
        return true;
    }
    char* end = nullptr;
    errno = 0;
    const unsigned long long parsed = std::strtoull(entry->second.c_str(), &end, 10);
    if (errno != 0 || end == entry->second.c_str() || *end != '\0') {
        return false;
    }
    value = parsed;
    return true;
}
