// The event loop on its epoll poller: every ready descriptor served per
// wake-up, in a rotating order, with registrations and removals from inside
// handlers. First over scripted epoll calls, then over real eventfds and pipes.
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "EpollPoller.h"
#include "EventFdHandler.h"
#include "FakeEpollSystemCalls.h"
#include "IoMultiplexer.h"
#include "MockIoHandler.h"
#include "TraceRecorder.h"
#include "WaitWatchdog.h"

namespace {

using ::testing::_;
using ::testing::InSequence;
using ::testing::Invoke;
using ::testing::NiceMock;
using ::testing::Return;
using twamp_test::EventFdHandler;
using twamp_test::FakeEpollSystemCalls;
using twamp_test::MockIoHandler;
using twamp_test::TraceRecorder;
using twamp_test::WaitWatchdog;
using Calls = std::vector<std::string>;

// The loop over scripted epoll calls: readiness is whatever the test lists.
class EpollMultiplexerTest : public ::testing::Test {
  protected:
    void SetUp() override { TraceRecorder::reset(); }

    static void giveReadFds(MockIoHandler& handler, const std::set<int>& fds) {
        ON_CALL(handler, getReadFds()).WillByDefault(Return(fds));
    }
    static void giveWriteFds(MockIoHandler& handler, const std::set<int>& fds) {
        ON_CALL(handler, getWriteFds()).WillByDefault(Return(fds));
    }
    // Every following wait reports these descriptors readable, in this order.
    void readable(const std::vector<int>& fds) {
        epoll.readyEvents.clear();
        for (const int fd : fds) {
            epoll.readyEvents.emplace_back(fd, EPOLLIN);
        }
    }

    FakeEpollSystemCalls epoll;
    IoMultiplexer mux{std::make_unique<EpollPoller>(&epoll), IoMultiplexer::ServeRule::EveryReady};
    NiceMock<MockIoHandler> handlerA;
    NiceMock<MockIoHandler> handlerB;
    NiceMock<MockIoHandler> handlerC;
};

// The epoll instance is created close-on-exec and closed with the loop.
TEST_F(EpollMultiplexerTest, EpollInstanceCreatedCloseOnExecAndClosed) {
    auto local = std::make_unique<IoMultiplexer>(std::make_unique<EpollPoller>(&epoll),
                                                 IoMultiplexer::ServeRule::EveryReady);
    local.reset();
    EXPECT_EQ(EPOLL_CLOEXEC, epoll.createFlags);
    EXPECT_EQ(std::vector<int>{FakeEpollSystemCalls::kEpollFd}, epoll.closedFds);
}

// A failing epoll_create1 is traced with the errno text.
TEST_F(EpollMultiplexerTest, EpollCreateFailureIsTraced) {
    epoll.createErrno = EMFILE;
    const EpollPoller poller(&epoll);
    EXPECT_EQ(Calls{"EpollPoller(): Failed epoll_create1: errno 24 - Too many open files"},
              TraceRecorder::twampMessages("ERROR"));
}

// Each descriptor of a handler is added to the epoll set once, for input.
TEST_F(EpollMultiplexerTest, RegistrationAddsEachDescriptor) {
    giveReadFds(handlerA, {9, 4});
    EXPECT_TRUE(mux.registerReadHandler(&handlerA));
    EXPECT_EQ((Calls{"ADD 4 IN", "ADD 9 IN"}), epoll.ctlCalls);
    EXPECT_EQ((std::vector<int>{FakeEpollSystemCalls::kEpollFd, FakeEpollSystemCalls::kEpollFd}),
              epoll.ctlEpollFds);
    EXPECT_EQ(9, mux.getMaxFd());
}

// Read and write interest in one descriptor share its one epoll entry.
TEST_F(EpollMultiplexerTest, ReadAndWriteShareOneEpollEntry) {
    giveReadFds(handlerA, {5});
    giveWriteFds(handlerB, {5});
    ASSERT_TRUE(mux.registerReadHandler(&handlerA));
    ASSERT_TRUE(mux.registerWriteHandler(&handlerB));
    mux.removeWriteHandler(&handlerB);
    mux.removeReadHandler(&handlerA);
    EXPECT_EQ((Calls{"ADD 5 IN", "MOD 5 IN OUT", "MOD 5 IN", "DEL 5"}), epoll.ctlCalls);
    EXPECT_EQ(0, mux.getMaxFd());
}

// A handler registered twice has one epoll entry, is called for each of its
// two entries in one wake-up, and one removal takes both.
TEST_F(EpollMultiplexerTest, TwiceRegisteredHandlerIsCalledTwiceAndRemovedOnce) {
    giveReadFds(handlerA, {4});
    ASSERT_TRUE(mux.registerReadHandler(&handlerA));
    ASSERT_TRUE(mux.registerReadHandler(&handlerA));
    readable({4});
    EXPECT_CALL(handlerA, handleInput(4)).Times(2).WillRepeatedly(Return(true));

    EXPECT_TRUE(mux.handleEvents());
    mux.removeReadHandler(&handlerA);

    EXPECT_EQ((Calls{"ADD 4 IN", "DEL 4"}), epoll.ctlCalls);
    EXPECT_EQ(0, mux.getMaxFd());
}

// A failing epoll_ctl fails the registration, traced with the call and the
// errno text, and leaves none of the handler's descriptors watched.
TEST_F(EpollMultiplexerTest, EpollCtlFailureFailsWholeRegistration) {
    giveReadFds(handlerA, {4, 9});
    epoll.ctlErrnos[9] = ENOSPC;
    readable({4});
    EXPECT_CALL(handlerA, handleInput(_)).Times(0);

    EXPECT_FALSE(mux.registerReadHandler(&handlerA));
    EXPECT_TRUE(mux.handleEvents());

    EXPECT_EQ((Calls{"ADD 4 IN", "ADD 9 IN", "DEL 4"}), epoll.ctlCalls);
    EXPECT_EQ(Calls{"setEvents(): Failed epoll_ctl EPOLL_CTL_ADD for descriptor 9: errno 28 - No "
                    "space left on device"},
              TraceRecorder::twampMessages("ERROR"));
    EXPECT_EQ(0, mux.getMaxFd());
}

// A failed second registration keeps the handler's first one.
TEST_F(EpollMultiplexerTest, FailedRegistrationKeepsEarlierOne) {
    giveReadFds(handlerA, {4});
    ASSERT_TRUE(mux.registerReadHandler(&handlerA));
    giveReadFds(handlerA, {4, 9});
    epoll.ctlErrnos[9] = ENOMEM;
    readable({4});
    EXPECT_CALL(handlerA, handleInput(4)).Times(1).WillOnce(Return(true));

    EXPECT_FALSE(mux.registerReadHandler(&handlerA));
    EXPECT_TRUE(mux.handleEvents());

    EXPECT_EQ((Calls{"ADD 4 IN", "ADD 9 IN"}), epoll.ctlCalls);
    EXPECT_EQ(4, mux.getMaxFd());
}

// Removing a descriptor that its handler already closed is not an error.
TEST_F(EpollMultiplexerTest, RemovalOfClosedDescriptorIsQuiet) {
    giveReadFds(handlerA, {4});
    ASSERT_TRUE(mux.registerReadHandler(&handlerA));
    epoll.ctlErrnos[4] = EBADF;

    mux.removeReadHandler(&handlerA);

    EXPECT_EQ((Calls{"ADD 4 IN", "DEL 4"}), epoll.ctlCalls);
    EXPECT_EQ(Calls{}, TraceRecorder::twampMessages("ERROR"));
    EXPECT_EQ(0, mux.getMaxFd());
}

// Any other failure of a removal is traced; the entry is gone all the same.
TEST_F(EpollMultiplexerTest, OtherRemovalFailureIsTraced) {
    giveReadFds(handlerA, {4});
    ASSERT_TRUE(mux.registerReadHandler(&handlerA));
    epoll.ctlErrnos[4] = ENOMEM;

    mux.removeReadHandler(&handlerA);

    EXPECT_EQ(Calls{"setEvents(): Failed epoll_ctl EPOLL_CTL_DEL for descriptor 4: errno 12 - "
                    "Cannot allocate memory"},
              TraceRecorder::twampMessages("ERROR"));
    EXPECT_EQ(0, mux.getMaxFd());
}

// A wait takes at most 256 descriptors and has no time-out.
TEST_F(EpollMultiplexerTest, WaitIsBoundedAndWithoutTimeout) {
    EXPECT_TRUE(mux.handleEvents());
    EXPECT_EQ(FakeEpollSystemCalls::kEpollFd, epoll.waitEpollFd);
    EXPECT_EQ(256, epoll.waitMaxEvents);
    EXPECT_EQ(-1, epoll.waitTimeout);
}

// A failing wait ends the loop and calls no handler.
TEST_F(EpollMultiplexerTest, WaitFailureReturnsFalse) {
    giveReadFds(handlerA, {4});
    ASSERT_TRUE(mux.registerReadHandler(&handlerA));
    readable({4});
    epoll.waitErrno = EBADF;
    EXPECT_CALL(handlerA, handleInput(_)).Times(0);

    EXPECT_FALSE(mux.handleEvents());
}

// An interrupted wait (a stop and continue) keeps the loop running and calls no handler.
TEST_F(EpollMultiplexerTest, InterruptedWaitKeepsTheLoop) {
    giveReadFds(handlerA, {4});
    ASSERT_TRUE(mux.registerReadHandler(&handlerA));
    readable({4});
    epoll.waitErrno = EINTR;
    EXPECT_CALL(handlerA, handleInput(_)).Times(0);

    EXPECT_TRUE(mux.handleEvents());
}

// After an interrupted wait the next wake-up serves the ready descriptor.
TEST_F(EpollMultiplexerTest, ReadyDescriptorServedAfterInterruptedWait) {
    giveReadFds(handlerA, {4});
    ASSERT_TRUE(mux.registerReadHandler(&handlerA));
    readable({4});
    epoll.waitErrno = EINTR;
    ASSERT_TRUE(mux.handleEvents());
    epoll.waitErrno = 0;
    EXPECT_CALL(handlerA, handleInput(4)).WillOnce(Return(true));

    EXPECT_TRUE(mux.handleEvents());
}

// Every ready descriptor is served in one wake-up, in the order reported.
TEST_F(EpollMultiplexerTest, EveryReadyDescriptorServedInOneWakeUp) {
    giveReadFds(handlerA, {4});
    giveReadFds(handlerB, {5});
    giveReadFds(handlerC, {6});
    ASSERT_TRUE(mux.registerReadHandler(&handlerA));
    ASSERT_TRUE(mux.registerReadHandler(&handlerB));
    ASSERT_TRUE(mux.registerReadHandler(&handlerC));
    readable({6, 4});
    {
        InSequence order;
        EXPECT_CALL(handlerC, handleInput(6)).WillOnce(Return(true));
        EXPECT_CALL(handlerA, handleInput(4)).WillOnce(Return(true));
    }
    EXPECT_CALL(handlerB, handleInput(_)).Times(0);

    EXPECT_TRUE(mux.handleEvents());
}

// The walk over the ready descriptors starts one further on at each wake-up.
TEST_F(EpollMultiplexerTest, WalkStartRotatesBetweenWakeUps) {
    giveReadFds(handlerA, {4});
    giveReadFds(handlerB, {5});
    giveReadFds(handlerC, {6});
    ASSERT_TRUE(mux.registerReadHandler(&handlerA));
    ASSERT_TRUE(mux.registerReadHandler(&handlerB));
    ASSERT_TRUE(mux.registerReadHandler(&handlerC));
    readable({4, 5, 6});
    std::vector<int> served;
    for (MockIoHandler* handler : {&handlerA, &handlerB, &handlerC}) {
        ON_CALL(*handler, handleInput(_)).WillByDefault(Invoke([&served](int fd) {
            served.push_back(fd);
            return true;
        }));
    }

    EXPECT_TRUE(mux.handleEvents());
    EXPECT_TRUE(mux.handleEvents());
    EXPECT_TRUE(mux.handleEvents());
    EXPECT_TRUE(mux.handleEvents());

    EXPECT_EQ((std::vector<int>{4, 5, 6, 5, 6, 4, 6, 4, 5, 4, 5, 6}), served);
}

// A handler removed by an earlier handler of the same wake-up is not called.
TEST_F(EpollMultiplexerTest, HandlerRemovedEarlierInWakeUpIsNotCalled) {
    giveReadFds(handlerA, {4});
    giveReadFds(handlerB, {5});
    ASSERT_TRUE(mux.registerReadHandler(&handlerA));
    ASSERT_TRUE(mux.registerReadHandler(&handlerB));
    readable({4, 5});
    EXPECT_CALL(handlerA, handleInput(4)).WillOnce(Invoke([this](int) {
        mux.removeReadHandler(&handlerB);
        return true;
    }));
    EXPECT_CALL(handlerB, handleInput(_)).Times(0);

    EXPECT_TRUE(mux.handleEvents());
}

// A descriptor number reused by a new registration within one wake-up: the
// removed handler is not called, the new one only from the next wake-up on.
TEST_F(EpollMultiplexerTest, DescriptorReusedInWakeUpServesNewHandlerNextTime) {
    giveReadFds(handlerA, {4});
    giveReadFds(handlerB, {5});
    giveReadFds(handlerC, {5});
    ASSERT_TRUE(mux.registerReadHandler(&handlerA));
    ASSERT_TRUE(mux.registerReadHandler(&handlerB));
    readable({4, 5});
    EXPECT_CALL(handlerB, handleInput(_)).Times(0);
    {
        InSequence order;
        EXPECT_CALL(handlerA, handleInput(4)).WillOnce(Invoke([this](int) {
            mux.removeReadHandler(&handlerB);
            mux.registerReadHandler(&handlerC);
            return true;
        }));
        // The second wake-up starts its walk at descriptor 5.
        EXPECT_CALL(handlerC, handleInput(5)).WillOnce(Return(true));
        EXPECT_CALL(handlerA, handleInput(4)).WillOnce(Return(true));
    }

    EXPECT_TRUE(mux.handleEvents());
    EXPECT_TRUE(mux.handleEvents());

    EXPECT_EQ((Calls{"ADD 4 IN", "ADD 5 IN", "DEL 5", "ADD 5 IN"}), epoll.ctlCalls);
}

// A handler may remove itself from inside its call; the others are still served.
TEST_F(EpollMultiplexerTest, SelfRemovalInsideCallKeepsOthersServed) {
    giveReadFds(handlerA, {4});
    giveReadFds(handlerB, {5});
    ASSERT_TRUE(mux.registerReadHandler(&handlerA));
    ASSERT_TRUE(mux.registerReadHandler(&handlerB));
    readable({4, 5});
    {
        InSequence order;
        EXPECT_CALL(handlerA, handleInput(4)).WillOnce(Invoke([this](int) {
            mux.removeReadHandler(&handlerA);
            return true;
        }));
        EXPECT_CALL(handlerB, handleInput(5)).WillOnce(Return(true));
    }

    EXPECT_TRUE(mux.handleEvents());

    EXPECT_EQ(5, mux.getMaxFd());
}

// A writable descriptor is served with handleOutput.
TEST_F(EpollMultiplexerTest, WritableDescriptorServedWithHandleOutput) {
    giveWriteFds(handlerA, {7});
    ASSERT_TRUE(mux.registerWriteHandler(&handlerA));
    epoll.readyEvents = {{7, EPOLLOUT}};
    EXPECT_CALL(handlerA, handleInput(_)).Times(0);
    EXPECT_CALL(handlerA, handleOutput(7)).WillOnce(Return(true));

    EXPECT_TRUE(mux.handleEvents());

    EXPECT_EQ(Calls{"ADD 7 OUT"}, epoll.ctlCalls);
}

// An error or hang-up is handed to the readers and the writers of the descriptor.
TEST_F(EpollMultiplexerTest, HangUpServesReadersAndWriters) {
    giveReadFds(handlerA, {4});
    giveWriteFds(handlerB, {4});
    ASSERT_TRUE(mux.registerReadHandler(&handlerA));
    ASSERT_TRUE(mux.registerWriteHandler(&handlerB));
    epoll.readyEvents = {{4, EPOLLHUP}};
    EXPECT_CALL(handlerA, handleInput(4)).WillOnce(Return(true));
    EXPECT_CALL(handlerB, handleOutput(4)).WillOnce(Return(true));

    EXPECT_TRUE(mux.handleEvents());
}

// Readiness of a descriptor nobody watches any more is ignored.
TEST_F(EpollMultiplexerTest, ReadinessOfUnwatchedDescriptorIsIgnored) {
    giveReadFds(handlerA, {4});
    ASSERT_TRUE(mux.registerReadHandler(&handlerA));
    readable({8, 4});
    EXPECT_CALL(handlerA, handleInput(4)).WillOnce(Return(true));

    EXPECT_TRUE(mux.handleEvents());
}

// ---- Real descriptors ----

// Raises the soft descriptor limit for the test and restores it afterwards.
class ScopedOpenFileLimit {
  public:
    explicit ScopedOpenFileLimit(rlim_t wanted) {
        getrlimit(RLIMIT_NOFILE, &saved);
        struct rlimit raised = saved;
        if (raised.rlim_cur < wanted && wanted <= raised.rlim_max) {
            raised.rlim_cur = wanted;
            setrlimit(RLIMIT_NOFILE, &raised);
        }
        struct rlimit now = {};
        getrlimit(RLIMIT_NOFILE, &now);
        available = now.rlim_cur >= wanted;
    }
    ~ScopedOpenFileLimit() { setrlimit(RLIMIT_NOFILE, &saved); }
    ScopedOpenFileLimit(const ScopedOpenFileLimit&) = delete;
    ScopedOpenFileLimit& operator=(const ScopedOpenFileLimit&) = delete;

    bool available = false;

  private:
    struct rlimit saved = {};
};

// The daemon's loop over real eventfds; every wait is guarded by a watchdog.
class EpollMultiplexerSystemTest : public ::testing::Test {
  protected:
    void SetUp() override {
        TraceRecorder::reset();
        for (EventFdHandler* handler : {&first, &second, &third}) {
            ASSERT_GE(handler->fd, 0);
        }
    }
    void TearDown() override {
        for (EventFdHandler* handler : {&first, &second, &third}) {
            mux.removeReadHandler(handler);
        }
    }
    // Records the order in which the handlers are served.
    void recordOrder(EventFdHandler& handler) {
        handler.onInput = [this](int fd) { order.push_back(fd); };
    }

    IoMultiplexer mux{std::make_unique<EpollPoller>(), IoMultiplexer::ServeRule::EveryReady};
    EventFdHandler first;
    EventFdHandler second;
    EventFdHandler third;
    std::vector<int> order;
    const WaitWatchdog watchdog{10};
};

// Three readable eventfds are all served by one call.
TEST_F(EpollMultiplexerSystemTest, AllReadyServedInOneCall) {
    for (EventFdHandler* handler : {&first, &second, &third}) {
        ASSERT_TRUE(mux.registerReadHandler(handler));
        ASSERT_TRUE(handler->signal());
    }

    EXPECT_TRUE(mux.handleEvents());

    EXPECT_EQ(std::vector<int>{first.fd}, first.servedFds);
    EXPECT_EQ(std::vector<int>{second.fd}, second.servedFds);
    EXPECT_EQ(std::vector<int>{third.fd}, third.servedFds);
}

// With three descriptors that stay readable, each is served last in exactly
// one of three wake-ups.
TEST_F(EpollMultiplexerSystemTest, EachDescriptorServedLastOnceInThreeWakeUps) {
    std::set<int> servedLast;
    for (EventFdHandler* handler : {&first, &second, &third}) {
        handler->drain = false;
        recordOrder(*handler);
        ASSERT_TRUE(mux.registerReadHandler(handler));
        ASSERT_TRUE(handler->signal());
    }

    for (int wakeUp = 0; wakeUp < 3; ++wakeUp) {
        order.clear();
        ASSERT_TRUE(mux.handleEvents());
        ASSERT_EQ(3u, order.size());
        servedLast.insert(order.back());
    }

    EXPECT_EQ((std::set<int>{first.fd, second.fd, third.fd}), servedLast);
}

// Of two readable handlers, the one served first removes the other, which is
// then not called in the same wake-up.
TEST_F(EpollMultiplexerSystemTest, LaterReadyHandlerRemovedByEarlierIsNotCalled) {
    first.onInput = [this](int) { mux.removeReadHandler(&second); };
    second.onInput = [this](int) { mux.removeReadHandler(&first); };
    ASSERT_TRUE(mux.registerReadHandler(&first));
    ASSERT_TRUE(mux.registerReadHandler(&second));
    ASSERT_TRUE(first.signal());
    ASSERT_TRUE(second.signal());

    EXPECT_TRUE(mux.handleEvents());

    EXPECT_EQ(1u, first.servedFds.size() + second.servedFds.size());
}

// The handler served first removes the other, closes its descriptor and
// registers a new readable one under the same number: neither is called in
// that wake-up, the new one in the next.
TEST_F(EpollMultiplexerSystemTest, DescriptorNumberReusedWithinWakeUp) {
    EventFdHandler replacement;
    int reusedFd = -1;
    auto replace = [this, &replacement, &reusedFd](EventFdHandler& other) {
        if (reusedFd != -1) {
            return;
        }
        reusedFd = other.fd;
        mux.removeReadHandler(&other);
        other.closeFd();
        // The new descriptor takes the number the removed one had.
        ASSERT_EQ(reusedFd, dup2(replacement.fd, reusedFd));
        close(replacement.fd);
        replacement.fd = reusedFd;
        ASSERT_TRUE(replacement.signal());
        ASSERT_TRUE(mux.registerReadHandler(&replacement));
    };
    first.onInput = [&replace, &other = second](int) { replace(other); };
    second.onInput = [&replace, &other = first](int) { replace(other); };
    ASSERT_TRUE(mux.registerReadHandler(&first));
    ASSERT_TRUE(mux.registerReadHandler(&second));
    ASSERT_TRUE(first.signal());
    ASSERT_TRUE(second.signal());

    EXPECT_TRUE(mux.handleEvents());
    EXPECT_EQ(1u, first.servedFds.size() + second.servedFds.size());
    EXPECT_EQ(std::vector<int>{}, replacement.servedFds);

    EXPECT_TRUE(mux.handleEvents());
    EXPECT_EQ(std::vector<int>{reusedFd}, replacement.servedFds);
    EXPECT_EQ(1u, first.servedFds.size() + second.servedFds.size());
    mux.removeReadHandler(&replacement);
}

// A descriptor numbered above 1024 is watched and served.
TEST_F(EpollMultiplexerSystemTest, DescriptorAbove1024IsServed) {
    constexpr int kHighFd = 1500;
    const ScopedOpenFileLimit limit(kHighFd + 1);
    if (!limit.available) {
        GTEST_SKIP() << "the hard descriptor limit is below " << (kHighFd + 1);
    }
    ASSERT_EQ(-1, fcntl(kHighFd, F_GETFD));
    ASSERT_EQ(kHighFd, dup2(first.fd, kHighFd));
    close(first.fd);
    first.fd = kHighFd;

    ASSERT_TRUE(mux.registerReadHandler(&first));
    ASSERT_TRUE(first.signal());
    EXPECT_TRUE(mux.handleEvents());

    EXPECT_EQ(kHighFd, mux.getMaxFd());
    EXPECT_EQ(std::vector<int>{kHighFd}, first.servedFds);
    mux.removeReadHandler(&first);
    first.closeFd();
}

// A handler registered twice is called twice per wake-up; after one removal it
// is not called at all.
TEST_F(EpollMultiplexerSystemTest, TwiceRegisteredHandlerCalledTwiceThenRemovedOnce) {
    first.drain = false;
    ASSERT_TRUE(mux.registerReadHandler(&first));
    ASSERT_TRUE(mux.registerReadHandler(&first));
    ASSERT_TRUE(mux.registerReadHandler(&second));
    ASSERT_TRUE(first.signal());

    EXPECT_TRUE(mux.handleEvents());
    EXPECT_EQ((std::vector<int>{first.fd, first.fd}), first.servedFds);

    mux.removeReadHandler(&first);
    ASSERT_TRUE(second.signal());
    EXPECT_TRUE(mux.handleEvents());
    EXPECT_EQ((std::vector<int>{first.fd, first.fd}), first.servedFds);
    EXPECT_EQ(std::vector<int>{second.fd}, second.servedFds);
}

// A handler that closes its descriptor before it leaves the loop leaves no
// error behind, and the number can be watched again.
TEST_F(EpollMultiplexerSystemTest, CloseBeforeRemovalIsQuietAndNumberReusable) {
    EventFdHandler next;
    ASSERT_TRUE(mux.registerReadHandler(&first));
    const int closedFd = first.fd;
    first.closeFd();
    mux.removeReadHandler(&first);
    ASSERT_EQ(closedFd, dup2(next.fd, closedFd));
    close(next.fd);
    next.fd = closedFd;

    ASSERT_TRUE(mux.registerReadHandler(&next));
    ASSERT_TRUE(next.signal());
    EXPECT_TRUE(mux.handleEvents());

    EXPECT_EQ(std::vector<int>{closedFd}, next.servedFds);
    EXPECT_EQ(std::vector<std::string>{}, TraceRecorder::twampMessages("ERROR"));
    mux.removeReadHandler(&next);
}

// A regular file cannot be watched by epoll: the registration fails, traced.
TEST_F(EpollMultiplexerSystemTest, RegularFileFailsRegistration) {
    char path[] = "/tmp/epoll_regular_XXXXXX";
    const int fileFd = mkstemp(path);
    ASSERT_GE(fileFd, 0);
    unlink(path);
    NiceMock<MockIoHandler> handler;
    ON_CALL(handler, getReadFds()).WillByDefault(Return(std::set<int>{fileFd}));

    EXPECT_FALSE(mux.registerReadHandler(&handler));

    EXPECT_EQ(
        std::vector<std::string>{"setEvents(): Failed epoll_ctl EPOLL_CTL_ADD for "
                                 "descriptor " +
                                 std::to_string(fileFd) + ": errno 1 - Operation not permitted"},
        TraceRecorder::twampMessages("ERROR"));
    EXPECT_EQ(0, mux.getMaxFd());
    close(fileFd);
}

// The read end of a pipe whose writer is gone is served (hang-up).
TEST_F(EpollMultiplexerSystemTest, PipeHangUpIsServed) {
    int pipeFds[2] = {-1, -1};
    ASSERT_EQ(0, pipe(pipeFds));
    close(pipeFds[1]);
    NiceMock<MockIoHandler> handler;
    ON_CALL(handler, getReadFds()).WillByDefault(Return(std::set<int>{pipeFds[0]}));
    EXPECT_CALL(handler, handleInput(pipeFds[0])).WillOnce(Return(true));
    ASSERT_TRUE(mux.registerReadHandler(&handler));

    EXPECT_TRUE(mux.handleEvents());

    mux.removeReadHandler(&handler);
    close(pipeFds[0]);
}

}  // namespace
