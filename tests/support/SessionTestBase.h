// A session whose timer, random source and sends are scripted, under a mock
// controller with a mock dispatcher; the percentile library is running.
#ifndef TWAMP_TESTS_SESSION_TEST_BASE_H
#define TWAMP_TESTS_SESSION_TEST_BASE_H

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <ctime>
#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "AdoptedMockController.h"
#include "FakeClock.h"
#include "FakeItc.h"
#include "MockItcDispatcher.h"
#include "PercentileVector.h"
#include "ScriptedSystemCalls.h"
#include "TestHour.h"
#include "TraceRecorder.h"
#include "TwampTestSession.h"

namespace twamp_test {

class SessionTestBase : public ::testing::Test {
  protected:
    static constexpr int kSocketFd = 7;

    void SetUp() override {
        TraceRecorder::reset();
        FakeItc::reset();
        ASSERT_TRUE(percentile_init());
        ON_CALL(env.controller, getItcDispatcher()).WillByDefault(::testing::Return(&dispatcher));
        ON_CALL(env.udpSocket, getSocketFd()).WillByDefault(::testing::Return(kSocketFd));
        ON_CALL(env.udpSocket, getFamily()).WillByDefault(::testing::Return(AF_INET));
        // Armed 13.5 s into minute 7: the first expiry is at minute 8.
        clock.set(minuteOfHour(7) + 13, 500000000);
    }
    void TearDown() override { EXPECT_TRUE(percentile_uninit()); }

    std::unique_ptr<TwampTestSession> makeSession(uint32_t packetsPerSecond = 10,
                                                  uint32_t startOffset = 0,
                                                  uint32_t spreadingBase = 0,
                                                  const char* address = "127.0.0.1",
                                                  uint32_t dscp = 46) {
        return std::make_unique<TwampTestSession>(address, "862", packetsPerSecond, 0, 0, 64, dscp,
                                                  startOffset, spreadingBase, clock, &systemCalls);
    }

    // One timer expiry read of count at the given time.
    void fire(TwampTestSession& session, time_t seconds, long nanoseconds = 0, uint64_t count = 1) {
        clock.set(seconds, nanoseconds);
        systemCalls.queueExpiries(count);
        EXPECT_TRUE(session.handleInput(ScriptedSystemCalls::kTimerFd));
    }

    AdoptedMockController env;
    ::testing::NiceMock<MockItcDispatcher> dispatcher;
    FakeClock clock;
    ScriptedSystemCalls systemCalls;
};

}  // namespace twamp_test

#endif  // TWAMP_TESTS_SESSION_TEST_BASE_H
