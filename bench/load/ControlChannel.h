// The manager's side of the daemon's mailbox: sends control signals and takes
// the counters replies. On libitc in the load manager (ItcControlChannel),
// scripted in the tests.
#ifndef TWAMP_BENCH_CONTROL_CHANNEL_H
#define TWAMP_BENCH_CONTROL_CHANNEL_H

#include <cstddef>
#include <cstdint>

#include "TwtsiSignals.h"

class ControlChannel {
  public:
    virtual ~ControlChannel() = default;

    // Sends one signal of size bytes whose first word is its number; 0, or the
    // errno of the failure (EAGAIN: the daemon's mailbox is full for now).
    virtual int send(const void* signal, std::size_t size) = 0;
    // Waits up to timeoutMs (0: not at all) for a counters reply and copies it
    // out; false when none came.
    virtual bool receiveCounters(int32_t timeoutMs,
                                 twtsiGetTwampTestSessionPmCountersRsp& reply) = 0;
};

#endif  // TWAMP_BENCH_CONTROL_CHANNEL_H
