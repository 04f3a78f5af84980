// GoogleMock of the shared socket: an unbound socket whose receiver registry
// is observed, and a matcher of the keys receivers register under.
#ifndef TWAMP_TESTS_MOCK_UDP_SOCKET_H
#define TWAMP_TESTS_MOCK_UDP_SOCKET_H

#include <gmock/gmock.h>

#include "ReceiverKey.h"
#include "UdpSocket.h"

namespace twamp_test {

class MockUdpSocket : public UdpSocket {
  public:
    // UdpSocket
    MOCK_METHOD(int, getSocketFd, (), (const, override));
    MOCK_METHOD(int, getFamily, (), (const, override));
    MOCK_METHOD(void, addMessageReceiver, (const ReceiverKey& key, MessageReceiver* receiver),
                (override));
    MOCK_METHOD(void, removeMessageReceiver, (const ReceiverKey& key, MessageReceiver* receiver),
                (override));
};

// Two keys are equal when neither orders before the other.
MATCHER_P(SameReceiverKey, expected, "") {
    return !(arg < expected) && !(expected < arg);
}

}  // namespace twamp_test

#endif  // TWAMP_TESTS_MOCK_UDP_SOCKET_H
