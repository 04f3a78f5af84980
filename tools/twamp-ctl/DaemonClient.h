// What the tools ask of a running daemon: its session list and one
// session's counters. An interface, so that the exporter and the plot can be
// tested on given sessions and counters without a daemon.
#ifndef TWAMP_CTL_DAEMON_CLIENT_H
#define TWAMP_CTL_DAEMON_CLIENT_H

#include <cstdint>
#include <string>
#include <vector>

#include "CountersFormatter.h"

// One session of the daemon's list, in host types.
struct SessionListing {
    uint8_t sessionId[16] = {};
    std::string dstIpAddress;
    uint16_t dstUdpPort = 0;
    uint32_t packetsPerSecond = 0;
    uint32_t dscp = 0;
    int32_t packetSize = 0;
    uint32_t state = 0;
    int64_t lastReplyAgeSeconds = -2;
    int64_t minuteSentPkts = -2;
    int64_t minuteReceivedPkts = -2;
};

class DaemonClient {
  public:
    virtual ~DaemonClient() = default;

    // Every session the daemon lists, fetched page by page; false with a
    // message when the daemon cannot be asked or does not answer.
    virtual bool listSessions(std::vector<SessionListing>& sessions, std::string& error) = 0;
    // One counters reply for sessionId; false with a message on failure or
    // time-out (a completed interval may be held for its first 4 s).
    virtual bool fetchCounters(const uint8_t (&sessionId)[16], bool completedIntervalOnly,
                               CounterGrid& counters, std::string& error) = 0;
};

#endif  // TWAMP_CTL_DAEMON_CLIENT_H
