// GoogleMock of a test session, for tests of the controller and the
// dispatcher. It is a real TwampTestSession underneath (constructed towards
// 192.0.2.1 port 862, never started), so destroying it leaves the
// multiplexer of the process-wide controller like any session.
#ifndef TWAMP_TESTS_MOCK_TWAMP_TEST_SESSION_H
#define TWAMP_TESTS_MOCK_TWAMP_TEST_SESSION_H

#include <sys/socket.h>

#include <set>
#include <string>

#include <gmock/gmock.h>

#include "Clock.h"
#include "PmPeriodRecord.h"
#include "SystemClock.h"
#include "TwampTestSession.h"

namespace twamp_test {

class MockTwampTestSession : public TwampTestSession {
  public:
    // clock is the wall clock of the real operations the mock delegates to.
    explicit MockTwampTestSession(Clock& clock = SystemClock::instance())
        : TwampTestSession("192.0.2.1", "862", 1, 0, 0, 64, 0, 0, 0, clock) {}
    ~MockTwampTestSession() override { destroyed(); }

    // Lets setPendingPmReply hold the reply as a real session does, so that
    // the session frees it when it is destroyed.
    void holdPendingRepliesForReal() {
        ON_CALL(*this, setPendingPmReply).WillByDefault([this](union itc_msg* reply) {
            TwampTestSession::setPendingPmReply(reply);
        });
    }

    // Lets getActivePeriod read the session's clock as a real session does.
    void useRealActivePeriod() {
        ON_CALL(*this, getActivePeriod).WillByDefault([this]() {
            return TwampTestSession::getActivePeriod();
        });
    }

    // Called from the destructor, to observe when the session is destroyed.
    MOCK_METHOD(void, destroyed, ());

    // IoHandler
    MOCK_METHOD(std::set<int>, getReadFds, (), (const, override));
    MOCK_METHOD(std::set<int>, getWriteFds, (), (const, override));
    MOCK_METHOD(bool, handleInput, (int fd), (override));
    MOCK_METHOD(bool, handleOutput, (int fd), (override));

    // TwampTestSession
    MOCK_METHOD(bool, init, (), (override));
    MOCK_METHOD(std::string, getDescriptorFailure, (), (const, override));
    MOCK_METHOD(void, receiveMessage, (struct msghdr * msg), (override));
    MOCK_METHOD(void, receiveErrQueueMessage, (struct msghdr * msg, ssize_t length), (override));
    MOCK_METHOD(const PmPeriodRecord*, getPmCounters, (bool completedIntervalOnly), (override));
    MOCK_METHOD(void, setPendingPmReply, (union itc_msg * reply), (override));
    MOCK_METHOD(int, getActivePeriod, (), (override));
    MOCK_METHOD(struct sockaddr_storage, getDstAddress, (), (const, override));
};

}  // namespace twamp_test

#endif  // TWAMP_TESTS_MOCK_TWAMP_TEST_SESSION_H
