#include "CtlOptions.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace {

constexpr std::size_t kSessionIdSize = 16;
constexpr std::size_t kHexIdLength = 32;
constexpr double kWaitTimeoutSeconds = 960.0;
constexpr std::size_t kDstIpAddressMax = 45;  // 46 bytes with the terminator

bool isHexDigit(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return c - 'A' + 10;
}

// A whole decimal number in [minimum, maximum].
bool parseNumber(const std::string& option, const std::string& text, long long minimum,
                 long long maximum, long long& value, std::string& error) {
    if (text.empty()) {
        error = option + " needs a number";
        return false;
    }
    errno = 0;
    char* end = nullptr;
    const long long parsed = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0') {
        error = option + ": '" + text + "' is not a whole number";
        return false;
    }
    if (parsed < minimum || parsed > maximum) {
        error = option + ": " + text + " is out of range " + std::to_string(minimum) + ".." +
                std::to_string(maximum);
        return false;
    }
    value = parsed;
    return true;
}

bool parseTimeout(const std::string& text, double& seconds, std::string& error) {
    errno = 0;
    char* end = nullptr;
    const double parsed = std::strtod(text.c_str(), &end);
    if (text.empty() || errno != 0 || *end != '\0' || !(parsed > 0.0) || parsed > 86400.0) {
        error = "--timeout: '" + text + "' is not a number of seconds in (0, 86400]";
        return false;
    }
    seconds = parsed;
    return true;
}

// Takes the value of an option from the next argument.
bool takeValue(const std::vector<std::string>& arguments, std::size_t& index, std::string& value,
               std::string& error) {
    if (index + 1 >= arguments.size()) {
        error = arguments[index] + " needs a value";
        return false;
    }
    value = arguments[++index];
    return true;
}

bool parseU32Option(const std::string& option, const std::string& text, uint32_t& target,
                    std::string& error) {
    long long value = 0;
    if (!parseNumber(option, text, 0, std::numeric_limits<uint32_t>::max(), value, error)) {
        return false;
    }
    target = static_cast<uint32_t>(value);
    return true;
}

bool parseCreateOption(const std::string& option, const std::string& value, CtlOptions& options,
                       std::string& error) {
    long long number = 0;
    if (option == "--dst") {
        if (value.empty() || value.size() > kDstIpAddressMax) {
            error = "--dst: an address of 1 to 45 characters is needed";
            return false;
        }
        options.dstIpAddress = value;
        options.dstGiven = true;
        return true;
    }
    if (option == "--port") {
        if (!parseNumber(option, value, 0, 65535, number, error)) {
            return false;
        }
        options.dstUdpPort = static_cast<uint16_t>(number);
        options.portGiven = true;
        return true;
    }
    if (option == "--size") {
        if (!parseNumber(option, value, std::numeric_limits<int32_t>::min(),
                         std::numeric_limits<int32_t>::max(), number, error)) {
            return false;
        }
        options.packetSize = static_cast<int32_t>(number);
        return true;
    }
    if (option == "--rate") {
        return parseU32Option(option, value, options.packetsPerSecond, error);
    }
    if (option == "--dscp") {
        if (!parseNumber(option, value, 0, 63, number, error)) {
            return false;
        }
        options.dscp = static_cast<uint32_t>(number);
        return true;
    }
    if (option == "--offset") {
        return parseU32Option(option, value, options.startOffset, error);
    }
    if (option == "--spreading-base") {
        return parseU32Option(option, value, options.spreadingBase, error);
    }
    if (option == "--spare1") {
        return parseU32Option(option, value, options.spare1, error);
    }
    if (option == "--spare2") {
        return parseU32Option(option, value, options.spare2, error);
    }
    error = "unknown option for create: " + option;
    return false;
}

bool parseCommandOptions(const std::vector<std::string>& arguments, std::size_t index,
                         CtlOptions& options, std::string& error) {
    for (; index < arguments.size(); ++index) {
        const std::string& option = arguments[index];
        std::string value;
        if (option == "--completed" && options.command == CtlCommand::Counters) {
            options.completedIntervalOnly = true;
        } else if (option == "--wait" && options.command == CtlCommand::Counters) {
            options.wait = true;
        } else if (option == "--json" && options.command == CtlCommand::Counters) {
            options.output = CtlOutput::Json;
        } else if (option == "--csv" && options.command == CtlCommand::Counters) {
            options.output = CtlOutput::Csv;
        } else if (option == "--id") {
            if (!takeValue(arguments, index, value, error) ||
                !parseSessionId(value, options.sessionId, error)) {
                return false;
            }
            options.sessionIdGiven = true;
        } else if (options.command == CtlCommand::Create) {
            if (!takeValue(arguments, index, value, error) ||
                !parseCreateOption(option, value, options, error)) {
                return false;
            }
        } else {
            error = "unknown option: " + option;
            return false;
        }
    }
    return true;
}

bool checkRequired(CtlOptions& options, std::string& error) {
    if (options.command == CtlCommand::Help) {
        return true;
    }
    if (!options.sessionIdGiven) {
        error = "--id is required";
        return false;
    }
    if (options.command == CtlCommand::Create && (!options.dstGiven || !options.portGiven)) {
        error = "create needs --dst and --port";
        return false;
    }
    if (options.wait && !options.timeoutGiven) {
        options.timeoutSeconds = kWaitTimeoutSeconds;
    }
    return true;
}

}  // namespace

bool parseSessionId(const std::string& text, uint8_t (&sessionId)[16], std::string& error) {
    std::memset(sessionId, 0, kSessionIdSize);
    bool allHex = text.size() == kHexIdLength;
    for (std::size_t i = 0; allHex && i < text.size(); ++i) {
        allHex = isHexDigit(text[i]);
    }
    if (allHex) {
        for (std::size_t i = 0; i < kSessionIdSize; ++i) {
            sessionId[i] =
                static_cast<uint8_t>(hexValue(text[2 * i]) * 16 + hexValue(text[2 * i + 1]));
        }
        return true;
    }
    if (text.empty() || text.size() > kSessionIdSize) {
        error = "--id: '" + text + "' is neither 32 hex digits nor a label of 1 to 16 bytes";
        return false;
    }
    std::memcpy(sessionId, text.data(), text.size());
    return true;
}

std::string sessionIdHex(const uint8_t (&sessionId)[16]) {
    std::string hex;
    char digits[3];
    for (uint8_t byte : sessionId) {
        std::snprintf(digits, sizeof(digits), "%02x", byte);
        hex += digits;
    }
    return hex;
}

bool parseCtlOptions(const std::vector<std::string>& arguments, const std::string& defaultService,
                     CtlOptions& options, std::string& error) {
    options = CtlOptions{};
    options.service = defaultService;
    std::size_t index = 0;
    for (; index < arguments.size(); ++index) {
        const std::string& argument = arguments[index];
        std::string value;
        if (argument == "--help" || argument == "-h") {
            options.command = CtlCommand::Help;
            return true;
        }
        if (argument == "--service") {
            if (!takeValue(arguments, index, value, error)) {
                return false;
            }
            if (value.empty()) {
                error = "--service needs a name";
                return false;
            }
            options.service = value;
        } else if (argument == "--timeout") {
            if (!takeValue(arguments, index, value, error) ||
                !parseTimeout(value, options.timeoutSeconds, error)) {
                return false;
            }
            options.timeoutGiven = true;
        } else {
            break;
        }
    }
    if (index >= arguments.size()) {
        error = "a command is needed: create, delete or counters";
        return false;
    }
    const std::string& command = arguments[index];
    if (command == "create") {
        options.command = CtlCommand::Create;
    } else if (command == "delete") {
        options.command = CtlCommand::Delete;
    } else if (command == "counters") {
        options.command = CtlCommand::Counters;
    } else if (command == "help") {
        options.command = CtlCommand::Help;
        return true;
    } else {
        error = "unknown command: " + command;
        return false;
    }
    return parseCommandOptions(arguments, index + 1, options, error) &&
           checkRequired(options, error);
}

std::string ctlUsage() {
    return "usage:\n"
           "  twamp-ctl [--service NAME] [--timeout SECONDS] create --id ID --dst ADDRESS "
           "--port PORT\n"
           "            [--rate PPS] [--dscp N] [--size BYTES] [--offset N] "
           "[--spreading-base N]\n"
           "            [--spare1 N] [--spare2 N]\n"
           "  twamp-ctl [--service NAME] [--timeout SECONDS] delete --id ID\n"
           "  twamp-ctl [--service NAME] [--timeout SECONDS] counters --id ID [--completed] "
           "[--wait]\n"
           "            [--json | --csv]\n"
           "\n"
           "  --service   mailbox of the daemon (default: $TWAMP_SERVICE, else twamp)\n"
           "  --timeout   seconds to wait for a counters reply (default 5, 960 with --wait)\n"
           "  --id        32 hex digits, or a label of at most 16 bytes (zero-padded)\n"
           "  --dst       reflector IPv4 or IPv6 address; --port its UDP port\n"
           "  --rate      packets per second (default 1); --dscp 0..63 (default 0)\n"
           "  --size      UDP payload bytes of each test packet (default 64; the daemon\n"
           "              accepts 41 to 65507)\n"
           "  --offset    start slot inside the first second (default 0)\n"
           "  --spreading-base  5000 gives 180 us slots, anything else 400 us (default 0)\n"
           "  --completed the last completed 15-minute interval instead of the one in "
           "progress\n"
           "  --wait      wait for a held reply (the completed interval is answered 4 s\n"
           "              after it ends)\n"
           "  --json      one JSON object; --csv one line per counter; default a table\n"
           "\n"
           "The mailboxes live in $ITC_RUNDIR (default /run/itc).\n"
           "Exit status: 0 done, 2 bad argument, 3 no such mailbox, 4 no reply in time,\n"
           "1 any other failure.\n";
}
