// GoogleMock of the controller interface, for tests that adopt it as the
// process-wide controller instance.
#ifndef TWAMP_TESTS_MOCK_TWAMP_TEST_SESSION_CONTROLLER_H
#define TWAMP_TESTS_MOCK_TWAMP_TEST_SESSION_CONTROLLER_H

#include <gmock/gmock.h>

#include "TwampTestSessionControllerInterface.h"

namespace twamp_test {

class MockTwampTestSessionController : public TwampTestSessionControllerInterface {
  public:
    MOCK_METHOD(IoMultiplexer&, getIoMultiplexer, (), (override));
    MOCK_METHOD(ItcDispatcher*, getItcDispatcher, (), (override));
    MOCK_METHOD(UdpSocket&, getUdpSocket, (), (override));
    MOCK_METHOD(RandomFd&, getRandomFd, (), (override));
    MOCK_METHOD(SocketHelper&, getSocketHelper, (), (override));
    MOCK_METHOD(FinalisationPacer&, getFinalisationPacer, (), (override));
    MOCK_METHOD(void, addTwampTestSession, (const SessionKey& key, TwampTestSession* session),
                (override));
    MOCK_METHOD(void, deleteTwampTestSession, (const SessionKey& key), (override));
    MOCK_METHOD(TwampTestSession*, getTwampTestSession, (const SessionKey& key), (override));
};

}  // namespace twamp_test

#endif  // TWAMP_TESTS_MOCK_TWAMP_TEST_SESSION_CONTROLLER_H
