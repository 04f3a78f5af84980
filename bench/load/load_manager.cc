// load_manager: creates, reads and deletes a block of test sessions of the
// daemon through its mailbox, for the load driver (see LoadManager.h).
//
//   load_manager create   --service NAME --sessions S [--first I] --dst ADDR --base-port P
//                         [--one-port 0|1] [--rate PPS] [--size BYTES] [--dscp N]
//                         [--spreading-base N]
//   load_manager counters --service NAME --sessions S [--first I] --out FILE
//                         [--completed 0|1] [--window W] [--timeout-ms T] [--attempts A]
//   load_manager delete   --service NAME --sessions S [--first I]
//
// Session i of first .. first + S - 1 is "load<i>" with start slot i, towards
// port P + i (P for all with --one-port 1). counters writes the CSV of
// CountersCsv.h to FILE. Each command prints one line of key=value pairs
// with its counts and the seconds it took; the exit status is 1 when a
// session could not be created, read or deleted.
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "CountersCsv.h"
#include "ItcControlChannel.h"
#include "LoadManager.h"
#include "OptionMap.h"
#include "SystemLoadClock.h"

namespace {

constexpr double kNanosecondsPerSecond = 1e9;

const std::set<std::string> kOptions = {
    "--service",  "--sessions",  "--first",  "--dst",        "--base-port",
    "--one-port", "--rate",      "--size",   "--dscp",       "--spreading-base",
    "--out",      "--completed", "--window", "--timeout-ms", "--attempts"};

int usage(const std::string& error) {
    std::fprintf(stderr,
                 "load_manager: %s\n"
                 "usage: load_manager create|counters|delete --service NAME --sessions S "
                 "[options]\n",
                 error.c_str());
    return 2;
}

bool readBlock(const OptionMap& options, SessionBlock& block) {
    uint64_t first = 0;
    uint64_t count = 0;
    uint64_t basePort = 0;
    uint64_t onePort = 0;
    uint64_t rate = 0;
    uint64_t size = 0;
    uint64_t dscp = 0;
    uint64_t spreadingBase = 0;
    if (!options.number("--first", 0, first) || !options.number("--sessions", 0, count) ||
        !options.number("--base-port", 0, basePort) || !options.number("--one-port", 0, onePort) ||
        !options.number("--rate", 1, rate) || !options.number("--size", 64, size) ||
        !options.number("--dscp", 0, dscp) ||
        !options.number("--spreading-base", 0, spreadingBase) || first > UINT32_MAX ||
        count > UINT32_MAX || basePort > 65535 || rate > UINT32_MAX || size > INT32_MAX ||
        dscp > UINT32_MAX || spreadingBase > UINT32_MAX) {
        return false;
    }
    block.first = static_cast<uint32_t>(first);
    block.count = static_cast<uint32_t>(count);
    block.destination = options.text("--dst", "");
    block.basePort = static_cast<uint16_t>(basePort);
    block.onePort = onePort != 0;
    block.packetsPerSecond = static_cast<uint32_t>(rate);
    block.packetSize = static_cast<int32_t>(size);
    block.dscp = static_cast<uint32_t>(dscp);
    block.spreadingBase = static_cast<uint32_t>(spreadingBase);
    return true;
}

bool readSettings(const OptionMap& options, ReadSettings& settings) {
    uint64_t completed = 0;
    uint64_t window = settings.window;
    uint64_t timeoutMs = static_cast<uint64_t>(settings.replyTimeoutNs / 1000000);
    uint64_t attempts = settings.attempts;
    if (!options.number("--completed", 0, completed) ||
        !options.number("--window", window, window) ||
        !options.number("--timeout-ms", timeoutMs, timeoutMs) ||
        !options.number("--attempts", attempts, attempts) || window == 0 || window > 1000 ||
        timeoutMs == 0 || timeoutMs > 3600000 || attempts == 0 || attempts > 100) {
        return false;
    }
    settings.completedIntervalOnly = completed != 0;
    settings.window = static_cast<uint32_t>(window);
    settings.replyTimeoutNs = static_cast<int64_t>(timeoutMs) * 1000000;
    settings.attempts = static_cast<uint32_t>(attempts);
    return true;
}

void printSendTally(const char* what, const SendTally& tally) {
    std::printf("%s sent=%" PRIu64 " refusals=%" PRIu64 " failed=%" PRIu64 " seconds=%.3f\n", what,
                tally.sent, tally.refusals, tally.failed,
                static_cast<double>(tally.elapsedNs) / kNanosecondsPerSecond);
    if (tally.failed != 0) {
        std::fprintf(stderr, "load_manager: %" PRIu64 " signals not sent; last itc_send: %s\n",
                     tally.failed, std::strerror(tally.lastErrno));
    }
}

int readAndWrite(LoadManager& manager, const SessionBlock& block, const OptionMap& options) {
    ReadSettings settings;
    const std::string path = options.text("--out", "");
    if (path.empty() || !readSettings(options, settings)) {
        return usage("counters needs --out FILE and sensible --window, --timeout-ms, --attempts");
    }
    std::vector<SessionCounters> sessions;
    const CountersTally tally = manager.readCounters(block, settings, sessions);
    std::FILE* out = std::fopen(path.c_str(), "w");
    if (out == nullptr) {
        std::fprintf(stderr, "load_manager: fopen %s: %s\n", path.c_str(), std::strerror(errno));
        return 1;
    }
    CountersCsv::write(out, sessions);
    std::fclose(out);
    std::printf("counters sessions=%" PRIu32 " replies=%" PRIu64 " requests=%" PRIu64
                " timeouts=%" PRIu64 " missing=%" PRIu64 " strays=%" PRIu64 " refusals=%" PRIu64
                " window=%" PRIu32 " seconds=%.3f\n",
                block.count, tally.replies, tally.requests, tally.timeouts, tally.missing,
                tally.strays, tally.refusals, settings.window,
                static_cast<double>(tally.elapsedNs) / kNanosecondsPerSecond);
    if (tally.lastErrno != 0) {
        std::fprintf(stderr, "load_manager: last failed itc_send: %s\n",
                     std::strerror(tally.lastErrno));
    }
    return tally.missing == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        return usage("no command");
    }
    const std::string command = argv[1];
    OptionMap options;
    std::string error;
    SessionBlock block;
    // The command takes argv[0]'s place, so the options start at argv[2].
    if (!options.parse(argc - 1, argv + 1, kOptions, error)) {
        return usage(error);
    }
    if (!readBlock(options, block)) {
        return usage("bad number in the options");
    }
    const std::string service = options.text("--service", "");
    if (service.empty()) {
        return usage("--service is missing");
    }
    if (command == "create" && !LoadManager::checkBlock(block, error)) {
        return usage(error);
    }
    if (block.count == 0) {
        return usage("--sessions is missing");
    }
    ItcControlChannel channel;
    if (!channel.open("load-manager-" + std::to_string(getpid()), service, error)) {
        std::fprintf(stderr, "load_manager: %s\n", error.c_str());
        return 1;
    }
    SystemLoadClock clock;
    LoadManager manager(channel, clock);
    if (command == "create") {
        const SendTally tally = manager.createSessions(block);
        printSendTally("created", tally);
        return tally.failed == 0 ? 0 : 1;
    }
    if (command == "delete") {
        const SendTally tally = manager.deleteSessions(block);
        printSendTally("deleted", tally);
        return tally.failed == 0 ? 0 : 1;
    }
    if (command == "counters") {
        return readAndWrite(manager, block, options);
    }
    return usage("unknown command " + command);
}
