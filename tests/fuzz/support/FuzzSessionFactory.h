// Builds the sessions of fuzzed create signals on the fuzz clock and system
// calls, so that they never arm a real timer or send a packet.
#ifndef TWAMP_FUZZ_SESSION_FACTORY_H
#define TWAMP_FUZZ_SESSION_FACTORY_H

#include "FuzzClock.h"
#include "FuzzSessionSystemCalls.h"
#include "TwampTestSessionFactory.h"

class FuzzSessionFactory : public TwampTestSessionFactory {
  public:
    // clock and systemCalls are not owned and must outlive every session.
    FuzzSessionFactory(FuzzClock& clock, FuzzSessionSystemCalls& systemCalls)
        : clock(clock), systemCalls(systemCalls) {}

    // TwampTestSessionFactory
    TwampTestSession* createTwampTestSession(const char* dstIpAddress, const char* dstUdpPort,
                                             uint32_t packetsPerSecond, uint32_t spare1,
                                             uint32_t spare2, int32_t packetSize, uint32_t dscp,
                                             uint32_t startOffset, uint32_t spreadingBase) override;

  private:
    FuzzClock& clock;
    FuzzSessionSystemCalls& systemCalls;
};

#endif  // TWAMP_FUZZ_SESSION_FACTORY_H
