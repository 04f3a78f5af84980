// GoogleMock of the session factory, for tests of the dispatcher.
#ifndef TWAMP_TESTS_MOCK_TWAMP_TEST_SESSION_FACTORY_H
#define TWAMP_TESTS_MOCK_TWAMP_TEST_SESSION_FACTORY_H

#include <cstdint>

#include <gmock/gmock.h>

#include "TwampTestSessionFactory.h"

namespace twamp_test {

class MockTwampTestSessionFactory : public TwampTestSessionFactory {
  public:
    // TwampTestSessionFactory
    MOCK_METHOD(TwampTestSession*, createTwampTestSession,
                (const char* dstIpAddress, const char* dstUdpPort, uint32_t packetsPerSecond,
                 uint32_t spare1, uint32_t spare2, int32_t packetSize, uint32_t dscp,
                 uint32_t startOffset, uint32_t spreadingBase),
                (override));
};

}  // namespace twamp_test

#endif  // TWAMP_TESTS_MOCK_TWAMP_TEST_SESSION_FACTORY_H
