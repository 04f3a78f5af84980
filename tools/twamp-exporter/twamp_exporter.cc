// twamp-exporter: serves the sessions and counters of a TWAMP test session
// daemon as Prometheus metrics, asking the daemon through its ITC mailbox at
// every scrape.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "ExporterOptions.h"
#include "ItcDaemonClient.h"
#include "MetricsCollector.h"
#include "MetricsHttpServer.h"
#include "OptionValues.h"
#include "SystemClock.h"

#ifndef TWAMP_EXPORTER_VERSION
#define TWAMP_EXPORTER_VERSION "unknown"
#endif

namespace {

enum ExitStatus { kExitOk = 0, kExitFailure = 1, kExitBadArgument = 2 };

volatile std::sig_atomic_t stopRequested = 0;

void requestStop(int /*signal*/) {
    stopRequested = 1;
}

void installStopHandlers() {
    struct sigaction action {};
    action.sa_handler = requestStop;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
}

int fail(int status, const std::string& message) {
    std::fprintf(stderr, "twamp-exporter: %s\n", message.c_str());
    return status;
}

int serve(const ExporterOptions& options) {
    const auto timeoutMs = static_cast<int32_t>(options.timeoutSeconds * 1000.0 + 0.5);
    ItcDaemonClient client(options.service, timeoutMs, "twamp-exporter");
    std::string error;
    if (!client.open(error)) {
        return fail(kExitFailure, error);
    }
    MetricsCollector collector(client, SystemClock::instance(), std::time(nullptr));
    MetricsHttpServer server([&collector]() { return collector.scrape(); });
    if (!server.start(options.listenAddress, options.port, error)) {
        return fail(kExitFailure, error);
    }
    installStopHandlers();
    std::fprintf(stderr, "twamp-exporter: serving http://%s:%u/metrics for service '%s'\n",
                 options.listenAddress.c_str(), static_cast<unsigned>(options.port),
                 options.service.c_str());
    if (!server.run(stopRequested, error)) {
        return fail(kExitFailure, error);
    }
    return kExitOk;
}

}  // namespace

int main(int argc, char* argv[]) {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    const std::string defaultService = defaultServiceName();
    ExporterOptions options;
    std::string error;
    if (!parseExporterOptions(arguments, defaultService, options, error)) {
        std::fprintf(stderr, "twamp-exporter: %s\n%s", error.c_str(), exporterUsage().c_str());
        return kExitBadArgument;
    }
    if (options.help) {
        std::fputs(exporterUsage().c_str(), stdout);
        return kExitOk;
    }
    if (options.version) {
        std::printf("twamp-exporter %s\n", TWAMP_EXPORTER_VERSION);
        return kExitOk;
    }
    return serve(options);
}
