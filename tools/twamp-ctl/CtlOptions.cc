#include "CtlOptions.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "OptionValues.h"
#include "TwtsiSignals.h"

namespace {

constexpr std::size_t kSessionIdSize = 16;
constexpr std::size_t kHexIdLength = 32;
constexpr double kWaitTimeoutSeconds = 960.0;
// The signal's address field is 46 bytes and must keep its terminator.
constexpr std::size_t kDstIpAddressMax = TWTSI_DST_IP_ADDRESS_SIZE - 1;
constexpr long long kU32Max = std::numeric_limits<uint32_t>::max();

// What the daemon accepts in a create signal: a create outside these limits
// starts no session, and the daemon never answers a create, so the tool
// refuses it before sending.
constexpr long long kMinPort = 1;
constexpr long long kMaxPort = 65535;
constexpr long long kMinPacketSize = TWTSI_MIN_PACKET_SIZE;
constexpr long long kMaxPacketSize = TWTSI_MAX_PACKET_SIZE;
constexpr long long kMaxPacketsPerSecond = TWTSI_MAX_PACKETS_PER_SECOND;
constexpr long long kMaxDscp = TWTSI_MAX_DSCP;
constexpr long long kMaxStartOffset = TWTSI_MAX_START_OFFSET;
constexpr long long kMaxStartOffsetDense = TWTSI_MAX_START_OFFSET_DENSE;
constexpr uint32_t kDenseSpreadingBase = TWTSI_DENSE_SPREADING_BASE;

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

std::string rangeText(long long minimum, long long maximum) {
    return std::to_string(minimum) + ".." + std::to_string(maximum);
}

// Reads an optional minus sign and at least one decimal digit, nothing else
// (no blanks, plus sign, base prefix or trailing text). A value beyond the
// range of long long is clamped to its end: it is out of every range we
// check, and the message quotes the text anyway.
bool readDecimal(const std::string& text, long long& value) {
    const bool negative = !text.empty() && text[0] == '-';
    const std::size_t first = negative ? 1 : 0;
    if (text.size() == first) {
        return false;
    }
    const long long limit = std::numeric_limits<long long>::max();
    long long magnitude = 0;
    for (std::size_t i = first; i < text.size(); ++i) {
        if (text[i] < '0' || text[i] > '9') {
            return false;
        }
        const int digit = text[i] - '0';
        magnitude = (magnitude > (limit - digit) / 10) ? limit : magnitude * 10 + digit;
    }
    value = negative ? -magnitude : magnitude;
    return true;
}

// A whole decimal number in [minimum, maximum]; the message names the option,
// the text given and what is allowed.
bool parseNumber(const std::string& option, const std::string& text, long long minimum,
                 long long maximum, const std::string& allowed, long long& value,
                 std::string& error) {
    long long parsed = 0;
    if (!readDecimal(text, parsed)) {
        error = option + ": '" + text + "' is not a whole number in " + allowed;
        return false;
    }
    if (parsed < minimum || parsed > maximum) {
        error = option + ": " + text + " is out of range " + allowed;
        return false;
    }
    value = parsed;
    return true;
}

// What --offset allows: its limit depends on --spreading-base.
std::string startOffsetRange(bool dense) {
    const std::string denseBase = "--spreading-base " + std::to_string(kDenseSpreadingBase);
    if (dense) {
        return rangeText(0, kMaxStartOffsetDense) + " with " + denseBase;
    }
    return rangeText(0, kMaxStartOffset) + " (" + rangeText(0, kMaxStartOffsetDense) + " with " +
           denseBase + ")";
}

// An IPv4 dotted quad or an IPv6 address in text form, the latter with an
// optional zone ("fe80::1%eth0"): the zone is resolved by the daemon in its
// own network namespace, so only its presence is checked here.
bool isAddressLiteral(const std::string& text) {
    struct in_addr ipv4 {};
    if (inet_pton(AF_INET, text.c_str(), &ipv4) == 1) {
        return true;
    }
    const std::size_t zone = text.find('%');
    if (zone != std::string::npos && zone + 1 == text.size()) {
        return false;
    }
    struct in6_addr ipv6 {};
    return inet_pton(AF_INET6, text.substr(0, zone).c_str(), &ipv6) == 1;
}

bool parseAddress(const std::string& text, CtlOptions& options, std::string& error) {
    if (text.empty() || text.size() > kDstIpAddressMax) {
        error = "--dst: '" + text + "' has " + std::to_string(text.size()) +
                " characters; an address of 1 to " + std::to_string(kDstIpAddressMax) +
                " characters is needed";
        return false;
    }
    if (!isAddressLiteral(text)) {
        error = "--dst: '" + text + "' is not an IPv4 or IPv6 address";
        return false;
    }
    options.dstIpAddress = text;
    options.dstGiven = true;
    return true;
}

// The longest a reply is waited for: a day.
constexpr double kMaxTimeoutSeconds = 86400.0;

// A number option in [minimum, maximum] stored into a field of type T.
template <typename T>
bool parseRangedOption(const std::string& option, const std::string& text, long long minimum,
                       long long maximum, T& target, std::string& error) {
    long long value = 0;
    if (!parseNumber(option, text, minimum, maximum, rangeText(minimum, maximum), value, error)) {
        return false;
    }
    target = static_cast<T>(value);
    return true;
}

// --offset as any 32-bit value: its limit depends on --spreading-base, which
// may come later, and is checked by checkStartOffset once all are read.
bool parseStartOffset(const std::string& text, CtlOptions& options, std::string& error) {
    long long value = 0;
    if (!parseNumber("--offset", text, 0, kU32Max, startOffsetRange(false), value, error)) {
        return false;
    }
    options.startOffset = static_cast<uint32_t>(value);
    return true;
}

bool parseCreateOption(const std::string& option, const std::string& value, CtlOptions& options,
                       std::string& error) {
    if (option == "--dst") {
        return parseAddress(value, options, error);
    }
    if (option == "--port") {
        options.portGiven = true;
        return parseRangedOption(option, value, kMinPort, kMaxPort, options.dstUdpPort, error);
    }
    if (option == "--size") {
        return parseRangedOption(option, value, kMinPacketSize, kMaxPacketSize, options.packetSize,
                                 error);
    }
    if (option == "--rate") {
        return parseRangedOption(option, value, 0, kMaxPacketsPerSecond, options.packetsPerSecond,
                                 error);
    }
    if (option == "--dscp") {
        return parseRangedOption(option, value, 0, kMaxDscp, options.dscp, error);
    }
    if (option == "--offset") {
        return parseStartOffset(value, options, error);
    }
    if (option == "--spreading-base") {
        return parseRangedOption(option, value, 0, kU32Max, options.spreadingBase, error);
    }
    if (option == "--spare1") {
        return parseRangedOption(option, value, 0, kU32Max, options.spare1, error);
    }
    if (option == "--spare2") {
        return parseRangedOption(option, value, 0, kU32Max, options.spare2, error);
    }
    error = "unknown option for create: " + option;
    return false;
}

// The start slot must fall inside the first second: 400 us slots, or 180 us
// slots with the dense spreading base.
bool checkStartOffset(const CtlOptions& options, std::string& error) {
    const bool dense = options.spreadingBase == kDenseSpreadingBase;
    const long long maximum = dense ? kMaxStartOffsetDense : kMaxStartOffset;
    if (options.startOffset <= maximum) {
        return true;
    }
    error = "--offset: " + std::to_string(options.startOffset) + " is out of range " +
            startOffsetRange(dense);
    return false;
}

bool parseCommandOptions(const std::vector<std::string>& arguments, std::size_t index,
                         CtlOptions& options, std::string& error) {
    for (; index < arguments.size(); ++index) {
        const std::string& option = arguments[index];
        std::string value;
        const bool readsCounters =
            options.command == CtlCommand::Counters || options.command == CtlCommand::Plot;
        if (option == "--completed" && readsCounters) {
            options.completedIntervalOnly = true;
        } else if (option == "--wait" && options.command == CtlCommand::Counters) {
            options.wait = true;
        } else if (option == "--json" && (options.command == CtlCommand::Counters ||
                                          options.command == CtlCommand::List)) {
            options.output = CtlOutput::Json;
        } else if (option == "--out" && options.command == CtlCommand::Plot) {
            if (!takeOptionValue(arguments, index, options.plotOut, error)) {
                return false;
            }
        } else if (option == "--from-csv" && options.command == CtlCommand::Plot) {
            if (!takeOptionValue(arguments, index, options.fromCsv, error)) {
                return false;
            }
        } else if (option == "--csv" && options.command == CtlCommand::Counters) {
            options.output = CtlOutput::Csv;
        } else if (option == "--id" && options.command != CtlCommand::List) {
            if (!takeOptionValue(arguments, index, value, error) ||
                !parseSessionId(value, options.sessionId, error)) {
                return false;
            }
            options.sessionIdGiven = true;
        } else if (options.command == CtlCommand::Create) {
            if (!takeOptionValue(arguments, index, value, error) ||
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

bool endsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// gnuplot picks its terminal by the file name's ending.
bool checkPlotOutput(const CtlOptions& options, std::string& error) {
    if (options.plotOut.empty()) {
        error = "plot needs --out FILE.png or FILE.svg";
        return false;
    }
    if (!endsWith(options.plotOut, ".png") && !endsWith(options.plotOut, ".svg")) {
        error = "--out: '" + options.plotOut + "' must end in .png or .svg";
        return false;
    }
    return true;
}

bool checkRequired(CtlOptions& options, std::string& error) {
    if (options.command == CtlCommand::Help || options.command == CtlCommand::List) {
        return true;
    }
    if (options.command == CtlCommand::Plot && !checkPlotOutput(options, error)) {
        return false;
    }
    if (!options.sessionIdGiven &&
        !(options.command == CtlCommand::Plot && !options.fromCsv.empty())) {
        error = "--id is required";
        return false;
    }
    if (options.command == CtlCommand::Create && (!options.dstGiven || !options.portGiven)) {
        error = "create needs --dst and --port";
        return false;
    }
    if (options.command == CtlCommand::Create && !checkStartOffset(options, error)) {
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
        if (argument == "--version") {
            options.version = true;
            return true;
        }
        if (argument == "--service") {
            if (!takeOptionValue(arguments, index, value, error)) {
                return false;
            }
            if (value.empty()) {
                error = "--service needs a name";
                return false;
            }
            options.service = value;
        } else if (argument == "--timeout") {
            if (!takeOptionValue(arguments, index, value, error) ||
                !parseSecondsOption("--timeout", value, kMaxTimeoutSeconds, options.timeoutSeconds,
                                    error)) {
                return false;
            }
            options.timeoutGiven = true;
        } else {
            break;
        }
    }
    if (index >= arguments.size()) {
        error = "a command is needed: create, delete, counters, list or plot";
        return false;
    }
    const std::string& command = arguments[index];
    if (command == "create") {
        options.command = CtlCommand::Create;
    } else if (command == "delete") {
        options.command = CtlCommand::Delete;
    } else if (command == "counters") {
        options.command = CtlCommand::Counters;
    } else if (command == "list") {
        options.command = CtlCommand::List;
    } else if (command == "plot") {
        options.command = CtlCommand::Plot;
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
           "  twamp-ctl [--service NAME] [--timeout SECONDS] list [--json]\n"
           "  twamp-ctl [--service NAME] [--timeout SECONDS] plot --id ID [--completed] "
           "--out FILE.png|FILE.svg\n"
           "  twamp-ctl plot --from-csv FILE [--id ID] --out FILE.png|FILE.svg\n"
           "\n"
           "  --service   mailbox of the daemon (default: $TWAMP_SERVICE, else twamp)\n"
           "  --timeout   seconds to wait for a counters reply (default 5, 960 with --wait)\n"
           "  --id        32 hex digits, or a label of at most 16 bytes (zero-padded)\n"
           "  --dst       reflector IPv4 or IPv6 address; --port its UDP port, 1..65535\n"
           "  --rate      packets per second, 0..10000 (default 1); --dscp 0..63 (default 0)\n"
           "  --size      UDP payload bytes of each test packet, 41..65507 (default 64)\n"
           "  --offset    start slot inside the first second: 0..2499, or 0..5555 with\n"
           "              --spreading-base 5000 (default 0)\n"
           "  --spreading-base  5000 gives 180 us slots, anything else 400 us (default 0)\n"
           "  --completed the last completed 15-minute interval instead of the one in "
           "progress\n"
           "  --wait      wait for a held reply (the completed interval is answered 4 s\n"
           "              after it ends)\n"
           "  --json      one JSON object; --csv one line per counter; default a table\n"
           "  list        the daemon's sessions: settings, state, the running minute's\n"
           "              sent and received packets, the age of the latest minute with a reply\n"
           "  plot        draws the interval's minutes with gnuplot (round trip, IPDV, loss);\n"
           "              --from-csv draws what counters --csv printed, without a daemon\n"
           "  --version   print the program's name and version\n"
           "\n"
           "The mailboxes live in $ITC_RUNDIR (default /run/itc).\n"
           "Exit status: 0 done, 2 bad argument, 3 no such mailbox, 4 no reply in time,\n"
           "1 any other failure.\n";
}
