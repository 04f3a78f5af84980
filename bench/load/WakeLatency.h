// How late a thread that sleeps to an absolute instant wakes up, for the
// machine's own share of send lateness: no socket, no daemon, only the
// scheduler, the kernel and (in a virtual machine) the host. A stall that
// delays such a sleeper delays the daemon's timers as much.
//
// One WakeLatency collects the wake-ups of one thread: a count per lateness
// band, the largest, and the stalls (lateness at or above a threshold) with
// the wall-clock second they ended in.
#ifndef TWAMP_BENCH_WAKE_LATENCY_H
#define TWAMP_BENCH_WAKE_LATENCY_H

#include <array>
#include <cstdint>
#include <cstdio>
#include <vector>

struct WakeStall {
    int64_t latenessNs;
    int64_t wallSecond;  // seconds since 1970 when the thread woke
};

class WakeLatency {
  public:
    // Upper bounds of the bands, in µs; the last band has none.
    static constexpr std::array<int64_t, 7> kBandLimitsUs = {50,    100,   1000,  5000,
                                                             10000, 50000, 100000};

    WakeLatency(int64_t stallThresholdNs, std::size_t maxStallsKept)
        : stallThresholdNs(stallThresholdNs), maxStallsKept(maxStallsKept) {}

    // One wake-up, latenessNs after the instant asked for (negative counts as 0).
    void add(int64_t latenessNs, int64_t wallSecond);
    // Adds another thread's wake-ups (its kept stalls as far as room is left).
    void merge(const WakeLatency& other);

    uint64_t wakeUps() const { return count; }
    int64_t maxNs() const { return largestNs; }
    uint64_t stallCount() const { return stalls; }
    const std::vector<WakeStall>& keptStalls() const { return kept; }
    uint64_t band(std::size_t index) const { return bands.at(index); }

    // One line: "NAME wakeups=N max_us=M lt50us=... ge100000us=... stalls=S".
    void print(std::FILE* out, const char* name) const;
    // The kept stalls, "NAME stall_us=L at=SECOND" each.
    void printStalls(std::FILE* out, const char* name) const;

  private:
    static std::size_t bandOf(int64_t latenessNs);

    const int64_t stallThresholdNs;
    const std::size_t maxStallsKept;
    std::array<uint64_t, kBandLimitsUs.size() + 1> bands{};
    uint64_t count = 0;
    uint64_t stalls = 0;
    int64_t largestNs = 0;
    std::vector<WakeStall> kept;
};

#endif  // TWAMP_BENCH_WAKE_LATENCY_H
