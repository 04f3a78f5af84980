// A whole session on a simulated timeline (injected clock, system calls
// answered in user space): the send path of one timer expiry, one matched
// packet from its transmit timestamp and reply to the end of its analysis
// (for one session, and for several sessions served in turn), and the
// finalisation of a whole minute. Only the named step is timed; the rest of
// the timeline runs between the timed steps, so every figure is the steady
// state of a session that has been running for minutes.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "SessionDriver.h"

namespace {

using BenchClock = std::chrono::steady_clock;

constexpr uint64_t kSeed = 2026;
constexpr int64_t kSecondsPerMinute = 60;
constexpr uint32_t kInTurnRate = 100;

double secondsSince(BenchClock::time_point start) {
    return std::chrono::duration<double>(BenchClock::now() - start).count();
}

// Runs untimed until the next expiry is an ordinary one: the expiry 4 s into
// a minute, which also finalises the minute before, is left out.
void skipFinalisingExpiry(SessionDriver& driver) {
    if (driver.nextExpiryFinalisesMinute()) {
        driver.sendAndAnswer();
    }
}

// The timer expiry of one packet: timer read, clock reading, padding, send
// options, the (scripted) send and the booking of the outstanding packet.
void BM_SessionSendExpiry(benchmark::State& state, uint32_t packetsPerSecond) {
    SessionDriver driver(packetsPerSecond, kSeed);
    for (auto _ : state) {
        skipFinalisingExpiry(driver);
        const auto start = BenchClock::now();
        driver.fireNextExpiry();
        state.SetIterationTime(secondsSince(start));
        driver.prepareAnswer();
        driver.deliverAnswer();
    }
}

// One matched packet: receiveErrQueueMessage with the transmit timestamp,
// then receiveMessage with the reply, down to analyzePM: sequence trackers,
// header fields, round-trip delay and IPDV into the percentile vectors.
void BM_SessionMatchedPacket(benchmark::State& state, uint32_t packetsPerSecond) {
    SessionDriver driver(packetsPerSecond, kSeed);
    for (auto _ : state) {
        skipFinalisingExpiry(driver);
        driver.fireNextExpiry();
        driver.prepareAnswer();
        const auto start = BenchClock::now();
        driver.deliverAnswer();
        state.SetIterationTime(secondsSince(start));
    }
}

// Matched packets of several sessions at 100 packets/s each, served in
// turn as the daemon serves them: between two packets of one session every
// other session's percentile lists, maps and packets are touched, so they
// compete for the caches, and the percentile library walks past the vectors
// of the sessions created before.
void BM_SessionsMatchedPacketInTurn(benchmark::State& state, uint32_t sessions) {
    std::vector<std::unique_ptr<SessionDriver>> drivers;
    for (uint32_t session = 0; session < sessions; ++session) {
        drivers.push_back(std::make_unique<SessionDriver>(kInTurnRate, kSeed + session));
    }
    std::size_t next = 0;
    for (auto _ : state) {
        SessionDriver& driver = *drivers[next];
        next = (next + 1) % drivers.size();
        skipFinalisingExpiry(driver);
        driver.fireNextExpiry();
        driver.prepareAnswer();
        const auto start = BenchClock::now();
        driver.deliverAnswer();
        state.SetIterationTime(secondsSince(start));
    }
}

// Writes over more memory than the caches hold, so that the next step finds
// none of its data in them: a daemon with many sessions finalises each one
// after the others have run through the caches.
void evictCaches() {
    constexpr std::size_t kEvictionBytes = std::size_t{64} << 20;
    constexpr std::size_t kCacheLine = 64;
    static std::vector<unsigned char> eviction(kEvictionBytes);
    for (std::size_t offset = 0; offset < eviction.size(); offset += kCacheLine) {
        eviction[offset] += 1;
    }
    benchmark::ClobberMemory();
}

// The expiry 4 s into a minute, which finalises the whole minute before:
// every packet of it sent and answered. Timed: that one expiry (its own
// packet's send included; see BM_SessionSendExpiry for that part).
// With coldCaches, the caches are emptied before each finalisation.
void BM_SessionMinuteFinalisation(benchmark::State& state, uint32_t packetsPerSecond,
                                  bool coldCaches) {
    SessionDriver driver(packetsPerSecond, kSeed);
    // The first finalising expiry has no finished minute before it.
    while (!driver.nextExpiryFinalisesMinute()) {
        driver.sendAndAnswer();
    }
    driver.sendAndAnswer();
    for (auto _ : state) {
        while (!driver.nextExpiryFinalisesMinute()) {
            driver.sendAndAnswer();
        }
        if (coldCaches) {
            evictCaches();
        }
        const auto start = BenchClock::now();
        driver.fireNextExpiry();
        state.SetIterationTime(secondsSince(start));
        driver.prepareAnswer();
        driver.deliverAnswer();
    }
    const auto packetsPerMinute = static_cast<double>(packetsPerSecond * kSecondsPerMinute);
    state.counters["packets"] = packetsPerMinute;
    state.counters["per_packet"] =
        benchmark::Counter(packetsPerMinute, benchmark::Counter::kIsIterationInvariantRate |
                                                 benchmark::Counter::kInvert);
}

// The whole minutes a figure averages over (more at low rates, where a
// packet costs less). TWAMP_BENCH_QUICK set (the smoke test) runs a tenth of
// a minute and one finalisation, enough to show that everything still runs.
bool quickRun() {
    return std::getenv("TWAMP_BENCH_QUICK") != nullptr;
}

int64_t perPacketIterations(uint32_t packetsPerSecond) {
    const int64_t minute = packetsPerSecond * kSecondsPerMinute;
    if (quickRun()) {
        return minute / 10;
    }
    return packetsPerSecond == 10 ? 10 * minute : packetsPerSecond == 100 ? 2 * minute : minute;
}

int64_t finalisationIterations(uint32_t packetsPerSecond) {
    if (quickRun()) {
        return 1;
    }
    return packetsPerSecond == 10 ? 50 : packetsPerSecond == 100 ? 20 : 5;
}

const bool registered = [] {
    for (const uint32_t rate : {10U, 100U, 1000U}) {
        const std::string pps = "/pps" + std::to_string(rate);
        benchmark::RegisterBenchmark(("BM_SessionSendExpiry" + pps).c_str(), BM_SessionSendExpiry,
                                     rate)
            ->UseManualTime()
            ->Iterations(perPacketIterations(rate));
        benchmark::RegisterBenchmark(("BM_SessionMatchedPacket" + pps).c_str(),
                                     BM_SessionMatchedPacket, rate)
            ->UseManualTime()
            ->Iterations(perPacketIterations(rate));
    }
    for (const uint32_t sessions : {1U, 10U, 50U}) {
        // A whole minute of every session.
        const int64_t minute = kInTurnRate * kSecondsPerMinute * sessions;
        benchmark::RegisterBenchmark(
            ("BM_SessionsMatchedPacketInTurn/pps100/sessions" + std::to_string(sessions)).c_str(),
            BM_SessionsMatchedPacketInTurn, sessions)
            ->UseManualTime()
            ->Iterations(quickRun() ? minute / 10 : minute);
    }
    for (const uint32_t rate : {10U, 100U, 1000U}) {
        const std::string packets = "/packets" + std::to_string(rate * kSecondsPerMinute);
        for (const bool cold : {false, true}) {
            const std::string name = std::string(cold ? "BM_SessionMinuteFinalisationColdCaches"
                                                      : "BM_SessionMinuteFinalisation") +
                                     packets;
            benchmark::RegisterBenchmark(name.c_str(), BM_SessionMinuteFinalisation, rate, cold)
                ->UseManualTime()
                ->Unit(benchmark::kMicrosecond)
                ->Iterations(finalisationIterations(rate));
        }
    }
    return true;
}();

}  // namespace
