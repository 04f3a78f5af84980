#include "TwampTestSessionFactory.h"

#include "TwampTestSession.h"

TwampTestSessionFactory::~TwampTestSessionFactory() = default;

TwampTestSession* TwampTestSessionFactory::createTwampTestSession(
    const char* dstIpAddress, const char* dstUdpPort, uint32_t packetsPerSecond, uint32_t spare1,
    uint32_t spare2, int32_t packetSize, uint32_t dscp, uint32_t startOffset,
    uint32_t spreadingBase) {
    // A throwing constructor releases the memory and the exception propagates.
    return new TwampTestSession(dstIpAddress, dstUdpPort, packetsPerSecond, spare1, spare2,
                                packetSize, dscp, startOffset, spreadingBase);
}
