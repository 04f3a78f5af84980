// Test doubles of the session's timer and send path: system calls that fire
// the packet timer, hand out random bytes and record what was sent.
#ifndef TWAMP_TESTS_SESSION_TEST_DOUBLES_H
#define TWAMP_TESTS_SESSION_TEST_DOUBLES_H

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/timerfd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ControlTestDoubles.h"
#include "FakeItc.h"
#include "MockItcDispatcher.h"
#include "PercentileVector.h"
#include "TraceRecorder.h"
#include "TwampTestSession.h"

namespace control_test {

// What one sendmsg was given.
struct SentPacket {
    int fd = -1;
    std::vector<uint8_t> payload;
    std::size_t controlLength = 0;
    std::vector<uint8_t> control;  // the first controlLength bytes
    socklen_t nameLength = 0;
};

// The result of one faked call: a return value and the errno of a failure.
struct CallResult {
    ssize_t result;
    int errorNumber;
};

class FakeSessionSystemCalls : public SystemCalls {
  public:
    static constexpr int kTimerFd = 1001;

    // SystemCalls
    int timerfdCreate(int clock, int flags) override {
        createdClock = clock;
        createdFlags = flags;
        if (timerCreateErrno != 0) {
            errno = timerCreateErrno;
            return -1;
        }
        return kTimerFd;
    }
    int timerfdSettime(int fd, int flags, const struct itimerspec* newValue,
                       struct itimerspec* /*oldValue*/) override {
        settimeFd = fd;
        settimeFlags = flags;
        settimeValues.push_back(*newValue);
        if (settimeErrno != 0) {
            errno = settimeErrno;
            return -1;
        }
        return 0;
    }
    ssize_t read(int fd, void* buffer, std::size_t count) override {
        if (fd == kTimerFd) {
            return readTimer(buffer, count);
        }
        return readRandom(fd, buffer, count);
    }
    ssize_t sendmsg(int fd, const struct msghdr* msg, int /*flags*/) override {
        events.push_back("sendmsg " + std::to_string(fd));
        recordSend(fd, msg);
        if (sendResults.empty()) {
            return static_cast<ssize_t>(msg->msg_iov[0].iov_len);
        }
        const CallResult next = sendResults.front();
        sendResults.pop_front();
        errno = next.errorNumber;
        return next.result;
    }
    int setsockopt(int fd, int level, int name, const void* value, socklen_t length) override {
        int intValue = 0;
        std::memcpy(&intValue, value, length < sizeof(intValue) ? length : sizeof(intValue));
        events.push_back("setsockopt " + std::to_string(fd) + " " + std::to_string(level) + " " +
                         std::to_string(name) + " " + std::to_string(intValue));
        if (setsockoptErrno != 0) {
            errno = setsockoptErrno;
            return -1;
        }
        return 0;
    }
    int close(int fd) override {
        closedFds.push_back(fd);
        return 0;
    }
    int getaddrinfo(const char* node, const char* service, const struct addrinfo* hints,
                    struct addrinfo** result) override {
        resolved.push_back(std::string(node) + " " + service);
        if (resolveError != 0) {
            return resolveError;
        }
        return SystemCalls::getaddrinfo(node, service, hints, result);
    }

    // Queues one timer read that returns count expiries.
    void queueExpiries(uint64_t count) { timerReads.push_back({count, 8, 0}); }
    // Queues one timer read that fails with errorNumber.
    void queueTimerFailure(int errorNumber) { timerReads.push_back({0, -1, errorNumber}); }

    int createdClock = -1;
    int createdFlags = -1;
    int timerCreateErrno = 0;
    int settimeFd = -1;
    int settimeFlags = -1;
    int settimeErrno = 0;
    std::vector<struct itimerspec> settimeValues;
    // Random reads: the byte handed out, or a result other than the count asked for.
    uint8_t randomByte = 0x5A;
    bool randomFails = false;
    ssize_t randomResult = 0;
    int randomErrno = 0;
    std::vector<int> randomReadFds;
    std::vector<std::size_t> randomReadLengths;
    std::deque<CallResult> sendResults;
    std::vector<SentPacket> sent;
    int setsockoptErrno = 0;
    std::vector<std::string> events;
    std::vector<int> closedFds;
    // Address and port texts of every getaddrinfo, "address port"; a
    // resolveError other than 0 is returned instead of resolving.
    std::vector<std::string> resolved;
    int resolveError = 0;

  private:
    struct TimerRead {
        uint64_t count;
        ssize_t result;
        int errorNumber;
    };

    ssize_t readTimer(void* buffer, std::size_t count) {
        if (timerReads.empty() || count != sizeof(uint64_t)) {
            errno = EAGAIN;
            return -1;
        }
        const TimerRead next = timerReads.front();
        timerReads.pop_front();
        if (next.result == -1) {
            errno = next.errorNumber;
            return -1;
        }
        std::memcpy(buffer, &next.count, sizeof(next.count));
        return next.result;
    }
    ssize_t readRandom(int fd, void* buffer, std::size_t count) {
        randomReadFds.push_back(fd);
        randomReadLengths.push_back(count);
        if (randomFails) {
            errno = randomErrno;
            return randomResult;
        }
        std::memset(buffer, randomByte, count);
        return static_cast<ssize_t>(count);
    }
    void recordSend(int fd, const struct msghdr* msg) {
        SentPacket packet;
        packet.fd = fd;
        const auto* bytes = static_cast<const uint8_t*>(msg->msg_iov[0].iov_base);
        packet.payload.assign(bytes, bytes + msg->msg_iov[0].iov_len);
        packet.controlLength = msg->msg_controllen;
        const auto* control = static_cast<const uint8_t*>(msg->msg_control);
        packet.control.assign(control, control + msg->msg_controllen);
        packet.nameLength = msg->msg_namelen;
        sent.push_back(packet);
    }

    std::deque<TimerRead> timerReads;
};

// 2023-11-14 22:00:00 UTC: a whole hour, minute number 28333320, which is
// the first minute of an even 15-minute interval (record 0, parity 0).
constexpr time_t kHourStart = 1699999200;

inline time_t minuteOfHour(int minute) {
    return kHourStart + minute * 60;
}

// A session whose timer, random source and sends are faked, under a mock
// controller with a mock dispatcher; the percentile library is running.
class SessionTestBase : public ::testing::Test {
  protected:
    static constexpr int kSocketFd = 7;

    void SetUp() override {
        twamp_test::TraceRecorder::reset();
        twamp_test::FakeItc::reset();
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
        EXPECT_TRUE(session.handleInput(FakeSessionSystemCalls::kTimerFd));
    }

    AdoptedMockController env;
    ::testing::NiceMock<twamp_test::MockItcDispatcher> dispatcher;
    FakeClock clock;
    FakeSessionSystemCalls systemCalls;
};

}  // namespace control_test

#endif  // TWAMP_TESTS_SESSION_TEST_DOUBLES_H
