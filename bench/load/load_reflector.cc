// load_reflector: answers TWAMP light test packets on consecutive UDP ports
// from one process (see LoadReflector.h), until SIGINT or SIGTERM.
//
//   load_reflector --listen ADDR --base-port N --ports COUNT
//
// Prints "load_reflector: ready" on standard output once every port is
// bound, and its counts when it stops:
// "received=R replied=A too_short=T send_failures=F wakeups=W".
#include <signal.h>

#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

#include "LoadReflector.h"
#include "OptionMap.h"
#include "SystemLoadClock.h"

namespace {

constexpr int kServeMilliseconds = 100;

volatile std::sig_atomic_t stopRequested = 0;

void onStop(int) {
    stopRequested = 1;
}

bool installStopHandlers() {
    struct sigaction action {};
    action.sa_handler = onStop;
    sigemptyset(&action.sa_mask);
    return sigaction(SIGINT, &action, nullptr) == 0 && sigaction(SIGTERM, &action, nullptr) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    OptionMap options;
    std::string error;
    uint64_t basePort = 0;
    uint64_t ports = 0;
    if (!options.parse(argc, argv, {"--listen", "--base-port", "--ports"}, error) ||
        !options.number("--base-port", 0, basePort) || !options.number("--ports", 0, ports) ||
        basePort == 0 || ports == 0 || basePort + ports > 65536) {
        std::fprintf(stderr, "load_reflector: %s\n",
                     error.empty() ? "bad or missing option" : error.c_str());
        return 2;
    }
    SystemLoadClock clock;
    LoadReflector reflector(clock);
    if (!installStopHandlers()) {
        std::fprintf(stderr, "load_reflector: sigaction: %s\n", std::strerror(errno));
        return 1;
    }
    if (!reflector.open(options.text("--listen", ""), static_cast<uint16_t>(basePort),
                        static_cast<uint32_t>(ports), error)) {
        std::fprintf(stderr, "load_reflector: %s\n", error.c_str());
        return 1;
    }
    std::printf("load_reflector: ready\n");
    std::fflush(stdout);
    while (stopRequested == 0) {
        if (!reflector.serve(kServeMilliseconds)) {
            std::fprintf(stderr, "load_reflector: epoll_wait: %s\n", std::strerror(errno));
            return 1;
        }
    }
    const LoadReflectorCounts& counts = reflector.counts();
    std::printf("received=%" PRIu64 " replied=%" PRIu64 " too_short=%" PRIu64
                " send_failures=%" PRIu64 " wakeups=%" PRIu64 "\n",
                counts.received, counts.replied, counts.tooShort, counts.sendFailures,
                counts.wakeUps);
    if (counts.sendFailures != 0) {
        std::fprintf(stderr, "load_reflector: last failed sendmsg: %s\n",
                     std::strerror(counts.lastSendErrno));
    }
    return 0;
}
