#include "FuzzSessionFactory.h"

#include "TwampTestSession.h"

TwampTestSession* FuzzSessionFactory::createTwampTestSession(
    const char* dstIpAddress, const char* dstUdpPort, uint32_t packetsPerSecond, uint32_t spare1,
    uint32_t spare2, int32_t packetSize, uint32_t dscp, uint32_t startOffset,
    uint32_t spreadingBase) {
    return new TwampTestSession(dstIpAddress, dstUdpPort, packetsPerSecond, spare1, spare2,
                                packetSize, dscp, startOffset, spreadingBase, clock, &systemCalls);
}
