#include "UdpSocket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/timerfd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "AdoptedMockController.h"
#include "ControlBuffer.h"
#include "FakeClock.h"
#include "IoMultiplexer.h"
#include "MockMessageReceiver.h"
#include "MockSystemCalls.h"
#include "ScriptedReceiveQueues.h"
#include "TestFrames.h"
#include "TimestampSource.h"
#include "TraceRecorder.h"
#include "TwampTestSessionController.h"

namespace {

using ::testing::_;
using ::testing::AnyNumber;
using ::testing::DoAll;
using ::testing::InSequence;
using ::testing::Invoke;
using ::testing::NiceMock;
using ::testing::Return;
using ::testing::ReturnRef;
using ::testing::StrictMock;
using twamp_test::AdoptedMockController;
using twamp_test::ControlBuffer;
using twamp_test::FakeClock;
using twamp_test::MockMessageReceiver;
using twamp_test::MockSystemCalls;
using twamp_test::RecvmmsgCall;
using twamp_test::ScriptedReceiveQueues;
using twamp_test::TraceRecorder;

// Fails with errno set.
auto failWith(int error) {
    return [error](auto...) {
        errno = error;
        return -1;
    };
}

// One setsockopt call: level, name and int value.
using OptionCall = std::tuple<int, int, int>;

// One armed or disarmed timer setting.
struct TimerSetting {
    int flags;
    struct itimerspec value;
};

ReceiverKey ipv4Key(const char* address, uint16_t port) {
    struct sockaddr_in ipv4 {};
    ipv4.sin_family = AF_INET;
    ipv4.sin_port = htons(port);
    inet_pton(AF_INET, address, &ipv4.sin_addr);
    return ReceiverKey(reinterpret_cast<const struct sockaddr*>(&ipv4), sizeof(ipv4));
}

// The UDP socket over scripted system calls: nothing sleeps, the monotonic
// clock reads 1234.567890123 s, and the controller instance is a mock whose
// multiplexer is a real one of the fixture.
class UdpSocketTest : public ::testing::Test {
  protected:
    void SetUp() override {
        TraceRecorder::reset();
        unsetenv("TWAMP_TIMESTAMPING");
        TimestampSource::setCurrent(TimestampSource());
        ON_CALL(env.controller, getIoMultiplexer()).WillByDefault(ReturnRef(multiplexer));
        systemCalls.delegateToReal();
        ON_CALL(systemCalls, sleep).WillByDefault(Return(0U));
        clock.setMonotonic(1234, 567890123);
        ON_CALL(systemCalls, timerfdSettime)
            .WillByDefault(
                [this](int, int flags, const struct itimerspec* value, struct itimerspec*) {
                    timerSettings.push_back({flags, *value});
                    return 0;
                });
        ON_CALL(systemCalls, read).WillByDefault([](int, void* buffer, std::size_t) {
            const uint64_t expirations = 1;
            std::memcpy(buffer, &expirations, sizeof(expirations));
            return static_cast<ssize_t>(sizeof(expirations));
        });
        udpSocket = std::make_unique<UdpSocket>(&systemCalls, clock);
    }

    void TearDown() override {
        udpSocket.reset();
        unsetenv("TWAMP_TIMESTAMPING");
        TimestampSource::setCurrent(TimestampSource());
    }

    // Every bind fails with EADDRINUSE.
    void failEveryBind() { ON_CALL(systemCalls, bind).WillByDefault(failWith(EADDRINUSE)); }

    // Every bind succeeds without binding (the address need not exist here).
    void succeedEveryBind() { ON_CALL(systemCalls, bind).WillByDefault(Return(0)); }

    // Records the int value of every setsockopt call and lets it succeed.
    void recordOptions() {
        ON_CALL(systemCalls, setsockopt)
            .WillByDefault([this](int, int level, int name, const void* value, socklen_t) {
                int option = 0;
                std::memcpy(&option, value, sizeof(option));
                options.emplace_back(level, name, option);
                return 0;
            });
    }

    // recvmmsg hands out the messages queued in kernelQueues.
    void scriptReceive() {
        ON_CALL(systemCalls, recvmmsg).WillByDefault([this](auto... args) {
            return kernelQueues.recvmmsg(args...);
        });
    }

    // Queues a looped-back frame on the error queue.
    void queueLoopedFrame(const std::vector<uint8_t>& frame) {
        kernelQueues.queue(true, {ReceiverKey(), frame});
    }

    // Queues a datagram from source on the receive queue.
    void queuePacket(const ReceiverKey& source, const std::vector<uint8_t>& bytes) {
        kernelQueues.queue(false, {source, bytes});
    }

    // A socket bound (without binding) to 127.0.0.1 port 5000.
    void bindIpv4() {
        succeedEveryBind();
        ASSERT_TRUE(udpSocket->init("127.0.0.1", "5000", false));
        TraceRecorder::reset();
    }

    // init stores its arguments, but resolution fails once and nothing is bound.
    void storeArgumentsOnly() {
        EXPECT_CALL(systemCalls, getaddrinfo(_, _, _, _))
            .WillOnce(Return(EAI_AGAIN))
            .WillRepeatedly(::testing::DoDefault());
        ASSERT_FALSE(udpSocket->init("127.0.0.1", "5000", false));
        TraceRecorder::reset();
    }

    // Lets every bind fail through the 30 start-up rounds.
    void failStartUp() {
        failEveryBind();
        ASSERT_FALSE(udpSocket->init("127.0.0.1", "5000", false));
        ASSERT_NE(-1, udpSocket->getBindTimerFd());
        TraceRecorder::reset();
        timerSettings.clear();
    }

    IoMultiplexer multiplexer;
    AdoptedMockController env;
    NiceMock<MockSystemCalls> systemCalls;
    FakeClock clock;
    std::vector<TimerSetting> timerSettings;
    std::vector<OptionCall> options;
    ScriptedReceiveQueues kernelQueues;
    std::vector<std::string> events;  // outlives the socket, whose destructor closes
    std::unique_ptr<UdpSocket> udpSocket;
};

// ---- Binding ----

// A bind in the first round is traced as succeeded after 0 seconds, without sleeping.
TEST_F(UdpSocketTest, BindInFirstRoundTakesZeroSeconds) {
    succeedEveryBind();
    EXPECT_CALL(systemCalls, sleep(_)).Times(0);
    EXPECT_TRUE(udpSocket->init("127.0.0.1", "5000", false));
    EXPECT_EQ((std::vector<std::string>{"getBoundSocket(): Succeeded IP 127.0.0.1 port 5000 "
                                        "socket bind after 0 seconds",
                                        "configureFromEnvironment(): Timestamping source "
                                        "hardware: SO_TIMESTAMPING 69, timespec index 2"}),
              TraceRecorder::twampMessages("INFO"));
}

// A bind in the seventh round follows six one-second sleeps and is traced with 6 seconds.
TEST_F(UdpSocketTest, BindInSeventhRoundTakesSixSeconds) {
    int binds = 0;
    ON_CALL(systemCalls, bind).WillByDefault([&binds](int, const struct sockaddr*, socklen_t) {
        ++binds;
        if (binds < 7) {
            errno = EADDRINUSE;
            return -1;
        }
        return 0;
    });
    EXPECT_CALL(systemCalls, sleep(1U)).Times(6);
    EXPECT_TRUE(udpSocket->init("127.0.0.1", "5000", false));
    EXPECT_EQ(7, binds);
    EXPECT_EQ((std::vector<std::string>{"getBoundSocket(): Succeeded IP 127.0.0.1 port 5000 "
                                        "socket bind after 6 seconds",
                                        "configureFromEnvironment(): Timestamping source "
                                        "hardware: SO_TIMESTAMPING 69, timespec index 2"}),
              TraceRecorder::twampMessages("INFO"));
}

// A failed bind closes its socket before the next round.
TEST_F(UdpSocketTest, FailedBindClosesItsSocket) {
    int binds = 0;
    ON_CALL(systemCalls, bind).WillByDefault([&](int fd, const struct sockaddr*, socklen_t) {
        events.push_back("bind " + std::to_string(fd));
        if (++binds == 1) {
            errno = EADDRINUSE;
            return -1;
        }
        return 0;
    });
    ON_CALL(systemCalls, close).WillByDefault([this](int fd) {
        events.push_back("close " + std::to_string(fd));
        return SystemCalls::real().close(fd);
    });
    EXPECT_TRUE(udpSocket->init("127.0.0.1", "5000", false));
    ASSERT_EQ(3U, events.size());
    EXPECT_EQ("close " + events[0].substr(5), events[1]);
    EXPECT_EQ("bind " + std::to_string(udpSocket->getSocketFd()), events[2]);
}

// Thirty failed rounds sleep 1 s each, trace at INFO and arm the bind timer
// once, absolute on CLOCK_MONOTONIC, at 1234 + 10 s.
TEST_F(UdpSocketTest, ThirtyFailedRoundsArmTheBindTimer) {
    failEveryBind();
    EXPECT_CALL(systemCalls, sleep(1U)).Times(30);
    EXPECT_CALL(systemCalls, timerfdCreate(CLOCK_MONOTONIC, 0)).Times(1);
    EXPECT_FALSE(udpSocket->init("127.0.0.1", "5000", false));
    EXPECT_EQ(std::vector<std::string>{"getBoundSocket(): Failed IP 127.0.0.1 port 5000 socket "
                                       "bind: errno 98 - Address already in use"},
              TraceRecorder::twampMessages("INFO"));
    ASSERT_EQ(1U, timerSettings.size());
    EXPECT_EQ(TFD_TIMER_ABSTIME, timerSettings[0].flags);
    EXPECT_EQ(1244, timerSettings[0].value.it_value.tv_sec);
    EXPECT_EQ(0, timerSettings[0].value.it_value.tv_nsec);
    EXPECT_EQ(0, timerSettings[0].value.it_interval.tv_sec);
    EXPECT_EQ(0, timerSettings[0].value.it_interval.tv_nsec);
}

// After the failed start-up only the bind timer is watched, and it is registered.
TEST_F(UdpSocketTest, FailedStartUpWatchesOnlyTheBindTimer) {
    failStartUp();
    const int timerFd = udpSocket->getBindTimerFd();
    EXPECT_EQ(std::set<int>{timerFd}, udpSocket->getReadFds());
    EXPECT_EQ(timerFd, multiplexer.getMaxFd());
    EXPECT_EQ(-1, udpSocket->getSocketFd());
}

// A bind timer expiry reads the expiry count and runs one round; its failure
// sleeps once, is traced at LAB and re-arms the timer at 1254.
TEST_F(UdpSocketTest, FailedRetryTracesAtLabAndReArms) {
    failStartUp();
    const int timerFd = udpSocket->getBindTimerFd();
    clock.setMonotonic(1244, 1000);
    EXPECT_CALL(systemCalls, read(timerFd, _, 8U));
    EXPECT_CALL(systemCalls, sleep(1U)).Times(1);
    EXPECT_CALL(systemCalls, timerfdCreate(_, _)).Times(0);
    EXPECT_TRUE(udpSocket->handleInput(timerFd));
    EXPECT_EQ(std::vector<std::string>{"getBoundSocket(): Failed IP 127.0.0.1 port 5000 socket "
                                       "bind: errno 98 - Address already in use"},
              TraceRecorder::twampMessages("LAB"));
    EXPECT_TRUE(TraceRecorder::twampMessages("INFO").empty());
    ASSERT_EQ(1U, timerSettings.size());
    EXPECT_EQ(TFD_TIMER_ABSTIME, timerSettings[0].flags);
    EXPECT_EQ(1254, timerSettings[0].value.it_value.tv_sec);
    EXPECT_EQ(0, timerSettings[0].value.it_value.tv_nsec);
}

// A successful retry binds after 0 seconds, configures the socket and
// watches it beside the expired timer, which stays open.
TEST_F(UdpSocketTest, SuccessfulRetryBindsTheSocket) {
    failStartUp();
    const int timerFd = udpSocket->getBindTimerFd();
    succeedEveryBind();
    EXPECT_TRUE(udpSocket->handleInput(timerFd));
    EXPECT_EQ((std::vector<std::string>{"getBoundSocket(): Succeeded IP 127.0.0.1 port 5000 "
                                        "socket bind after 0 seconds",
                                        "configureFromEnvironment(): Timestamping source "
                                        "hardware: SO_TIMESTAMPING 69, timespec index 2"}),
              TraceRecorder::twampMessages("INFO"));
    const int socketFd = udpSocket->getSocketFd();
    ASSERT_NE(-1, socketFd);
    EXPECT_EQ((std::set<int>{timerFd, socketFd}), udpSocket->getReadFds());
    EXPECT_EQ(timerFd, udpSocket->getBindTimerFd());
    EXPECT_TRUE(timerSettings.empty());
}

// An address that cannot be resolved is traced at ERROR and never retried.
TEST_F(UdpSocketTest, UnresolvableAddressIsNotRetried) {
    ON_CALL(systemCalls, getaddrinfo).WillByDefault(Return(EAI_NONAME));
    EXPECT_CALL(systemCalls, socket(_, _, _)).Times(0);
    EXPECT_CALL(systemCalls, timerfdCreate(_, _)).Times(0);
    EXPECT_FALSE(udpSocket->init("no.such.host", "5000", false));
    EXPECT_EQ(std::vector<std::string>{"getBoundSocket(): Failed getaddrinfo: Name or service not "
                                       "known"},
              TraceRecorder::twampMessages("ERROR"));
    EXPECT_EQ(-1, udpSocket->getBindTimerFd());
}

// Resolution asks for passive datagram sockets of any family.
TEST_F(UdpSocketTest, HintsArePassiveDatagram) {
    struct addrinfo hints;
    std::memset(&hints, 0xFF, sizeof(hints));
    udpSocket->getHints(&hints);
    EXPECT_EQ(AI_PASSIVE, hints.ai_flags);
    EXPECT_EQ(AF_UNSPEC, hints.ai_family);
    EXPECT_EQ(SOCK_DGRAM, hints.ai_socktype);
    EXPECT_EQ(0, hints.ai_protocol);
    EXPECT_EQ(nullptr, hints.ai_addr);
    EXPECT_EQ(nullptr, hints.ai_next);
}

// No attempts means no round: no socket, but the failure trace and the timer.
TEST_F(UdpSocketTest, ZeroAttemptsMakeNoRound) {
    ON_CALL(systemCalls, getaddrinfo).WillByDefault([](auto... args) {
        const int result = SystemCalls::real().getaddrinfo(args...);
        errno = EADDRINUSE;
        return result;
    });
    storeArgumentsOnly();
    EXPECT_CALL(systemCalls, socket(_, _, _)).Times(0);
    EXPECT_CALL(systemCalls, sleep(_)).Times(0);
    EXPECT_FALSE(udpSocket->getBoundSocket(0));
    EXPECT_EQ(std::vector<std::string>{"getBoundSocket(): Failed IP 127.0.0.1 port 5000 socket "
                                       "bind: errno 98 - Address already in use"},
              TraceRecorder::twampMessages("INFO"));
    EXPECT_NE(-1, udpSocket->getBindTimerFd());
}

// The resolved list is walked in order: the second entry binds when the first
// fails, and the family is taken from the first entry of the list.
TEST_F(UdpSocketTest, WalksResolvedListAndTakesFirstFamily) {
    struct sockaddr_in6 ipv6 {};
    ipv6.sin6_family = AF_INET6;
    struct sockaddr_in ipv4 {};
    ipv4.sin_family = AF_INET;
    struct addrinfo second {};
    second.ai_family = AF_INET;
    second.ai_socktype = SOCK_DGRAM;
    second.ai_addr = reinterpret_cast<struct sockaddr*>(&ipv4);
    second.ai_addrlen = sizeof(ipv4);
    struct addrinfo first {};
    first.ai_family = AF_INET6;
    first.ai_socktype = SOCK_DGRAM;
    first.ai_addr = reinterpret_cast<struct sockaddr*>(&ipv6);
    first.ai_addrlen = sizeof(ipv6);
    first.ai_next = &second;
    ON_CALL(systemCalls, getaddrinfo)
        .WillByDefault(DoAll(::testing::SetArgPointee<3>(&first), Return(0)));
    EXPECT_CALL(systemCalls, freeaddrinfo(&first)).WillOnce(Return());
    ON_CALL(systemCalls, bind).WillByDefault([](int, const struct sockaddr* address, socklen_t) {
        if (address->sa_family == AF_INET6) {
            errno = EADDRNOTAVAIL;
            return -1;
        }
        return 0;
    });
    EXPECT_CALL(systemCalls, sleep(_)).Times(0);
    EXPECT_TRUE(udpSocket->init("any", "5000", false));
    EXPECT_EQ(AF_INET6, udpSocket->getFamily());
}

// A socket that cannot be created counts as a failed entry; its errno is traced.
TEST_F(UdpSocketTest, SocketCreationFailureFailsTheRound) {
    ON_CALL(systemCalls, socket).WillByDefault(failWith(EMFILE));
    EXPECT_CALL(systemCalls, bind(_, _, _)).Times(0);
    EXPECT_FALSE(udpSocket->init("127.0.0.1", "5000", false));
    EXPECT_EQ(std::vector<std::string>{"getBoundSocket(): Failed IP 127.0.0.1 port 5000 socket "
                                       "bind: errno 24 - Too many open files"},
              TraceRecorder::twampMessages("INFO"));
}

// A failing clock_gettime is traced at ERROR and leaves the timer unarmed.
TEST_F(UdpSocketTest, ClockFailureLeavesTimerUnarmed) {
    clock.failWith(EINVAL);
    udpSocket->scheduleNextBindAttempt();
    EXPECT_EQ(std::vector<std::string>{"scheduleNextBindAttempt(): Failed clock_gettime: errno 22 "
                                       "- Invalid argument"},
              TraceRecorder::twampMessages("ERROR"));
    EXPECT_TRUE(timerSettings.empty());
}

// A failing timerfd_settime is traced at ERROR.
TEST_F(UdpSocketTest, TimerArmFailureTraced) {
    ON_CALL(systemCalls, timerfdSettime).WillByDefault(failWith(EINVAL));
    udpSocket->scheduleNextBindAttempt();
    EXPECT_EQ(std::vector<std::string>{"scheduleNextBindAttempt(): Failed timerfd_settime: errno "
                                       "22 - Invalid argument"},
              TraceRecorder::twampMessages("ERROR"));
}

// Stopping a timer that does not exist is traced and still disarms (and fails on -1).
TEST_F(UdpSocketTest, StopWithoutTimerIsTraced) {
    ON_CALL(systemCalls, timerfdSettime).WillByDefault(failWith(EBADF));
    EXPECT_CALL(systemCalls, timerfdSettime(-1, TFD_TIMER_ABSTIME, _, nullptr));
    errno = ENOENT;
    udpSocket->stopBindTimer();
    EXPECT_EQ((std::vector<std::string>{"stopBindTimer(): Bind timer is not running: errno 2 - No "
                                        "such file or directory",
                                        "stopBindTimer(): Failed timerfd_settime: errno 9 - Bad "
                                        "file descriptor"}),
              TraceRecorder::twampMessages("ERROR"));
}

// Destruction disarms (all zero, absolute) and closes the bind timer and leaves the multiplexer.
TEST_F(UdpSocketTest, DestructionStopsAndClosesTheBindTimer) {
    failStartUp();
    const int timerFd = udpSocket->getBindTimerFd();
    EXPECT_CALL(systemCalls, close(timerFd));
    udpSocket.reset();
    ASSERT_EQ(1U, timerSettings.size());
    EXPECT_EQ(TFD_TIMER_ABSTIME, timerSettings[0].flags);
    EXPECT_EQ(0, timerSettings[0].value.it_value.tv_sec);
    EXPECT_EQ(0, timerSettings[0].value.it_value.tv_nsec);
    EXPECT_EQ(0, multiplexer.getMaxFd());
}

// Destruction closes the bound socket.
TEST_F(UdpSocketTest, DestructionClosesTheSocket) {
    bindIpv4();
    const int socketFd = udpSocket->getSocketFd();
    EXPECT_CALL(systemCalls, close(socketFd));
    udpSocket.reset();
    EXPECT_EQ(0, multiplexer.getMaxFd());
}

// init stores the caller's strings (not copies) and the tunnel flag.
TEST_F(UdpSocketTest, InitStoresItsArguments) {
    succeedEveryBind();
    const char* address = "127.0.0.1";
    const char* port = "5000";
    udpSocket->init(address, port, true);
    EXPECT_EQ(address, udpSocket->getSrcIpAddress());
    EXPECT_EQ(port, udpSocket->getSrcUdpPort());
    EXPECT_TRUE(udpSocket->isIpsecTunnel());
    EXPECT_EQ(AF_INET, udpSocket->getFamily());
}

// ---- Configuration ----

// An IPv4 socket gets SO_TIMESTAMPING 69, a 4 MiB receive buffer, the drop
// count, IP_TTL 255, IP_RECVTTL 1 and IP_RECVTOS 1, in order.
TEST_F(UdpSocketTest, Ipv4OptionValues) {
    recordOptions();
    bindIpv4();
    EXPECT_EQ((std::vector<OptionCall>{
                  OptionCall{SOL_SOCKET, SO_TIMESTAMPING, 69},
                  OptionCall{SOL_SOCKET, SO_RCVBUFFORCE, 4194304},
                  OptionCall{SOL_SOCKET, SO_RXQ_OVFL, 1}, OptionCall{IPPROTO_IP, IP_TTL, 255},
                  OptionCall{IPPROTO_IP, IP_RECVTTL, 1}, OptionCall{IPPROTO_IP, IP_RECVTOS, 1}}),
              options);
}

// An IPv6 socket gets SO_TIMESTAMPING 69, a 4 MiB receive buffer, the drop
// count, IPV6_RECVHOPLIMIT 1 and IPV6_RECVTCLASS 1, in order.
TEST_F(UdpSocketTest, Ipv6OptionValues) {
    recordOptions();
    succeedEveryBind();
    ASSERT_TRUE(udpSocket->init("::1", "5000", false));
    EXPECT_EQ(AF_INET6, udpSocket->getFamily());
    EXPECT_EQ((std::vector<OptionCall>{OptionCall{SOL_SOCKET, SO_TIMESTAMPING, 69},
                                       OptionCall{SOL_SOCKET, SO_RCVBUFFORCE, 4194304},
                                       OptionCall{SOL_SOCKET, SO_RXQ_OVFL, 1},
                                       OptionCall{IPPROTO_IPV6, IPV6_RECVHOPLIMIT, 1},
                                       OptionCall{IPPROTO_IPV6, IPV6_RECVTCLASS, 1}}),
              options);
}

// Without the privilege to force it, the receive buffer is asked for as far
// as the system allows.
TEST_F(UdpSocketTest, UnforcedReceiveBufferFallsBack) {
    ON_CALL(systemCalls, setsockopt)
        .WillByDefault([this](int, int level, int name, const void* value, socklen_t) {
            int option = 0;
            std::memcpy(&option, value, sizeof(option));
            options.emplace_back(level, name, option);
            if (name == SO_RCVBUFFORCE) {
                errno = EPERM;
                return -1;
            }
            return 0;
        });
    succeedEveryBind();
    ASSERT_TRUE(udpSocket->init("127.0.0.1", "5000", false));
    ASSERT_GE(options.size(), 3u);
    EXPECT_EQ((OptionCall{SOL_SOCKET, SO_RCVBUFFORCE, 4194304}), options[1]);
    EXPECT_EQ((OptionCall{SOL_SOCKET, SO_RCVBUF, 4194304}), options[2]);
    EXPECT_EQ(std::vector<std::string>{}, TraceRecorder::twampMessages("LAB"));
}

// A receive buffer that cannot be enlarged at all, and a drop count the
// kernel does not keep, are traced at LAB; the socket is used as it is.
TEST_F(UdpSocketTest, ReceiveBufferFailureTraced) {
    ON_CALL(systemCalls, setsockopt).WillByDefault(failWith(ENOBUFS));
    succeedEveryBind();
    ASSERT_TRUE(udpSocket->init("127.0.0.1", "5000", false));
    EXPECT_EQ((std::vector<std::string>{
                  "socketConfiguration(): Failed to enlarge the socket receive buffer: errno 105 "
                  "- No buffer space available",
                  "socketConfiguration(): Failed setsockopt SO_RXQ_OVFL: errno 105 - No buffer "
                  "space available"}),
              TraceRecorder::twampMessages("LAB"));
}

// With TWAMP_TIMESTAMPING=software the socket asks for SO_TIMESTAMPING 26 and
// later timestamp reads use timespec 0.
TEST_F(UdpSocketTest, SoftwareTimestampingOptionValue) {
    setenv("TWAMP_TIMESTAMPING", "software", 1);
    recordOptions();
    bindIpv4();
    ASSERT_FALSE(options.empty());
    EXPECT_EQ((OptionCall{SOL_SOCKET, SO_TIMESTAMPING, 26}), options[0]);
    EXPECT_EQ(0U, TimestampSource::getCurrent().getTimespecIndex());
}

// An unknown TWAMP_TIMESTAMPING falls back to 69 with an ERROR trace.
TEST_F(UdpSocketTest, UnknownTimestampingFallsBackToHardware) {
    setenv("TWAMP_TIMESTAMPING", "fast", 1);
    recordOptions();
    succeedEveryBind();
    ASSERT_TRUE(udpSocket->init("127.0.0.1", "5000", false));
    ASSERT_FALSE(options.empty());
    EXPECT_EQ((OptionCall{SOL_SOCKET, SO_TIMESTAMPING, 69}), options[0]);
    EXPECT_EQ(std::vector<std::string>{"fromSetting(): Unknown TWAMP_TIMESTAMPING value 'fast', "
                                       "using hardware"},
              TraceRecorder::twampMessages("ERROR"));
}

// Every failing IPv4 option is traced at ERROR and none stops the sequence.
TEST_F(UdpSocketTest, Ipv4OptionFailuresTraced) {
    ON_CALL(systemCalls, setsockopt).WillByDefault(failWith(EPERM));
    succeedEveryBind();
    ASSERT_TRUE(udpSocket->init("127.0.0.1", "5000", false));
    EXPECT_EQ(
        (std::vector<std::string>{
            "socketConfiguration(): Failed setsockopt SO_TIMESTAMPING: errno 1 - Operation "
            "not permitted",
            "socketConfiguration(): Failed to set socket option IP_TTL: errno 1 - Operation not "
            "permitted",
            "socketConfiguration(): Failed to set socket option IP_RECVTTL: errno 1 - Operation "
            "not permitted",
            "socketConfiguration(): Failed to set socket option IP_RECVTOS: errno 1 - Operation "
            "not permitted"}),
        TraceRecorder::twampMessages("ERROR"));
    EXPECT_EQ(udpSocket->getSocketFd(), multiplexer.getMaxFd());
}

// Every failing IPv6 option is traced at ERROR.
TEST_F(UdpSocketTest, Ipv6OptionFailuresTraced) {
    ON_CALL(systemCalls, setsockopt).WillByDefault(failWith(ENOPROTOOPT));
    succeedEveryBind();
    ASSERT_TRUE(udpSocket->init("::1", "5000", false));
    EXPECT_EQ(
        (std::vector<std::string>{
            "socketConfiguration(): Failed setsockopt SO_TIMESTAMPING: errno 92 - Protocol "
            "not available",
            "socketConfiguration(): Failed to set socket option IPV6_RECVHOPLIMIT: errno 92 - "
            "Protocol not available",
            "socketConfiguration(): Failed to set socket option IPV6_RECVTCLASS: errno 92 - "
            "Protocol not available"}),
        TraceRecorder::twampMessages("ERROR"));
}

// The socket is made non-blocking by adding O_NONBLOCK to its flags.
TEST_F(UdpSocketTest, SocketBecomesNonBlocking) {
    bindIpv4();
    const int flags = fcntl(udpSocket->getSocketFd(), F_GETFL);
    EXPECT_EQ(O_NONBLOCK | O_RDWR, flags);
}

// When F_GETFL fails, F_SETFL gets O_NONBLOCK alone.
TEST_F(UdpSocketTest, FlagsReadFailureSetsNonBlockingAlone) {
    ON_CALL(systemCalls, fcntl(_, F_GETFL, _)).WillByDefault(failWith(EBADF));
    EXPECT_CALL(systemCalls, fcntl(_, F_GETFL, 0));
    EXPECT_CALL(systemCalls, fcntl(_, F_SETFL, O_NONBLOCK));
    bindIpv4();
}

// A failing F_SETFL is traced at ERROR.
TEST_F(UdpSocketTest, NonBlockingFailureTraced) {
    ON_CALL(systemCalls, fcntl(_, F_SETFL, _)).WillByDefault(failWith(EBADF));
    succeedEveryBind();
    ASSERT_TRUE(udpSocket->init("127.0.0.1", "5000", false));
    EXPECT_EQ(std::vector<std::string>{"socketConfiguration(): Failed fcntl: errno 9 - Bad file "
                                       "descriptor"},
              TraceRecorder::twampMessages("ERROR"));
}

// A configured socket is registered for reading with the controller's multiplexer.
TEST_F(UdpSocketTest, ConfiguredSocketIsRegistered) {
    EXPECT_CALL(env.controller, getIoMultiplexer()).Times(1);
    bindIpv4();
    EXPECT_EQ(std::set<int>{udpSocket->getSocketFd()}, udpSocket->getReadFds());
    EXPECT_EQ(udpSocket->getSocketFd(), multiplexer.getMaxFd());
}

// ---- Applied TOS ----

// No TOS is known before a session has set one.
TEST_F(UdpSocketTest, AppliedTosUnknownAtFirst) {
    bindIpv4();
    EXPECT_EQ(-1, udpSocket->getAppliedTos());
}

// The TOS value recorded last is the one reported.
TEST_F(UdpSocketTest, AppliedTosIsTheLastRecorded) {
    bindIpv4();
    udpSocket->setAppliedTos(184);
    udpSocket->setAppliedTos(40);
    EXPECT_EQ(40, udpSocket->getAppliedTos());
}

// A failed set, recorded as -1, makes the TOS unknown again.
TEST_F(UdpSocketTest, AppliedTosUnknownAfterFailedSet) {
    bindIpv4();
    udpSocket->setAppliedTos(184);
    udpSocket->setAppliedTos(-1);
    EXPECT_EQ(-1, udpSocket->getAppliedTos());
}

// A socket bound by a late retry starts without a known TOS.
TEST_F(UdpSocketTest, AppliedTosUnknownOnNewlyBoundSocket) {
    failStartUp();
    udpSocket->setAppliedTos(184);
    succeedEveryBind();
    ASSERT_TRUE(udpSocket->handleInput(udpSocket->getBindTimerFd()));
    ASSERT_NE(-1, udpSocket->getSocketFd());
    EXPECT_EQ(-1, udpSocket->getAppliedTos());
}

// ---- Receiving ----

// Each receive offers 64 headers, each with a name of 128 bytes, one buffer
// of 10000 and control of 256, with MSG_DONTWAIT added and no time-out; the
// error queue first, then the receive queue.
TEST_F(UdpSocketTest, ReceiveOffersFullBatchesWithoutWaiting) {
    bindIpv4();
    std::vector<int> flagsSeen;
    ON_CALL(systemCalls, recvmmsg)
        .WillByDefault([&flagsSeen](int, struct mmsghdr* messages, unsigned int length, int flags,
                                    struct timespec* timeout) {
            EXPECT_EQ(64U, length);
            EXPECT_EQ(nullptr, timeout);
            for (unsigned int index = 0; index < length; ++index) {
                const struct msghdr& msg = messages[index].msg_hdr;
                EXPECT_EQ(128U, msg.msg_namelen);
                EXPECT_EQ(1U, msg.msg_iovlen);
                EXPECT_EQ(10000U, msg.msg_iov[0].iov_len);
                EXPECT_EQ(256U, msg.msg_controllen);
                EXPECT_EQ(0, msg.msg_flags);
            }
            flagsSeen.push_back(flags);
            errno = EAGAIN;
            return -1;
        });
    udpSocket->handleInput(udpSocket->getSocketFd());
    EXPECT_EQ((std::vector<int>{MSG_ERRQUEUE | MSG_DONTWAIT, MSG_DONTWAIT}), flagsSeen);
    EXPECT_TRUE(TraceRecorder::records().empty());
}

// A failing recvmmsg is traced at LAB with its errno.
TEST_F(UdpSocketTest, ReceiveFailureTraced) {
    bindIpv4();
    ON_CALL(systemCalls, recvmmsg).WillByDefault(failWith(EBADF));
    EXPECT_EQ(-1, udpSocket->receiveMessage(0, 64));
    EXPECT_EQ(std::vector<std::string>{"receiveMessage(): Failed recvmsg: errno 9 - Bad file "
                                       "descriptor"},
              TraceRecorder::twampMessages("LAB"));
}

// A failing receive ends the readiness: one trace per queue, no retry.
TEST_F(UdpSocketTest, ReceiveFailureEndsTheReadiness) {
    bindIpv4();
    ON_CALL(systemCalls, recvmmsg).WillByDefault(failWith(ENOBUFS));
    EXPECT_CALL(systemCalls, recvmmsg(_, _, _, _, _)).Times(2);
    EXPECT_TRUE(udpSocket->handleInput(udpSocket->getSocketFd()));
    EXPECT_EQ((std::vector<std::string>{"receiveMessage(): Failed recvmsg: errno 105 - No buffer "
                                        "space available",
                                        "receiveMessage(): Failed recvmsg: errno 105 - No buffer "
                                        "space available"}),
              TraceRecorder::twampMessages("LAB"));
}

// ENOMSG and EAGAIN mean "nothing there" and are not traced.
TEST_F(UdpSocketTest, ReceiveNothingThereNotTraced) {
    bindIpv4();
    ON_CALL(systemCalls, recvmmsg).WillByDefault(failWith(ENOMSG));
    EXPECT_EQ(-1, udpSocket->receiveMessage(MSG_ERRQUEUE, 64));
    ON_CALL(systemCalls, recvmmsg).WillByDefault(failWith(EAGAIN));
    EXPECT_EQ(-1, udpSocket->receiveMessage(0, 64));
    EXPECT_TRUE(TraceRecorder::records().empty());
}

// A receive never offers more headers than one batch holds.
TEST_F(UdpSocketTest, ReceiveLimitedToTheBatch) {
    bindIpv4();
    scriptReceive();
    udpSocket->receiveMessage(0, 1000);
    EXPECT_EQ((std::vector<RecvmmsgCall>{{MSG_DONTWAIT, 64}}), kernelQueues.calls);
}

// A packet goes to the receiver registered for its source address.
TEST_F(UdpSocketTest, PacketRoutedBySourceAddress) {
    bindIpv4();
    scriptReceive();
    StrictMock<MockMessageReceiver> receiver;
    udpSocket->addMessageReceiver(ipv4Key("198.18.0.2", 862), &receiver);
    queuePacket(ipv4Key("198.18.0.2", 862), {1, 2, 3});
    std::vector<uint8_t> received;
    EXPECT_CALL(receiver, receiveMessage(_)).WillOnce([&received](struct msghdr* msg) {
        const uint8_t* data = static_cast<const uint8_t*>(msg->msg_iov[0].iov_base);
        received.assign(data, data + msg->msg_iov[0].iov_len);
    });
    EXPECT_TRUE(udpSocket->handleInput(udpSocket->getSocketFd()));
    EXPECT_EQ((std::vector<uint8_t>{1, 2, 3}), received);
    EXPECT_EQ(1U, udpSocket->getMessageCount());
    EXPECT_EQ(0U, udpSocket->getErrQueueMessageCount());
}

// The bytes in the single I/O vector of a handed-on message.
std::vector<uint8_t> bytesOf(const struct msghdr* msg) {
    const auto* data = static_cast<const uint8_t*>(msg->msg_iov[0].iov_base);
    return std::vector<uint8_t>(data, data + msg->msg_iov[0].iov_len);
}

// The control data of a handed-on message.
std::vector<uint8_t> controlOf(const struct msghdr* msg) {
    const auto* data = static_cast<const uint8_t*>(msg->msg_control);
    return std::vector<uint8_t>(data, data + msg->msg_controllen);
}

// The IPv4 source address and port of a handed-on message, as text.
std::string sourceOf(const struct msghdr* msg) {
    struct sockaddr_in source {};
    std::memcpy(&source, msg->msg_name, sizeof(source));
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &source.sin_addr, text, sizeof(text));
    return std::string(text) + ":" + std::to_string(ntohs(source.sin_port));
}

// Each message of a batch comes with a header of its own: its source, exactly
// its bytes and its control data, still intact when the next one is handed on.
TEST_F(UdpSocketTest, EachMessageHasAHeaderOfItsOwn) {
    bindIpv4();
    scriptReceive();
    NiceMock<MockMessageReceiver> first;
    NiceMock<MockMessageReceiver> second;
    udpSocket->addMessageReceiver(ipv4Key("198.18.0.2", 862), &first);
    udpSocket->addMessageReceiver(ipv4Key("198.18.0.3", 862), &second);
    kernelQueues.queue(false, {ipv4Key("198.18.0.2", 862), {1, 2, 3}, {0xA1, 0xA2}});
    kernelQueues.queue(false, {ipv4Key("198.18.0.3", 862), {4, 5}, {0xB1}});
    std::vector<struct msghdr*> headers;
    const auto keep = [&headers](struct msghdr* msg) { headers.push_back(msg); };
    ON_CALL(first, receiveMessage(_)).WillByDefault(keep);
    ON_CALL(second, receiveMessage(_)).WillByDefault(keep);
    udpSocket->handleInput(udpSocket->getSocketFd());
    ASSERT_EQ(2U, headers.size());
    EXPECT_EQ("198.18.0.2:862", sourceOf(headers[0]));
    EXPECT_EQ((std::vector<uint8_t>{1, 2, 3}), bytesOf(headers[0]));
    EXPECT_EQ((std::vector<uint8_t>{0xA1, 0xA2}), controlOf(headers[0]));
    EXPECT_EQ("198.18.0.3:862", sourceOf(headers[1]));
    EXPECT_EQ((std::vector<uint8_t>{4, 5}), bytesOf(headers[1]));
    EXPECT_EQ((std::vector<uint8_t>{0xB1}), controlOf(headers[1]));
}

// A shorter datagram after a longer one is handed on with its own length only.
TEST_F(UdpSocketTest, ShorterDatagramSeesOnlyItsBytes) {
    bindIpv4();
    scriptReceive();
    NiceMock<MockMessageReceiver> receiver;
    udpSocket->addMessageReceiver(ipv4Key("198.18.0.2", 862), &receiver);
    std::vector<std::vector<uint8_t>> received;
    ON_CALL(receiver, receiveMessage(_)).WillByDefault([&received](struct msghdr* msg) {
        received.push_back(bytesOf(msg));
    });
    queuePacket(ipv4Key("198.18.0.2", 862), {1, 2, 3, 4, 5, 6});
    udpSocket->handleInput(udpSocket->getSocketFd());
    queuePacket(ipv4Key("198.18.0.2", 862), {7, 8});
    udpSocket->handleInput(udpSocket->getSocketFd());
    EXPECT_EQ((std::vector<std::vector<uint8_t>>{{1, 2, 3, 4, 5, 6}, {7, 8}}), received);
}

// A datagram longer than the buffer (MSG_TRUNC) is handed on with the 10000
// bytes that fit, without a trace.
TEST_F(UdpSocketTest, LongDatagramHandedOnTruncated) {
    bindIpv4();
    scriptReceive();
    StrictMock<MockMessageReceiver> receiver;
    udpSocket->addMessageReceiver(ipv4Key("198.18.0.2", 862), &receiver);
    queuePacket(ipv4Key("198.18.0.2", 862), std::vector<uint8_t>(65507, 0x5A));
    std::size_t length = 0;
    int flags = 0;
    EXPECT_CALL(receiver, receiveMessage(_)).WillOnce([&](struct msghdr* msg) {
        length = msg->msg_iov[0].iov_len;
        flags = msg->msg_flags;
    });
    udpSocket->handleInput(udpSocket->getSocketFd());
    EXPECT_EQ(10000U, length);
    EXPECT_EQ(MSG_TRUNC, flags);
    EXPECT_EQ(1U, udpSocket->getMessageCount());
    EXPECT_TRUE(TraceRecorder::records().empty());
}

// A byte count larger than the buffer is not believed: the message is handed
// on with the buffer's 10000 bytes.
TEST_F(UdpSocketTest, ByteCountBeyondTheBufferNotBelieved) {
    bindIpv4();
    scriptReceive();
    StrictMock<MockMessageReceiver> receiver;
    udpSocket->addMessageReceiver(ipv4Key("198.18.0.2", 862), &receiver);
    kernelQueues.queue(false, {ipv4Key("198.18.0.2", 862), {1, 2, 3}, {}, 0, 20000});
    std::size_t length = 0;
    EXPECT_CALL(receiver, receiveMessage(_)).WillOnce([&length](struct msghdr* msg) {
        length = msg->msg_iov[0].iov_len;
    });
    udpSocket->handleInput(udpSocket->getSocketFd());
    EXPECT_EQ(10000U, length);
}

// A packet whose control data was cut (MSG_CTRUNC) is counted, dropped and
// traced at LAB: its timestamps cannot be trusted.
TEST_F(UdpSocketTest, PacketWithTruncatedControlDropped) {
    bindIpv4();
    scriptReceive();
    StrictMock<MockMessageReceiver> receiver;
    udpSocket->addMessageReceiver(ipv4Key("198.18.0.2", 862), &receiver);
    kernelQueues.queue(false, {ipv4Key("198.18.0.2", 862), {1, 2, 3}, std::vector<uint8_t>(300)});
    udpSocket->handleInput(udpSocket->getSocketFd());
    EXPECT_EQ(std::vector<std::string>{"handleInput(): Received message with truncated control "
                                       "data discarded"},
              TraceRecorder::twampMessages("LAB"));
    EXPECT_EQ(1U, udpSocket->getMessageCount());
}

// An error-queue message whose control data was cut (MSG_CTRUNC) is counted,
// dropped and traced at LAB.
TEST_F(UdpSocketTest, ErrQueueMessageWithTruncatedControlDropped) {
    bindIpv4();
    scriptReceive();
    StrictMock<MockMessageReceiver> receiver;
    udpSocket->addMessageReceiver(ipv4Key("198.18.0.2", 862), &receiver);
    kernelQueues.queue(true, {ReceiverKey(),
                              twamp_test::withEthernet(twamp_test::ipv4Packet(17, 18), 0x08, 0x00),
                              {},
                              MSG_CTRUNC});
    udpSocket->handleInput(udpSocket->getSocketFd());
    EXPECT_EQ(std::vector<std::string>{"handleInput(): Error-queue message with truncated control "
                                       "data discarded"},
              TraceRecorder::twampMessages("LAB"));
    EXPECT_EQ(1U, udpSocket->getErrQueueMessageCount());
}

// A packet whose source port differs from the registered one finds no receiver.
TEST_F(UdpSocketTest, PacketFromOtherPortFindsNoReceiver) {
    bindIpv4();
    scriptReceive();
    StrictMock<MockMessageReceiver> receiver;
    udpSocket->addMessageReceiver(ipv4Key("198.18.0.2", 862), &receiver);
    queuePacket(ipv4Key("198.18.0.2", 863), {1, 2, 3});
    udpSocket->handleInput(udpSocket->getSocketFd());
    EXPECT_EQ(std::vector<std::string>{"handleInput(): Failed to find message receiver"},
              TraceRecorder::twampMessages("LAB"));
    EXPECT_EQ(1U, udpSocket->getMessageCount());
}

// A lone receiver of a key gets its packets without being asked whether they are its own.
TEST_F(UdpSocketTest, LoneReceiverIsNotAsked) {
    bindIpv4();
    scriptReceive();
    StrictMock<MockMessageReceiver> receiver;
    udpSocket->addMessageReceiver(ipv4Key("198.18.0.2", 862), &receiver);
    queuePacket(ipv4Key("198.18.0.2", 862), {1});
    EXPECT_CALL(receiver, receiveMessage(_));
    udpSocket->handleInput(udpSocket->getSocketFd());
}

// Among receivers of one key, a packet goes to the one that owns it.
TEST_F(UdpSocketTest, PacketGoesToTheReceiverThatOwnsIt) {
    bindIpv4();
    scriptReceive();
    StrictMock<MockMessageReceiver> first;
    StrictMock<MockMessageReceiver> second;
    udpSocket->addMessageReceiver(ipv4Key("198.18.0.2", 862), &first);
    udpSocket->addMessageReceiver(ipv4Key("198.18.0.2", 862), &second);
    queuePacket(ipv4Key("198.18.0.2", 862), {1});
    EXPECT_CALL(first, ownsMessage(_)).WillOnce(Return(false));
    EXPECT_CALL(second, ownsMessage(_)).WillOnce(Return(true));
    EXPECT_CALL(second, receiveMessage(_));
    udpSocket->handleInput(udpSocket->getSocketFd());
}

// Among receivers of one key, a looped-back frame goes to the one that owns
// it, asked with the frame's byte count.
TEST_F(UdpSocketTest, LoopedFrameGoesToTheReceiverThatOwnsIt) {
    bindIpv4();
    scriptReceive();
    StrictMock<MockMessageReceiver> first;
    StrictMock<MockMessageReceiver> second;
    udpSocket->addMessageReceiver(ipv4Key("198.18.0.2", 862), &first);
    udpSocket->addMessageReceiver(ipv4Key("198.18.0.2", 862), &second);
    queueLoopedFrame(twamp_test::withEthernet(twamp_test::ipv4Packet(17, 18), 0x08, 0x00));
    EXPECT_CALL(first, ownsErrQueueMessage(_, 60)).WillOnce(Return(false));
    EXPECT_CALL(second, ownsErrQueueMessage(_, 60)).WillOnce(Return(true));
    EXPECT_CALL(second, receiveErrQueueMessage(_, 60));
    udpSocket->handleInput(udpSocket->getSocketFd());
}

// A packet that no receiver of its key owns goes to the first one registered.
TEST_F(UdpSocketTest, PacketNobodyOwnsGoesToTheFirst) {
    bindIpv4();
    scriptReceive();
    NiceMock<MockMessageReceiver> first;
    NiceMock<MockMessageReceiver> second;
    udpSocket->addMessageReceiver(ipv4Key("198.18.0.2", 862), &first);
    udpSocket->addMessageReceiver(ipv4Key("198.18.0.2", 862), &second);
    queuePacket(ipv4Key("198.18.0.2", 862), {1});
    EXPECT_CALL(first, receiveMessage(_));
    EXPECT_CALL(second, receiveMessage(_)).Times(0);
    udpSocket->handleInput(udpSocket->getSocketFd());
    EXPECT_TRUE(TraceRecorder::twampMessages("LAB").empty());
}

// Removing one receiver of a key leaves the other, which then gets the key's
// packets unasked.
TEST_F(UdpSocketTest, RemovingOneReceiverLeavesTheOther) {
    bindIpv4();
    scriptReceive();
    StrictMock<MockMessageReceiver> first;
    StrictMock<MockMessageReceiver> second;
    udpSocket->addMessageReceiver(ipv4Key("198.18.0.2", 862), &first);
    udpSocket->addMessageReceiver(ipv4Key("198.18.0.2", 862), &second);
    udpSocket->removeMessageReceiver(ipv4Key("198.18.0.2", 862), &first);
    queuePacket(ipv4Key("198.18.0.2", 862), {1});
    EXPECT_CALL(second, receiveMessage(_));
    udpSocket->handleInput(udpSocket->getSocketFd());
}

// A removed receiver gets nothing more; its packets are traced at LAB.
TEST_F(UdpSocketTest, RemoveMessageReceiverErases) {
    bindIpv4();
    scriptReceive();
    StrictMock<MockMessageReceiver> receiver;
    udpSocket->addMessageReceiver(ipv4Key("198.18.0.2", 862), &receiver);
    udpSocket->removeMessageReceiver(ipv4Key("198.18.0.2", 862), &receiver);
    queuePacket(ipv4Key("198.18.0.2", 862), {1});
    udpSocket->handleInput(udpSocket->getSocketFd());
    EXPECT_EQ(std::vector<std::string>{"handleInput(): Failed to find message receiver"},
              TraceRecorder::twampMessages("LAB"));
}

// The control data of a packet that carries the socket's drop count.
std::vector<uint8_t> dropCountControl(uint32_t drops) {
    ControlBuffer control(64);
    control.append(SOL_SOCKET, SO_RXQ_OVFL, &drops, sizeof(drops));
    control.bytes.resize(control.appendedLength());
    return control.bytes;
}

// A packet whose drop count has grown tells every receiver, of every address,
// once, and is still handed on; the same count again tells nobody.
TEST_F(UdpSocketTest, GrownDropCountTellsEveryReceiverOnce) {
    bindIpv4();
    scriptReceive();
    StrictMock<MockMessageReceiver> first;
    StrictMock<MockMessageReceiver> second;
    StrictMock<MockMessageReceiver> other;
    udpSocket->addMessageReceiver(ipv4Key("198.18.0.2", 862), &first);
    udpSocket->addMessageReceiver(ipv4Key("198.18.0.2", 862), &second);
    udpSocket->addMessageReceiver(ipv4Key("198.18.0.3", 862), &other);
    kernelQueues.queue(false, {ipv4Key("198.18.0.3", 862), {1}, dropCountControl(3)});
    kernelQueues.queue(false, {ipv4Key("198.18.0.3", 862), {2}, dropCountControl(3)});
    ::testing::InSequence order;
    EXPECT_CALL(first, receiveQueueOverflowed());
    EXPECT_CALL(second, receiveQueueOverflowed());
    EXPECT_CALL(other, receiveQueueOverflowed());
    EXPECT_CALL(other, receiveMessage(_)).Times(2);
    udpSocket->handleInput(udpSocket->getSocketFd());
    EXPECT_EQ(std::vector<std::string>{"handleInput(): Receive queue overflow: 3 datagrams "
                                       "dropped"},
              TraceRecorder::twampMessages("LAB"));
}

// The count grows across its 32-bit wrap: 4294967295 to 1 is 2 more drops.
TEST_F(UdpSocketTest, DropCountWrapIsGrowth) {
    bindIpv4();
    scriptReceive();
    NiceMock<MockMessageReceiver> receiver;
    udpSocket->addMessageReceiver(ipv4Key("198.18.0.2", 862), &receiver);
    kernelQueues.queue(false, {ipv4Key("198.18.0.2", 862), {1}, dropCountControl(0xFFFFFFFFU)});
    kernelQueues.queue(false, {ipv4Key("198.18.0.2", 862), {2}, dropCountControl(1)});
    EXPECT_CALL(receiver, receiveQueueOverflowed()).Times(2);
    udpSocket->handleInput(udpSocket->getSocketFd());
    EXPECT_EQ((std::vector<std::string>{
                  "handleInput(): Receive queue overflow: 4294967295 datagrams dropped",
                  "handleInput(): Receive queue overflow: 2 datagrams dropped"}),
              TraceRecorder::twampMessages("LAB"));
}

// A packet without a drop count (the kernel adds none while nothing was
// dropped) tells nobody.
TEST_F(UdpSocketTest, NoDropCountTellsNobody) {
    bindIpv4();
    scriptReceive();
    StrictMock<MockMessageReceiver> receiver;
    udpSocket->addMessageReceiver(ipv4Key("198.18.0.2", 862), &receiver);
    queuePacket(ipv4Key("198.18.0.2", 862), {1});
    EXPECT_CALL(receiver, receiveMessage(_));
    udpSocket->handleInput(udpSocket->getSocketFd());
    EXPECT_EQ(std::vector<std::string>{}, TraceRecorder::twampMessages("LAB"));
}

// An empty datagram is neither counted nor routed.
TEST_F(UdpSocketTest, EmptyDatagramIgnored) {
    bindIpv4();
    scriptReceive();
    queuePacket(ipv4Key("198.18.0.2", 862), {});
    udpSocket->handleInput(udpSocket->getSocketFd());
    EXPECT_EQ(0U, udpSocket->getMessageCount());
    EXPECT_TRUE(TraceRecorder::records().empty());
}

// A looped-back frame goes to the receiver of its destination, with the byte count.
TEST_F(UdpSocketTest, ErrQueueMessageRoutedByLoopedDestination) {
    bindIpv4();
    scriptReceive();
    StrictMock<MockMessageReceiver> receiver;
    udpSocket->addMessageReceiver(ipv4Key("198.18.0.2", 862), &receiver);
    queueLoopedFrame(twamp_test::withEthernet(twamp_test::ipv4Packet(17, 18), 0x08, 0x00));
    EXPECT_CALL(receiver, receiveErrQueueMessage(_, 60));
    udpSocket->handleInput(udpSocket->getSocketFd());
    EXPECT_EQ(1U, udpSocket->getErrQueueMessageCount());
    EXPECT_EQ(0U, udpSocket->getMessageCount());
}

// A looped-back frame longer than the buffer is handed on with the 10000
// bytes that fit, and that count.
TEST_F(UdpSocketTest, LongLoopedFrameHandedOnTruncated) {
    bindIpv4();
    scriptReceive();
    StrictMock<MockMessageReceiver> receiver;
    udpSocket->addMessageReceiver(ipv4Key("198.18.0.2", 862), &receiver);
    queueLoopedFrame(twamp_test::withEthernet(twamp_test::ipv4Packet(17, 65507 - 28), 0x08, 0x00));
    EXPECT_CALL(receiver, receiveErrQueueMessage(_, 10000));
    udpSocket->handleInput(udpSocket->getSocketFd());
    EXPECT_TRUE(TraceRecorder::records().empty());
}

// A looped-back frame without a receiver for its destination is traced at LAB.
TEST_F(UdpSocketTest, ErrQueueMessageWithoutReceiverTraced) {
    bindIpv4();
    scriptReceive();
    queueLoopedFrame(twamp_test::withEthernet(twamp_test::ipv4Packet(17, 18), 0x08, 0x00));
    udpSocket->handleInput(udpSocket->getSocketFd());
    EXPECT_EQ(std::vector<std::string>{"handleInput(): Failed to find message receiver"},
              TraceRecorder::twampMessages("LAB"));
}

// An error-queue message that is not a looped UDP frame is counted and skipped silently.
TEST_F(UdpSocketTest, ErrQueueMessageOfOtherProtocolSkipped) {
    bindIpv4();
    scriptReceive();
    StrictMock<MockMessageReceiver> receiver;
    udpSocket->addMessageReceiver(ipv4Key("198.18.0.2", 862), &receiver);
    queueLoopedFrame(twamp_test::withEthernet(twamp_test::ipv4Packet(6, 18), 0x08, 0x00));
    udpSocket->handleInput(udpSocket->getSocketFd());
    EXPECT_EQ(1U, udpSocket->getErrQueueMessageCount());
    EXPECT_TRUE(TraceRecorder::records().empty());
}

// ---- Draining ----

// Error-queue messages and packets pending together are all handled in one
// call, the error queue first; two short batches make two receives.
TEST_F(UdpSocketTest, BothQueuesDrainedInOneCall) {
    bindIpv4();
    scriptReceive();
    StrictMock<MockMessageReceiver> receiver;
    udpSocket->addMessageReceiver(ipv4Key("198.18.0.2", 862), &receiver);
    const std::vector<uint8_t> frame =
        twamp_test::withEthernet(twamp_test::ipv4Packet(17, 18), 0x08, 0x00);
    queueLoopedFrame(frame);
    queueLoopedFrame(frame);
    queuePacket(ipv4Key("198.18.0.2", 862), {1});
    queuePacket(ipv4Key("198.18.0.2", 862), {2});
    {
        InSequence order;
        EXPECT_CALL(receiver, receiveErrQueueMessage(_, 60)).Times(2);
        EXPECT_CALL(receiver, receiveMessage(_)).Times(2);
    }
    udpSocket->handleInput(udpSocket->getSocketFd());
    EXPECT_EQ((std::vector<RecvmmsgCall>{{MSG_ERRQUEUE | MSG_DONTWAIT, 64}, {MSG_DONTWAIT, 64}}),
              kernelQueues.calls);
    EXPECT_EQ(2U, udpSocket->getErrQueueMessageCount());
    EXPECT_EQ(2U, udpSocket->getMessageCount());
}

// Fixture of the draining tests: n packets from the registered reflector,
// each one byte of its index, counted by a receiver.
class UdpSocketDrainTest : public UdpSocketTest {
  protected:
    void SetUp() override {
        UdpSocketTest::SetUp();
        bindIpv4();
        scriptReceive();
        udpSocket->addMessageReceiver(ipv4Key("198.18.0.2", 862), &receiver);
        ON_CALL(receiver, receiveMessage(_)).WillByDefault([this](struct msghdr*) {
            order.push_back('p');
        });
        ON_CALL(receiver, receiveErrQueueMessage(_, _))
            .WillByDefault([this](struct msghdr*, ssize_t) { order.push_back('e'); });
    }

    // count packets as one batch of the kernel's receive queue.
    void queuePackets(std::size_t count) {
        for (std::size_t index = 0; index < count; ++index) {
            queuePacket(ipv4Key("198.18.0.2", 862), {static_cast<uint8_t>(index)});
        }
        kernelQueues.endBatch(false);
    }

    // count looped-back frames as one batch of the error queue.
    void queueFrames(std::size_t count) {
        const std::vector<uint8_t> frame =
            twamp_test::withEthernet(twamp_test::ipv4Packet(17, 18), 0x08, 0x00);
        for (std::size_t index = 0; index < count; ++index) {
            queueLoopedFrame(frame);
        }
        kernelQueues.endBatch(true);
    }

    // Runs of equal letters in order: "64e64p" for 64 'e' then 64 'p'.
    std::string runs() const {
        std::string text;
        std::size_t index = 0;
        while (index < order.size()) {
            std::size_t end = index;
            while (end < order.size() && order[end] == order[index]) {
                ++end;
            }
            text += std::to_string(end - index) + order[index];
            index = end;
        }
        return text;
    }

    NiceMock<MockMessageReceiver> receiver;
    std::string order;  // 'e' per error-queue message, 'p' per packet, as handed on
};

// While batches come back full the rounds go on: 150 waiting packets are
// read as 64, 64 and 22 in one call, the error queue asked first each round.
TEST_F(UdpSocketDrainTest, FullBatchesRepeatTheRound) {
    queuePackets(150);
    udpSocket->handleInput(udpSocket->getSocketFd());
    EXPECT_EQ(150U, udpSocket->getMessageCount());
    EXPECT_EQ((std::vector<RecvmmsgCall>{{MSG_ERRQUEUE | MSG_DONTWAIT, 64},
                                         {MSG_DONTWAIT, 64},
                                         {MSG_ERRQUEUE | MSG_DONTWAIT, 64},
                                         {MSG_DONTWAIT, 64},
                                         {MSG_ERRQUEUE | MSG_DONTWAIT, 64},
                                         {MSG_DONTWAIT, 64}}),
              kernelQueues.calls);
}

// A short batch means the queue was empty: what arrives after it waits for
// the next readiness, so a quiet socket costs one receive per queue.
TEST_F(UdpSocketDrainTest, ShortBatchesEndTheReadiness) {
    queuePackets(3);
    queuePackets(5);
    udpSocket->handleInput(udpSocket->getSocketFd());
    EXPECT_EQ(3U, udpSocket->getMessageCount());
    EXPECT_EQ((std::vector<RecvmmsgCall>{{MSG_ERRQUEUE | MSG_DONTWAIT, 64}, {MSG_DONTWAIT, 64}}),
              kernelQueues.calls);
}

// Every round takes the error queue first: its messages and the packets
// are handed on in alternating batches.
TEST_F(UdpSocketDrainTest, ErrorQueueFirstInEveryRound) {
    queueFrames(70);
    queuePackets(70);
    udpSocket->handleInput(udpSocket->getSocketFd());
    EXPECT_EQ("64e64p6e6p", runs());
}

// A flood is read up to 256 messages of each queue per readiness; the rest
// stays queued for the next one.
TEST_F(UdpSocketDrainTest, FloodBoundedPerReadiness) {
    queueFrames(1000);
    queuePackets(1000);
    udpSocket->handleInput(udpSocket->getSocketFd());
    EXPECT_EQ(256U, udpSocket->getErrQueueMessageCount());
    EXPECT_EQ(256U, udpSocket->getMessageCount());
    EXPECT_EQ(744U, kernelQueues.pending(true));
    EXPECT_EQ(744U, kernelQueues.pending(false));
    EXPECT_EQ(8U, kernelQueues.calls.size());
}

// A queue that runs dry does not stop the other, which goes on up to its bound.
TEST_F(UdpSocketDrainTest, QueueRunningDryLeavesTheOtherDraining) {
    queueFrames(100);
    queuePackets(400);
    udpSocket->handleInput(udpSocket->getSocketFd());
    EXPECT_EQ(100U, udpSocket->getErrQueueMessageCount());
    EXPECT_EQ(256U, udpSocket->getMessageCount());
    EXPECT_EQ("64e64p36e192p", runs());
}

// The packets are handed on in the order the kernel queued them.
TEST_F(UdpSocketDrainTest, PacketsHandedOnInQueueOrder) {
    queuePackets(100);
    std::vector<uint8_t> firstBytes;
    ON_CALL(receiver, receiveMessage(_)).WillByDefault([&firstBytes](struct msghdr* msg) {
        firstBytes.push_back(static_cast<const uint8_t*>(msg->msg_iov[0].iov_base)[0]);
    });
    udpSocket->handleInput(udpSocket->getSocketFd());
    std::vector<uint8_t> expected(100);
    for (std::size_t index = 0; index < expected.size(); ++index) {
        expected[index] = static_cast<uint8_t>(index);
    }
    EXPECT_EQ(expected, firstBytes);
}

}  // namespace
