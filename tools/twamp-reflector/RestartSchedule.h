// When the reflector's sequence numbers start again at 0: after every N
// accepted requests (--restart-every), and once as a real reflector restarts
// (--restart-after): it is down for a gap, counted in requests or in time,
// whose requests are lost, and the first request accepted after the gap is
// numbered 0.
#ifndef TWAMP_REFLECTOR_RESTART_SCHEDULE_H
#define TWAMP_REFLECTOR_RESTART_SCHEDULE_H

#include <cstdint>

struct RestartSettings {
    // 0: never.
    uint64_t every = 0;
    uint64_t after = 0;
    // The gap of the one restart: gapRequests requests, or the requests that
    // arrive within gapNs (CLOCK_MONOTONIC) of the after-th acceptance.
    uint64_t gapRequests = 0;
    int64_t gapNs = 0;
};

class RestartSchedule {
  public:
    explicit RestartSchedule(const RestartSettings& settings);

    // A request arrives at nowNs; true when it falls into the gap and is lost.
    bool dropInGap(int64_t nowNs);
    // A request is accepted at nowNs; true when numbering starts again at 0 with it.
    bool accept(int64_t nowNs);

  private:
    // The one restart: waiting for its count, in its gap, due at the next
    // acceptance, or done (also when not asked for).
    enum class Phase { Waiting, Gap, Due, Done };

    void startGap(int64_t nowNs);

    RestartSettings settings_;
    Phase phase_;
    uint64_t accepted_ = 0;
    uint64_t acceptedSinceRestart_ = 0;
    uint64_t gapDropped_ = 0;
    int64_t gapEndNs_ = 0;
};

#endif  // TWAMP_REFLECTOR_RESTART_SCHEDULE_H
