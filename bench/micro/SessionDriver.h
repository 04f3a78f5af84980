// One started session on a simulated timeline: the benchmark fires its
// packet timer expiry by expiry, as the kernel would at the session's rate,
// and answers each sent packet with its transmit timestamp and a reply whose
// delays vary from packet to packet. Nothing sleeps and nothing is sent.
#ifndef TWAMP_BENCH_SESSION_DRIVER_H
#define TWAMP_BENCH_SESSION_DRIVER_H

#include <cstdint>
#include <ctime>
#include <memory>

#include "FakeClock.h"
#include "ReceivedMessage.h"
#include "ScriptedSystemCalls.h"
#include "TwampTestSession.h"

class SessionDriver {
  public:
    // A session at packetsPerSecond, armed in the minute before the first
    // one it sends in; delays are drawn from seed.
    SessionDriver(uint32_t packetsPerSecond, uint64_t seed);
    SessionDriver(const SessionDriver&) = delete;
    SessionDriver& operator=(const SessionDriver&) = delete;

    // Whether the next expiry is the one 4 s into a minute, which finalises
    // the minute before.
    bool nextExpiryFinalisesMinute() const;
    // Runs the next timer expiry: one packet is sent (and a minute started
    // or finalised when it is due).
    void fireNextExpiry();
    // Builds the transmit timestamp and the reply of the packet sent last.
    void prepareAnswer();
    // Hands the prepared transmit timestamp, then the reply, to the session.
    void deliverAnswer();
    // fireNextExpiry, prepareAnswer and deliverAnswer.
    void sendAndAnswer();

    // The number of expiries from the first sending instant on.
    uint64_t expiries() const { return expiryCount; }

  private:
    struct timespec expiryTime(uint64_t index) const;
    uint64_t drawMicroseconds(uint64_t low, uint64_t span);

    twamp_test::FakeClock clock;
    twamp_test::ScriptedSystemCalls systemCalls;
    std::unique_ptr<TwampTestSession> session;
    int64_t intervalNs;
    uint64_t expiryCount = 0;
    uint32_t lastSeqNo = 0;
    uint64_t lastT1 = 0;
    uint32_t responderSeqNo = 0;
    uint64_t randomState;
    ReceivedMessage txTimestamp;
    ReceivedMessage reply;
};

#endif  // TWAMP_BENCH_SESSION_DRIVER_H
