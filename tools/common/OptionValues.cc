#include "OptionValues.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

bool takeOptionValue(const std::vector<std::string>& arguments, std::size_t& index,
                     std::string& value, std::string& error) {
    if (index + 1 >= arguments.size()) {
        error = arguments[index] + " needs a value";
        return false;
    }
    value = arguments[++index];
    return true;
}

bool parseSecondsOption(const std::string& option, const std::string& text, double maximum,
                        double& seconds, std::string& error) {
    errno = 0;
    char* end = nullptr;
    const double parsed = std::strtod(text.c_str(), &end);
    // strtod skips leading blanks; a number given with them is refused all the same.
    if (text.empty() || std::isspace(static_cast<unsigned char>(text[0])) != 0 || errno != 0 ||
        *end != '\0' || !(parsed > 0.0) || parsed > maximum) {
        char bound[32];
        std::snprintf(bound, sizeof(bound), "%g", maximum);
        error = option + ": '" + text + "' is not a number of seconds in (0, " + bound + "]";
        return false;
    }
    seconds = parsed;
    return true;
}

std::string defaultServiceName() {
    const char* fromEnvironment = std::getenv("TWAMP_SERVICE");
    return fromEnvironment != nullptr && fromEnvironment[0] != '\0' ? fromEnvironment : "twamp";
}
