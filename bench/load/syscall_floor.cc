// syscall_floor: the per-packet system calls of a Session-Sender and nothing
// else (see SyscallFloor.h), for a CPU figure to hold the daemon's against.
//
//   syscall_floor --source ADDR --source-port P --reflector ADDR --base-port N
//                 --sessions S --rate PPS --seconds D
//
// Prints the packets sent and answered, the CPU time used while sending and
// the send lateness (p50, p99, max; packets later than one interval).
#include <cinttypes>
#include <cstdio>
#include <string>

#include "LatenessReport.h"
#include "OptionMap.h"
#include "ProcessCpu.h"
#include "SyscallFloor.h"

namespace {

bool readSettings(const OptionMap& options, FloorSettings& settings) {
    uint64_t sourcePort = 0;
    uint64_t basePort = 0;
    uint64_t sessions = 0;
    uint64_t rate = 0;
    uint64_t seconds = 0;
    if (!options.number("--source-port", 0, sourcePort) ||
        !options.number("--base-port", 0, basePort) || !options.number("--sessions", 0, sessions) ||
        !options.number("--rate", 0, rate) || !options.number("--seconds", 0, seconds)) {
        return false;
    }
    settings.sourceAddress = options.text("--source", "");
    settings.reflectorAddress = options.text("--reflector", "");
    settings.sourcePort = static_cast<uint16_t>(sourcePort);
    settings.basePort = static_cast<uint16_t>(basePort);
    settings.sessions = static_cast<uint32_t>(sessions);
    settings.packetsPerSecond = static_cast<uint32_t>(rate);
    settings.seconds = static_cast<uint32_t>(seconds);
    return !settings.sourceAddress.empty() && !settings.reflectorAddress.empty() &&
           sourcePort != 0 && sourcePort <= 65535 && basePort != 0 &&
           basePort + sessions <= 65536 && sessions != 0 && rate != 0 && rate <= 1000000000 &&
           seconds != 0;
}

}  // namespace

int main(int argc, char** argv) {
    OptionMap options;
    std::string error;
    const std::set<std::string> known = {"--source",    "--source-port", "--reflector",
                                         "--base-port", "--sessions",    "--rate",
                                         "--seconds"};
    FloorSettings settings;
    if (!options.parse(argc, argv, known, error) || !readSettings(options, settings)) {
        std::fprintf(stderr, "syscall_floor: %s\n",
                     error.empty() ? "bad or missing option" : error.c_str());
        return 2;
    }
    SyscallFloor floor(settings);
    if (!floor.open(error)) {
        std::fprintf(stderr, "syscall_floor: %s\n", error.c_str());
        return 1;
    }
    const ProcessCpu self("self");
    CpuSample before;
    CpuSample after;
    self.sample(before);
    floor.run();
    self.sample(after);
    const FloorCounts& counts = floor.counts();
    std::printf("sent=%" PRIu64 " expiries=%" PRIu64 " tx_timestamps=%" PRIu64 " answered=%" PRIu64
                " ticks=%" PRIu64 " tick_hz=%" PRIu64 " runtime_ns=%" PRIu64,
                counts.sent, counts.expiries, counts.txTimestamps, counts.replies,
                after.ticks - before.ticks, ProcessCpu::ticksPerSecond(),
                after.runtimeNs - before.runtimeNs);
    const uint64_t beyond = floor.beyondInterval();
    LatenessReport::printLateness(stdout, "late_", floor.latenessNs());
    std::printf(" late_beyond_interval=%" PRIu64 "\n", beyond);
    return 0;
}
