// Builds test sessions for the dispatcher, so that tests can put other
// sessions in their place.
#ifndef TWAMP_TEST_SESSION_FACTORY_H
#define TWAMP_TEST_SESSION_FACTORY_H

#include <cstdint>

class TwampTestSession;

class TwampTestSessionFactory {
  public:
    virtual ~TwampTestSessionFactory();

    // A new session, owned by the caller, from the create signal's fields
    // (address and port as NUL-terminated text); throws what the session's
    // constructor throws.
    virtual TwampTestSession* createTwampTestSession(const char* dstIpAddress,
                                                     const char* dstUdpPort,
                                                     uint32_t packetsPerSecond, uint32_t spare1,
                                                     uint32_t spare2, int32_t packetSize,
                                                     uint32_t dscp, uint32_t startOffset,
                                                     uint32_t spreadingBase);
};

#endif  // TWAMP_TEST_SESSION_FACTORY_H
