// t1_capture: records the send time T1 of every test packet arriving on an
// interface and prints their send-time lateness when stopped (SIGINT or
// SIGTERM). Run it in the reflector's namespace.
//
//   t1_capture --interface IF --base-port N --sessions S --rate PPS
//              --first-minute M --minutes K [--spreading-ns NS] [--dump FILE]
//
// Session i sends to port N + i with start slot i; M is the first whole
// minute of sending (minutes since 1970), K how many minutes are reported.
// --dump writes every captured packet to FILE as well.
#include <signal.h>

#include <cinttypes>
#include <cstdio>
#include <string>

#include "LatenessReport.h"
#include "OptionMap.h"
#include "T1Capture.h"

namespace {

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

constexpr int64_t kNanosecondsPerSecond = 1000000000;
constexpr uint64_t kDefaultSpreadingNs = 400000;

}  // namespace

int main(int argc, char** argv) {
    OptionMap options;
    std::string error;
    const std::set<std::string> known = {"--interface",    "--base-port",    "--sessions",
                                         "--rate",         "--first-minute", "--minutes",
                                         "--spreading-ns", "--dump"};
    uint64_t basePort = 0;
    uint64_t sessions = 0;
    uint64_t rate = 0;
    uint64_t firstMinute = 0;
    uint64_t minutes = 0;
    uint64_t spreadingNs = 0;
    if (!options.parse(argc, argv, known, error) || !options.number("--base-port", 0, basePort) ||
        !options.number("--sessions", 0, sessions) || !options.number("--rate", 0, rate) ||
        !options.number("--first-minute", 0, firstMinute) ||
        !options.number("--minutes", 0, minutes) ||
        !options.number("--spreading-ns", kDefaultSpreadingNs, spreadingNs) || basePort == 0 ||
        basePort > 65535 || sessions == 0 || rate == 0 || firstMinute == 0 || minutes == 0) {
        std::fprintf(stderr, "t1_capture: %s\n",
                     error.empty() ? "bad or missing option" : error.c_str());
        return 2;
    }
    T1Capture capture(static_cast<uint16_t>(basePort), static_cast<uint32_t>(sessions));
    if (!installStopHandlers() || !capture.open(options.text("--interface", ""), error)) {
        std::fprintf(stderr, "t1_capture: %s\n", error.c_str());
        return 1;
    }
    const SendSchedule schedule = {static_cast<int64_t>(firstMinute) * 60 * kNanosecondsPerSecond,
                                   static_cast<int64_t>(minutes),
                                   kNanosecondsPerSecond / static_cast<int64_t>(rate),
                                   static_cast<int64_t>(spreadingNs)};
    LatenessReport report(schedule);
    std::fprintf(stdout, "t1_capture: ready\n");
    std::fflush(stdout);
    capture.run(stopRequested, report);
    std::fprintf(stdout, "captured=%" PRIu64 " kernel_drops=%" PRIu64 " ", capture.captured(),
                 capture.kernelDrops());
    report.print(stdout);
    const std::string dumpPath = options.text("--dump", "");
    if (!dumpPath.empty()) {
        std::FILE* dump = std::fopen(dumpPath.c_str(), "w");
        if (dump == nullptr) {
            std::fprintf(stderr, "t1_capture: cannot write %s\n", dumpPath.c_str());
            return 1;
        }
        report.dump(dump);
        std::fclose(dump);
    }
    return 0;
}
