// Test doubles of the control-path tests: a settable wall clock, and mocks
// of the multiplexer and the UDP socket that the controller hands out.
#ifndef TWAMP_TESTS_CONTROL_TEST_DOUBLES_H
#define TWAMP_TESTS_CONTROL_TEST_DOUBLES_H

#include <cerrno>
#include <ctime>

#include <gmock/gmock.h>

#include "Clock.h"
#include "IoMultiplexer.h"
#include "MockTwampTestSessionController.h"
#include "RandomFd.h"
#include "ReceiverKey.h"
#include "TwampTestSessionController.h"
#include "UdpSocket.h"

namespace control_test {

// A wall clock that shows what the test set, or fails with an errno.
class FakeClock : public Clock {
  public:
    void set(time_t seconds, long nanoseconds = 0) {
        now.tv_sec = seconds;
        now.tv_nsec = nanoseconds;
        failErrno = 0;
    }
    void failWith(int errorNumber) { failErrno = errorNumber; }

    // Clock
    bool getRealtime(struct timespec* time) override {
        if (failErrno != 0) {
            errno = failErrno;
            return false;
        }
        *time = now;
        return true;
    }

  private:
    struct timespec now = {0, 0};
    int failErrno = 0;
};

// Records registrations instead of watching descriptors; AdoptedMockController
// lets every registration succeed.
class MockIoMultiplexer : public IoMultiplexer {
  public:
    // IoMultiplexer
    MOCK_METHOD(bool, registerReadHandler, (IoHandler * handler), (override));
    MOCK_METHOD(void, removeReadHandler, (IoHandler * handler), (override));
    MOCK_METHOD(bool, registerWriteHandler, (IoHandler * handler), (override));
    MOCK_METHOD(void, removeWriteHandler, (IoHandler * handler), (override));
    MOCK_METHOD(bool, handleEvents, (), (override));
};

// An unbound socket whose receiver registry is observed.
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

// A mock controller adopted as the process-wide instance for the lifetime of
// this object, handing out the mock multiplexer and socket and a real random
// source. Sessions and dispatchers must be gone before it is.
class AdoptedMockController {
  public:
    AdoptedMockController() {
        ON_CALL(controller, getIoMultiplexer()).WillByDefault(::testing::ReturnRef(multiplexer));
        ON_CALL(multiplexer, registerReadHandler(::testing::_))
            .WillByDefault(::testing::Return(true));
        ON_CALL(multiplexer, registerWriteHandler(::testing::_))
            .WillByDefault(::testing::Return(true));
        ON_CALL(controller, getUdpSocket()).WillByDefault(::testing::ReturnRef(udpSocket));
        ON_CALL(controller, getRandomFd()).WillByDefault(::testing::ReturnRef(randomFd));
        TwampTestSessionController::resetInstanceForTest();
        TwampTestSessionController::getInstance(&controller);
    }
    ~AdoptedMockController() { TwampTestSessionController::resetInstanceForTest(); }

    ::testing::NiceMock<MockIoMultiplexer> multiplexer;
    ::testing::NiceMock<MockUdpSocket> udpSocket;
    RandomFd randomFd;
    ::testing::NiceMock<twamp_test::MockTwampTestSessionController> controller;
};

}  // namespace control_test

#endif  // TWAMP_TESTS_CONTROL_TEST_DOUBLES_H
