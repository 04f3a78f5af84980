// twamp-reflector's command line: any arguments, in any order, with any bytes.
//
// Input: the arguments, separated by zero bytes.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "ReflectorOptions.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    std::vector<std::string> arguments(1);
    for (std::size_t index = 0; index < size; ++index) {
        if (data[index] == 0) {
            arguments.emplace_back();
        } else {
            arguments.back().push_back(static_cast<char>(data[index]));
        }
    }
    ReflectorOptions options;
    std::string error;
    parseReflectorOptions(arguments, options, error);
    return 0;
}
