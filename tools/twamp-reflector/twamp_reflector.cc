// twamp-reflector: a TWAMP light reflector for the lab, answering test packets
// over IPv4 and IPv6 with seeded impairments and a ground-truth file.
#include <signal.h>

#include <cinttypes>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "Reflector.h"
#include "ReflectorOptions.h"
#include "SystemReflectorClock.h"
#include "TruthWriter.h"
#include "TwampVersion.h"

namespace {

enum ExitStatus {
    kExitOk = 0,
    kExitFailure = 1,
    kExitBadArgument = 2,
};

Reflector* activeReflector = nullptr;

void onStopSignal(int) {
    if (activeReflector != nullptr) {
        activeReflector->requestStop();
    }
}

bool installStopHandlers() {
    struct sigaction action {};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    return sigaction(SIGINT, &action, nullptr) == 0 && sigaction(SIGTERM, &action, nullptr) == 0;
}

uint64_t drawSeed() {
    std::random_device device;
    return (static_cast<uint64_t>(device()) << 32) ^ device();
}

void printSummary(const TruthTotals& totals) {
    std::printf("twamp-reflector: received %" PRIu64 ", short %" PRIu64 ", forward lost %" PRIu64
                ", accepted %" PRIu64 ", reverse lost %" PRIu64 ", sent %" PRIu64
                ", send errors %" PRIu64 ", discarded %" PRIu64 "\n",
                totals.received, totals.tooShort, totals.forwardLost, totals.accepted,
                totals.reverseLost, totals.sent, totals.sendErrors, totals.discarded);
}

}  // namespace

int main(int argc, char* argv[]) {
    ReflectorOptions options;
    std::string error;
    if (!parseReflectorOptions(std::vector<std::string>(argv + 1, argv + argc), options, error)) {
        std::fprintf(stderr, "twamp-reflector: %s (see --help)\n", error.c_str());
        return kExitBadArgument;
    }
    if (options.version) {
        std::printf("twamp-reflector %s\n", TWAMP_VERSION);
        return kExitOk;
    }
    if (options.help) {
        std::fputs(reflectorUsage().c_str(), stdout);
        return kExitOk;
    }
    if (!options.seedGiven) {
        options.seed = drawSeed();
    }
    TruthWriter truth;
    if (!options.truthPath.empty() && !truth.open(options.truthPath, error)) {
        std::fprintf(stderr, "twamp-reflector: ground truth: %s\n", error.c_str());
        return kExitFailure;
    }
    SystemReflectorClock clock;
    Reflector reflector(options, clock, truth);
    if (!reflector.open(error)) {
        std::fprintf(stderr, "twamp-reflector: %s\n", error.c_str());
        return kExitFailure;
    }
    activeReflector = &reflector;
    if (!installStopHandlers()) {
        std::perror("twamp-reflector: sigaction");
        return kExitFailure;
    }
    if (!options.quiet) {
        std::printf("twamp-reflector: listening on %s port %u, seed %" PRIu64 "\n",
                    options.listenAddress.c_str(), static_cast<unsigned>(reflector.port()),
                    options.seed);
        std::fflush(stdout);
    }
    reflector.run();
    activeReflector = nullptr;
    if (!options.quiet) {
        printSummary(reflector.totals());
    }
    return kExitOk;
}
