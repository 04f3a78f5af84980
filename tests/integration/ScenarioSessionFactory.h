// Builds the dispatcher's sessions on the scenario's shifted clock.
#ifndef TWAMP_TESTS_SCENARIO_SESSION_FACTORY_H
#define TWAMP_TESTS_SCENARIO_SESSION_FACTORY_H

#include <cstdint>

#include "ShiftedClock.h"
#include "ShiftedTimerSystemCalls.h"
#include "TwampTestSession.h"
#include "TwampTestSessionFactory.h"

namespace scenario_test {

class ScenarioSessionFactory : public TwampTestSessionFactory {
  public:
    // clock must outlive every session built.
    explicit ScenarioSessionFactory(ShiftedClock& clock) : clock(clock), systemCalls(clock) {}

    // TwampTestSessionFactory
    TwampTestSession* createTwampTestSession(const char* dstIpAddress, const char* dstUdpPort,
                                             uint32_t packetsPerSecond, uint32_t spare1,
                                             uint32_t spare2, int32_t packetSize, uint32_t dscp,
                                             uint32_t startOffset,
                                             uint32_t spreadingBase) override {
        return new TwampTestSession(dstIpAddress, dstUdpPort, packetsPerSecond, spare1, spare2,
                                    packetSize, dscp, startOffset, spreadingBase, clock,
                                    &systemCalls);
    }

  private:
    ShiftedClock& clock;
    ShiftedTimerSystemCalls systemCalls;
};

}  // namespace scenario_test

#endif  // TWAMP_TESTS_SCENARIO_SESSION_FACTORY_H
