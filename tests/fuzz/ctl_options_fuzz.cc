// twamp-ctl's command line: any arguments, in any order, with any bytes.
//
// Input: the arguments, separated by zero bytes; the first argument is the
// default service name (what TWAMP_SERVICE would give).
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "CtlOptions.h"

namespace {

std::vector<std::string> splitArguments(const uint8_t* data, std::size_t size) {
    std::vector<std::string> arguments(1);
    for (std::size_t index = 0; index < size; ++index) {
        if (data[index] == 0) {
            arguments.emplace_back();
        } else {
            arguments.back().push_back(static_cast<char>(data[index]));
        }
    }
    return arguments;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    std::vector<std::string> arguments = splitArguments(data, size);
    const std::string defaultService = arguments.front();
    arguments.erase(arguments.begin());
    CtlOptions options;
    std::string error;
    if (parseCtlOptions(arguments, defaultService, options, error)) {
        sessionIdHex(options.sessionId);
    }
    for (const std::string& argument : arguments) {
        uint8_t sessionId[16];
        parseSessionId(argument, sessionId, error);
    }
    return 0;
}
