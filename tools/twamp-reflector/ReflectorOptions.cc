#include "ReflectorOptions.h"

#include <netdb.h>
#include <sys/socket.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>

namespace {

constexpr double kMaxHoldMs = 60000.0;
constexpr double kMaxSkewMs = 60000.0;
// An hour: enough for any outage or restart gap a test wants. A closed socket
// is closed for a microsecond at least.
constexpr double kMaxOutageMs = 3600000.0;
constexpr double kMinOutageMs = 0.001;
// A day either way: far enough to move the echoed timestamp into another minute or day.
constexpr double kMaxT1OffsetMs = 86400000.0;

// True for a whole decimal number without sign: strtoull would take "-1" as 2^64 - 1.
bool isUnsignedText(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

bool parseUnsigned(const std::string& option, const std::string& text, uint64_t maximum,
                   uint64_t& value, std::string& error) {
    if (!isUnsignedText(text)) {
        error = option + ": '" + text + "' is not a whole number";
        return false;
    }
    errno = 0;
    const unsigned long long parsed = std::strtoull(text.c_str(), nullptr, 10);
    if (errno != 0 || parsed > maximum) {
        error = option + ": " + text + " is out of range 0.." + std::to_string(maximum);
        return false;
    }
    value = parsed;
    return true;
}

std::string numberText(double value) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.15g", value);
    return text;
}

// A finite decimal number in [minimum, maximum], fractions allowed.
bool parseDecimal(const std::string& option, const std::string& text, double minimum,
                  double maximum, double& value, std::string& error) {
    errno = 0;
    char* end = nullptr;
    const double parsed = std::strtod(text.c_str(), &end);
    if (text.empty() || errno != 0 || *end != '\0' || !std::isfinite(parsed)) {
        error = option + ": '" + text + "' is not a number";
        return false;
    }
    if (parsed < minimum || parsed > maximum) {
        error = option + ": " + text + " is out of range " + numberText(minimum) + ".." +
                numberText(maximum);
        return false;
    }
    value = parsed;
    return true;
}

// A numeric IPv4 or IPv6 address (an IPv6 scope such as %lo is allowed).
bool parseListenAddress(const std::string& text, std::string& address, std::string& error) {
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST | AI_PASSIVE;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* result = nullptr;
    if (text.empty() || getaddrinfo(text.c_str(), nullptr, &hints, &result) != 0) {
        error = "--listen: '" + text + "' is not a numeric IPv4 or IPv6 address";
        return false;
    }
    freeaddrinfo(result);
    address = text;
    return true;
}

bool parsePercent(const std::string& option, const std::string& text, double& value,
                  std::string& error) {
    return parseDecimal(option, text, 0.0, 100.0, value, error);
}

bool parseHold(const std::string& option, const std::string& text, double& value,
               std::string& error) {
    return parseDecimal(option, text, 0.0, kMaxHoldMs, value, error);
}

bool parseNumberOption(const std::string& option, const std::string& value,
                       ReflectorOptions& options, std::string& error) {
    uint64_t number = 0;
    if (option == "--port") {
        if (!parseUnsigned(option, value, std::numeric_limits<uint16_t>::max(), number, error)) {
            return false;
        }
        options.port = static_cast<uint16_t>(number);
        return true;
    }
    if (option == "--reply-ttl") {
        if (!parseUnsigned(option, value, 255, number, error)) {
            return false;
        }
        if (number == 0) {
            error = "--reply-ttl: 0 is out of range 1..255";
            return false;
        }
        options.replyTtl = static_cast<uint8_t>(number);
        return true;
    }
    if (option == "--seed") {
        options.seedGiven = true;
        return parseUnsigned(option, value, std::numeric_limits<uint64_t>::max(), options.seed,
                             error);
    }
    if (option == "--restart-every") {
        return parseUnsigned(option, value, std::numeric_limits<uint64_t>::max(),
                             options.restartEvery, error);
    }
    if (option == "--restart-after") {
        return parseUnsigned(option, value, std::numeric_limits<uint64_t>::max(),
                             options.restartAfter, error);
    }
    if (option == "--restart-gap") {
        return parseUnsigned(option, value, std::numeric_limits<uint64_t>::max(),
                             options.restartGap, error);
    }
    if (option == "--unreachable-after") {
        return parseUnsigned(option, value, std::numeric_limits<uint64_t>::max(),
                             options.unreachableAfter, error);
    }
    if (option == "--sender-ttl") {
        options.senderTtlGiven = true;
        if (!parseUnsigned(option, value, 255, number, error)) {
            return false;
        }
        options.senderTtl = static_cast<uint8_t>(number);
        return true;
    }
    error = "unknown option " + option;
    return false;
}

// The options whose values are times of the reflector's own misbehaviour.
bool parseMisbehaviourOption(const std::string& option, const std::string& value,
                             ReflectorOptions& options, std::string& error) {
    if (option == "--restart-gap-ms") {
        return parseDecimal(option, value, 0.0, kMaxOutageMs, options.restartGapMs, error);
    }
    if (option == "--unreachable-ms") {
        return parseDecimal(option, value, kMinOutageMs, kMaxOutageMs, options.unreachableMs,
                            error);
    }
    if (option == "--corrupt-t1") {
        return parseDecimal(option, value, -kMaxT1OffsetMs, kMaxT1OffsetMs, options.t1OffsetMs,
                            error);
    }
    return parseNumberOption(option, value, options, error);
}

bool parseImpairmentOption(const std::string& option, const std::string& value,
                           ReflectorOptions& options, std::string& error) {
    if (option == "--fwd-loss") {
        return parsePercent(option, value, options.forwardLossPercent, error);
    }
    if (option == "--rev-loss") {
        return parsePercent(option, value, options.reverseLossPercent, error);
    }
    if (option == "--duplicate") {
        return parsePercent(option, value, options.duplicatePercent, error);
    }
    if (option == "--reorder") {
        return parsePercent(option, value, options.reorderPercent, error);
    }
    if (option == "--fwd-delay") {
        return parseHold(option, value, options.forwardDelayMs, error);
    }
    if (option == "--fwd-jitter") {
        return parseHold(option, value, options.forwardJitterMs, error);
    }
    if (option == "--rev-delay") {
        return parseHold(option, value, options.reverseDelayMs, error);
    }
    if (option == "--rev-jitter") {
        return parseHold(option, value, options.reverseJitterMs, error);
    }
    if (option == "--skew") {
        return parseDecimal(option, value, -kMaxSkewMs, kMaxSkewMs, options.skewMs, error);
    }
    return parseMisbehaviourOption(option, value, options, error);
}

bool parseValueOption(const std::string& option, const std::string& value,
                      ReflectorOptions& options, std::string& error) {
    if (option == "--listen") {
        return parseListenAddress(value, options.listenAddress, error);
    }
    if (option == "--truth") {
        if (value.empty()) {
            error = "--truth needs a file name";
            return false;
        }
        options.truthPath = value;
        return true;
    }
    return parseImpairmentOption(option, value, options, error);
}

bool takesValue(const std::string& option) {
    static const char* const kValueOptions[] = {
        "--listen",         "--port",          "--reply-ttl",     "--seed",
        "--fwd-loss",       "--rev-loss",      "--duplicate",     "--reorder",
        "--fwd-delay",      "--fwd-jitter",    "--rev-delay",     "--rev-jitter",
        "--skew",           "--restart-every", "--restart-after", "--restart-gap",
        "--restart-gap-ms", "--sender-ttl",    "--corrupt-t1",    "--unreachable-after",
        "--unreachable-ms", "--truth"};
    for (const char* known : kValueOptions) {
        if (option == known) {
            return true;
        }
    }
    return false;
}

bool isFlag(const std::string& option) {
    return option == "--quiet" || option == "--stateless" || option == "--help" || option == "-h" ||
           option == "--version";
}

void parseFlag(const std::string& option, ReflectorOptions& options) {
    if (option == "--quiet") {
        options.quiet = true;
    } else if (option == "--stateless") {
        options.stateless = true;
    } else if (option == "--version") {
        options.version = true;
    } else {
        options.help = true;
    }
}

// Options that each make sense but not together.
bool checkCombinations(const ReflectorOptions& options, std::string& error) {
    if (options.stateless && (options.restartEvery != 0 || options.restartAfter != 0)) {
        error =
            "--stateless: a reflector without state has no numbering to restart "
            "(--restart-every, --restart-after)";
        return false;
    }
    if (options.restartGap != 0 && options.restartGapMs != 0.0) {
        error = "--restart-gap and --restart-gap-ms: the gap is either a count or a time";
        return false;
    }
    return true;
}

}  // namespace

bool parseReflectorOptions(const std::vector<std::string>& arguments, ReflectorOptions& options,
                           std::string& error) {
    for (std::size_t index = 0; index < arguments.size(); ++index) {
        std::string option = arguments[index];
        if (option.rfind("--", 0) != 0 && option != "-h") {
            error = "unexpected argument '" + option + "'";
            return false;
        }
        const std::size_t equals = option.find('=');
        const bool inlineValue = equals != std::string::npos;
        std::string value;
        if (inlineValue) {
            value = option.substr(equals + 1);
            option.erase(equals);
        }
        if (isFlag(option)) {
            if (inlineValue) {
                error = option + " takes no value";
                return false;
            }
            parseFlag(option, options);
            continue;
        }
        if (!takesValue(option)) {
            error = "unknown option " + option;
            return false;
        }
        if (!inlineValue) {
            if (index + 1 >= arguments.size()) {
                error = option + " needs a value";
                return false;
            }
            value = arguments[++index];
        }
        if (!parseValueOption(option, value, options, error)) {
            return false;
        }
    }
    return checkCombinations(options, error);
}

std::string reflectorUsage() {
    return "usage: twamp-reflector [OPTION]...\n"
           "Answers TWAMP light test packets (unauthenticated, IPv4 and IPv6) and can impair\n"
           "them for lab measurements, writing what it did to a ground-truth file.\n"
           "\n"
           "  --listen ADDR        numeric address to listen on (default ::, dual-stack:\n"
           "                       IPv6 and IPv4)\n"
           "  --port N             UDP port, 0 for any free port (default 862)\n"
           "  --reply-ttl N        TTL / hop limit of every reply, 1..255 (default 255)\n"
           "  --seed N             seed of the impairments' random source, 0..2^64-1\n"
           "                       (default: drawn at start-up; the start line of the\n"
           "                       ground truth records it)\n"
           "  --fwd-loss PCT       drop requests before they are counted, 0..100 (default 0)\n"
           "  --rev-loss PCT       count requests but drop their replies, 0..100 (default 0)\n"
           "  --duplicate PCT      send replies twice, 0..100 (default 0)\n"
           "  --reorder PCT        hold replies and send each right after the next reply,\n"
           "                       0..100 (default 0)\n"
           "  --fwd-delay MS       hold requests before the receive timestamp T2 is taken,\n"
           "                       0..60000, fractions allowed (default 0)\n"
           "  --fwd-jitter MS      add a uniform draw in [0, MS) to each forward hold\n"
           "                       (default 0)\n"
           "  --rev-delay MS       hold replies after the transmit timestamp T3 is taken,\n"
           "                       0..60000 (default 0)\n"
           "  --rev-jitter MS      add a uniform draw in [0, MS) to each reverse hold\n"
           "                       (default 0)\n"
           "  --restart-every N    restart the reflector sequence number at 0 after every N\n"
           "                       accepted requests, 0 never (default 0)\n"
           "  --restart-after N    restart once, as a real reflector would: after N accepted\n"
           "                       requests drop the next --restart-gap requests, then\n"
           "                       restart the sequence number at 0; 0 never (default 0)\n"
           "  --restart-gap M      requests dropped while the reflector is down before\n"
           "                       --restart-after's restart (default 0)\n"
           "  --restart-gap-ms MS  the gap as a time instead: drop the requests that arrive\n"
           "                       within MS milliseconds, 0..3600000 (default 0)\n"
           "  --stateless          number each reply with the sender's own sequence number,\n"
           "                       as a reflector without state does (default off)\n"
           "  --skew MS            write T3 MS milliseconds later than the real send time,\n"
           "                       -60000..60000; negative writes T3 before T2, large\n"
           "                       positive makes T3 - T2 longer than the round trip\n"
           "                       (default 0)\n"
           "  --sender-ttl N       write N as the Sender TTL of every reply, 0..255, 0 as a\n"
           "                       reflector that does not fill it in (default: the TTL the\n"
           "                       request arrived with)\n"
           "  --corrupt-t1 MS      echo the sender timestamp MS milliseconds off,\n"
           "                       -86400000..86400000 (default 0)\n"
           "  --unreachable-after N  after N accepted requests close the socket, so that\n"
           "                       the kernel answers with port unreachable, and open it\n"
           "                       again after --unreachable-ms; 0 never (default 0)\n"
           "  --unreachable-ms MS  how long the socket stays closed, 0.001..3600000\n"
           "                       (default 1000)\n"
           "  --truth FILE         write the ground truth to FILE as JSON lines (default:\n"
           "                       none)\n"
           "  --quiet              print nothing but errors\n"
           "  --help               print this text\n"
           "  --version            print the program's name and version\n"
           "\n"
           "Options also take their value as --name=VALUE. Runs until SIGINT or SIGTERM;\n"
           "exit status 0 after a signal, 1 when the socket or file cannot be opened, 2 for\n"
           "a bad option.\n";
}
