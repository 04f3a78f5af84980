#include "ExporterOptions.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstdlib>

#include "OptionValues.h"

namespace {

// The longest one scrape waits for the daemon's counters.
constexpr double kMaxTimeoutSeconds = 60.0;

bool parseAddress(const std::string& text, std::string& address, std::string& error) {
    unsigned char bytes[16];
    if (inet_pton(AF_INET, text.c_str(), bytes) != 1 &&
        inet_pton(AF_INET6, text.c_str(), bytes) != 1) {
        error = "--listen-address: '" + text + "' is not an IPv4 or IPv6 address";
        return false;
    }
    address = text;
    return true;
}

bool parsePort(const std::string& text, uint16_t& port, std::string& error) {
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || text[0] < '0' || text[0] > '9' || errno != 0 || *end != '\0' || value < 1 ||
        value > 65535) {
        error = "--port: '" + text + "' is not a port in 1..65535";
        return false;
    }
    port = static_cast<uint16_t>(value);
    return true;
}

bool parseOption(const std::vector<std::string>& arguments, std::size_t& index,
                 ExporterOptions& options, std::string& error) {
    const std::string& option = arguments[index];
    std::string value;
    if (option == "--listen-address") {
        return takeOptionValue(arguments, index, value, error) &&
               parseAddress(value, options.listenAddress, error);
    }
    if (option == "--port") {
        return takeOptionValue(arguments, index, value, error) &&
               parsePort(value, options.port, error);
    }
    if (option == "--timeout") {
        return takeOptionValue(arguments, index, value, error) &&
               parseSecondsOption("--timeout", value, kMaxTimeoutSeconds, options.timeoutSeconds,
                                  error);
    }
    if (option == "--service") {
        if (!takeOptionValue(arguments, index, value, error)) {
            return false;
        }
        if (value.empty()) {
            error = "--service needs a name";
            return false;
        }
        options.service = value;
        return true;
    }
    error = "unknown option: " + option;
    return false;
}

}  // namespace

bool parseExporterOptions(const std::vector<std::string>& arguments,
                          const std::string& defaultService, ExporterOptions& options,
                          std::string& error) {
    options = ExporterOptions{};
    options.service = defaultService;
    for (std::size_t index = 0; index < arguments.size(); ++index) {
        const std::string& argument = arguments[index];
        if (argument == "--help" || argument == "-h") {
            options.help = true;
            return true;
        }
        if (argument == "--version") {
            options.version = true;
            return true;
        }
        if (!parseOption(arguments, index, options, error)) {
            return false;
        }
    }
    return true;
}

std::string exporterUsage() {
    return "usage: twamp-exporter [--listen-address ADDRESS] [--port PORT] [--service NAME]\n"
           "                      [--timeout SECONDS]\n"
           "       twamp-exporter --version | --help\n"
           "\n"
           "Serves the daemon's sessions and counters as Prometheus metrics on\n"
           "http://ADDRESS:PORT/metrics.\n"
           "\n"
           "  --listen-address  IPv4 or IPv6 address to listen on (default 127.0.0.1)\n"
           "  --port            TCP port (default 9862)\n"
           "  --service         mailbox of the daemon (default: $TWAMP_SERVICE, else twamp)\n"
           "  --timeout         seconds to wait for each reply of the daemon (default 2)\n"
           "\n"
           "The mailboxes live in $ITC_RUNDIR (default /run/itc).\n"
           "Exit status: 0 after SIGTERM or SIGINT, 2 bad argument, 1 any other failure.\n";
}
