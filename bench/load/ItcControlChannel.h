// The control channel on libitc: the manager's own mailbox (created here,
// deleted with the object) and the daemon's, found by its service name.
#ifndef TWAMP_BENCH_ITC_CONTROL_CHANNEL_H
#define TWAMP_BENCH_ITC_CONTROL_CHANNEL_H

#include <string>

#include "ControlChannel.h"
#include "itc.h"

class ItcControlChannel : public ControlChannel {
  public:
    ItcControlChannel() = default;
    ~ItcControlChannel() override;
    ItcControlChannel(const ItcControlChannel&) = delete;
    ItcControlChannel& operator=(const ItcControlChannel&) = delete;

    // Creates the own mailbox under ownName and finds the daemon's; false
    // with error set (the failing call and its errno text).
    bool open(const std::string& ownName, const std::string& service, std::string& error);

    // ControlChannel
    int send(const void* signal, std::size_t size) override;
    bool receiveCounters(int32_t timeoutMs, twtsiGetTwampTestSessionPmCountersRsp& reply) override;

    // Replies that arrived malformed (wrong size) and were dropped.
    uint64_t malformedReplies() const { return malformed; }

  private:
    itc_mbox_id_t own = ITC_NO_ID;
    itc_mbox_id_t daemon = ITC_NO_ID;
    uint64_t malformed = 0;
};

#endif  // TWAMP_BENCH_ITC_CONTROL_CHANNEL_H
