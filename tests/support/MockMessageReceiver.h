// GoogleMock of the side of a test session that the UDP socket routes to.
#ifndef TWAMP_TESTS_MOCK_MESSAGE_RECEIVER_H
#define TWAMP_TESTS_MOCK_MESSAGE_RECEIVER_H

#include <sys/socket.h>
#include <sys/types.h>

#include <gmock/gmock.h>

#include "MessageReceiver.h"

namespace twamp_test {

class MockMessageReceiver : public MessageReceiver {
  public:
    // MessageReceiver
    MOCK_METHOD(void, receiveMessage, (struct msghdr * msg), (override));
    MOCK_METHOD(void, receiveErrQueueMessage, (struct msghdr * msg, ssize_t length), (override));
    MOCK_METHOD(bool, ownsMessage, (const struct msghdr* msg), (const, override));
    MOCK_METHOD(bool, ownsErrQueueMessage, (const struct msghdr* msg, ssize_t length),
                (const, override));
    MOCK_METHOD(void, receiveQueueOverflowed, (), (override));
};

}  // namespace twamp_test

#endif  // TWAMP_TESTS_MOCK_MESSAGE_RECEIVER_H
