#include "IoMultiplexer.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "IoHandler.h"
#include "IoHandlerFd.h"
#include "EventFdHandler.h"
#include "MockIoHandler.h"
#include "TraceRecorder.h"
#include "WaitWatchdog.h"

namespace {

using ::testing::InSequence;
using ::testing::Invoke;
using ::testing::NiceMock;
using ::testing::Return;
using twamp_test::EventFdHandler;
using twamp_test::MockIoHandler;
using twamp_test::WaitWatchdog;

// What the multiplexer handed to one select call.
struct SelectCall {
    int nfds;
    std::set<int> readFds;
    std::set<int> writeFds;
    std::set<int> exceptFds;
    bool hasTimeout;
};

std::set<int> toSet(const fd_set* set) {
    std::set<int> fds;
    for (int fd = 0; fd < FD_SETSIZE; ++fd) {
        if (FD_ISSET(fd, set)) {
            fds.insert(fd);
        }
    }
    return fds;
}

// Keeps in the set only the descriptors below nfds that are in ready.
int keepReady(fd_set* set, int nfds, const std::set<int>& ready) {
    int count = 0;
    for (int fd = 0; fd < FD_SETSIZE; ++fd) {
        if (!FD_ISSET(fd, set)) {
            continue;
        }
        if (fd < nfds && ready.count(fd) != 0) {
            ++count;
        } else {
            FD_CLR(fd, set);
        }
    }
    return count;
}

// The multiplexer over a scripted select: readiness is whatever the test puts
// into readyRead/readyWrite, and every call is recorded.
class IoMultiplexerTest : public ::testing::Test {
  protected:
    int fakeSelect(int nfds, fd_set* readFds, fd_set* writeFds, fd_set* exceptFds,
                   struct timeval* timeout) {
        calls.push_back(
            {nfds, toSet(readFds), toSet(writeFds), toSet(exceptFds), timeout != nullptr});
        if (failWithErrno != 0) {
            errno = failWithErrno;
            return -1;
        }
        FD_ZERO(exceptFds);
        return keepReady(readFds, nfds, readyRead) + keepReady(writeFds, nfds, readyWrite);
    }

    static void giveReadFds(MockIoHandler& handler, const std::set<int>& fds) {
        ON_CALL(handler, getReadFds()).WillByDefault(Return(fds));
    }

    static void giveWriteFds(MockIoHandler& handler, const std::set<int>& fds) {
        ON_CALL(handler, getWriteFds()).WillByDefault(Return(fds));
    }

    std::set<int> readyRead;
    std::set<int> readyWrite;
    int failWithErrno = 0;
    std::vector<SelectCall> calls;
    IoMultiplexer mux{[this](int nfds, fd_set* readFds, fd_set* writeFds, fd_set* exceptFds,
                             struct timeval* timeout) {
        return fakeSelect(nfds, readFds, writeFds, exceptFds, timeout);
    }};
    NiceMock<MockIoHandler> handlerA;
    NiceMock<MockIoHandler> handlerB;
    NiceMock<MockIoHandler> handlerC;
};

// A new multiplexer watches nothing and reports 0 as its highest descriptor.
TEST_F(IoMultiplexerTest, StartsWithMaxFdZero) {
    EXPECT_EQ(0, mux.getMaxFd());
}

// With no entries, select gets a count of 1, three empty sets and no time-out.
TEST_F(IoMultiplexerTest, SelectWithoutEntriesGetsCountOneAndEmptySets) {
    EXPECT_TRUE(mux.handleEvents());

    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(1, calls[0].nfds);
    EXPECT_EQ(std::set<int>{}, calls[0].readFds);
    EXPECT_EQ(std::set<int>{}, calls[0].writeFds);
    EXPECT_EQ(std::set<int>{}, calls[0].exceptFds);
    EXPECT_FALSE(calls[0].hasTimeout);
}

// select gets maxFd + 1, the read and write descriptors, an empty exception set, no time-out.
TEST_F(IoMultiplexerTest, SelectGetsWatchedDescriptorsAndNoTimeout) {
    giveReadFds(handlerA, {3, 9});
    giveWriteFds(handlerB, {6});
    mux.registerReadHandler(&handlerA);
    mux.registerWriteHandler(&handlerB);

    EXPECT_TRUE(mux.handleEvents());

    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(10, calls[0].nfds);
    EXPECT_EQ((std::set<int>{3, 9}), calls[0].readFds);
    EXPECT_EQ(std::set<int>{6}, calls[0].writeFds);
    EXPECT_EQ(std::set<int>{}, calls[0].exceptFds);
    EXPECT_FALSE(calls[0].hasTimeout);
}

// Registration raises maxFd to the largest descriptor of the handler.
TEST_F(IoMultiplexerTest, RegisterRaisesMaxFdToLargestDescriptor) {
    giveReadFds(handlerA, {3, 9, 6});
    mux.registerReadHandler(&handlerA);

    EXPECT_EQ(9, mux.getMaxFd());
}

// A write registration raises maxFd as a read registration does.
TEST_F(IoMultiplexerTest, RegisterWriteRaisesMaxFd) {
    giveReadFds(handlerA, {4});
    giveWriteFds(handlerB, {11});
    mux.registerReadHandler(&handlerA);
    mux.registerWriteHandler(&handlerB);

    EXPECT_EQ(11, mux.getMaxFd());
}

// Negative descriptors of a handler are neither watched nor counted in maxFd.
TEST_F(IoMultiplexerTest, NegativeDescriptorsAreSkipped) {
    giveReadFds(handlerA, {-1, 5});
    giveReadFds(handlerB, {-3});
    mux.registerReadHandler(&handlerA);
    mux.registerReadHandler(&handlerB);

    EXPECT_TRUE(mux.handleEvents());

    EXPECT_EQ(5, mux.getMaxFd());
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(6, calls[0].nfds);
    EXPECT_EQ(std::set<int>{5}, calls[0].readFds);
}

// A descriptor select() cannot watch fails the registration, traced; none of
// the handler's descriptors is watched then, so no fd_set is overrun.
TEST_F(IoMultiplexerTest, DescriptorsAtOrAboveSelectLimitFailRegistration) {
    twamp_test::TraceRecorder::reset();
    giveReadFds(handlerA, {7, FD_SETSIZE, FD_SETSIZE + 5});

    EXPECT_FALSE(mux.registerReadHandler(&handlerA));
    EXPECT_TRUE(mux.handleEvents());

    EXPECT_EQ(0, mux.getMaxFd());
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(1, calls[0].nfds);
    EXPECT_EQ(std::set<int>{}, calls[0].readFds);
    EXPECT_EQ((std::vector<std::string>{
                  "setEvents(): Descriptor 1024 not watched: select() handles descriptors "
                  "below 1024"}),
              twamp_test::TraceRecorder::twampMessages("ERROR"));
}

// A registration whose descriptors select() can watch succeeds.
TEST_F(IoMultiplexerTest, RegistrationBelowSelectLimitSucceeds) {
    giveReadFds(handlerA, {7, FD_SETSIZE - 1});
    giveWriteFds(handlerB, {9});

    EXPECT_TRUE(mux.registerReadHandler(&handlerA));
    EXPECT_TRUE(mux.registerWriteHandler(&handlerB));

    EXPECT_EQ(FD_SETSIZE - 1, mux.getMaxFd());
}

// The descriptors of one handler become entries in ascending order, served in that order.
TEST_F(IoMultiplexerTest, RegistrationAddsDescriptorsInAscendingOrder) {
    giveReadFds(handlerA, {9, 4, 6});
    mux.registerReadHandler(&handlerA);
    readyRead = {4, 6, 9};
    {
        InSequence order;
        EXPECT_CALL(handlerA, handleInput(4)).WillOnce(Return(true));
        EXPECT_CALL(handlerA, handleInput(6)).WillOnce(Return(true));
        EXPECT_CALL(handlerA, handleInput(9)).WillOnce(Return(true));
    }

    EXPECT_TRUE(mux.handleEvents());
    EXPECT_TRUE(mux.handleEvents());
    EXPECT_TRUE(mux.handleEvents());
}

// The handler's descriptor set is asked for once, at registration, not on each select.
TEST_F(IoMultiplexerTest, DescriptorSetIsReadOnlyAtRegistration) {
    EXPECT_CALL(handlerA, getReadFds()).Times(1).WillOnce(Return(std::set<int>{4}));
    mux.registerReadHandler(&handlerA);
    readyRead = {4};

    EXPECT_TRUE(mux.handleEvents());
    EXPECT_TRUE(mux.handleEvents());
}

// Two readable entries A and B with an empty write list are served A, B, A, B.
TEST_F(IoMultiplexerTest, TwoReadableEntriesAlternateWithEmptyWriteList) {
    giveReadFds(handlerA, {4});
    giveReadFds(handlerB, {6});
    mux.registerReadHandler(&handlerA);
    mux.registerReadHandler(&handlerB);
    readyRead = {4, 6};
    {
        InSequence order;
        EXPECT_CALL(handlerA, handleInput(4)).WillOnce(Return(true));
        EXPECT_CALL(handlerB, handleInput(6)).WillOnce(Return(true));
        EXPECT_CALL(handlerA, handleInput(4)).WillOnce(Return(true));
        EXPECT_CALL(handlerB, handleInput(6)).WillOnce(Return(true));
    }

    EXPECT_TRUE(mux.handleEvents());
    EXPECT_TRUE(mux.handleEvents());
    EXPECT_TRUE(mux.handleEvents());
    EXPECT_TRUE(mux.handleEvents());
    EXPECT_EQ(4u, calls.size());
}

// With the write list first and no write entry ready, the ready read entry is served in the
// same call.
TEST_F(IoMultiplexerTest, WriteFirstWithOnlyReadReadyServesRead) {
    giveReadFds(handlerA, {4});
    giveWriteFds(handlerB, {5});
    mux.registerReadHandler(&handlerA);
    mux.registerWriteHandler(&handlerB);
    EXPECT_CALL(handlerB, handleOutput(::testing::_)).Times(0);
    EXPECT_CALL(handlerA, handleInput(4)).Times(2).WillRepeatedly(Return(true));

    // First call: read list first, entry 4 served; the toggle now puts the write list first.
    readyRead = {4};
    readyWrite = {};
    EXPECT_TRUE(mux.handleEvents());
    // Second call: write list tried first, nothing ready there, entry 4 served.
    EXPECT_TRUE(mux.handleEvents());
}

// With a read and a write entry both ready, calls alternate read, write, read.
TEST_F(IoMultiplexerTest, ToggleAlternatesReadAndWriteLists) {
    giveReadFds(handlerA, {4});
    giveWriteFds(handlerB, {5});
    mux.registerReadHandler(&handlerA);
    mux.registerWriteHandler(&handlerB);
    readyRead = {4};
    readyWrite = {5};
    {
        InSequence order;
        EXPECT_CALL(handlerA, handleInput(4)).WillOnce(Return(true));
        EXPECT_CALL(handlerB, handleOutput(5)).WillOnce(Return(true));
        EXPECT_CALL(handlerA, handleInput(4)).WillOnce(Return(true));
    }

    EXPECT_TRUE(mux.handleEvents());
    EXPECT_TRUE(mux.handleEvents());
    EXPECT_TRUE(mux.handleEvents());
}

// The toggle flips also when select returns 0 and nothing is served.
TEST_F(IoMultiplexerTest, ToggleFlipsWhenNothingIsServed) {
    giveReadFds(handlerA, {4});
    giveWriteFds(handlerB, {5});
    mux.registerReadHandler(&handlerA);
    mux.registerWriteHandler(&handlerB);
    EXPECT_CALL(handlerA, handleInput(::testing::_)).Times(0);
    EXPECT_CALL(handlerB, handleOutput(5)).WillOnce(Return(true));

    EXPECT_TRUE(mux.handleEvents());
    readyRead = {4};
    readyWrite = {5};
    EXPECT_TRUE(mux.handleEvents());
}

// A ready write entry is served with handleOutput and its descriptor.
TEST_F(IoMultiplexerTest, WriteEntryIsServedWithHandleOutput) {
    giveWriteFds(handlerA, {7});
    mux.registerWriteHandler(&handlerA);
    readyWrite = {7};
    EXPECT_CALL(handlerA, handleInput(::testing::_)).Times(0);
    EXPECT_CALL(handlerA, handleOutput(7)).WillOnce(Return(true));

    EXPECT_TRUE(mux.handleEvents());

    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(std::set<int>{}, calls[0].readFds);
    EXPECT_EQ(std::set<int>{7}, calls[0].writeFds);
}

// A handler's false result changes nothing: the call succeeds and the next entry is next.
TEST_F(IoMultiplexerTest, HandlerResultIsIgnored) {
    giveReadFds(handlerA, {4});
    giveReadFds(handlerB, {6});
    mux.registerReadHandler(&handlerA);
    mux.registerReadHandler(&handlerB);
    readyRead = {4, 6};
    {
        InSequence order;
        EXPECT_CALL(handlerA, handleInput(4)).WillOnce(Return(false));
        EXPECT_CALL(handlerB, handleInput(6)).WillOnce(Return(false));
    }

    EXPECT_TRUE(mux.handleEvents());
    EXPECT_TRUE(mux.handleEvents());
}

// Only ready entries are served; nothing is called when select reports nothing ready.
TEST_F(IoMultiplexerTest, NothingReadyServesNothing) {
    giveReadFds(handlerA, {4});
    mux.registerReadHandler(&handlerA);
    EXPECT_CALL(handlerA, handleInput(::testing::_)).Times(0);

    EXPECT_TRUE(mux.handleEvents());
}

// The search from the cursor wraps round to the start of the list.
TEST_F(IoMultiplexerTest, SearchWrapsRoundToStart) {
    giveReadFds(handlerA, {4});
    giveReadFds(handlerB, {5});
    giveReadFds(handlerC, {6});
    mux.registerReadHandler(&handlerA);
    mux.registerReadHandler(&handlerB);
    mux.registerReadHandler(&handlerC);
    {
        InSequence order;
        EXPECT_CALL(handlerB, handleInput(5)).WillOnce(Return(true));
        EXPECT_CALL(handlerA, handleInput(4)).WillOnce(Return(true));
    }

    readyRead = {5};
    EXPECT_TRUE(mux.handleEvents());
    readyRead = {4};
    EXPECT_TRUE(mux.handleEvents());
}

// A handler removing itself below the cursor moves the cursor down: the entry after it is next.
TEST_F(IoMultiplexerTest, SelfRemovalBelowCursorResumesAtFollowingEntry) {
    giveReadFds(handlerA, {4});
    giveReadFds(handlerB, {5});
    giveReadFds(handlerC, {6});
    mux.registerReadHandler(&handlerA);
    mux.registerReadHandler(&handlerB);
    mux.registerReadHandler(&handlerC);
    readyRead = {4, 5, 6};
    {
        InSequence order;
        EXPECT_CALL(handlerA, handleInput(4)).WillOnce(Return(true));
        EXPECT_CALL(handlerB, handleInput(5)).WillOnce(Invoke([this](int) {
            mux.removeReadHandler(&handlerB);
            return true;
        }));
        EXPECT_CALL(handlerC, handleInput(6)).WillOnce(Return(true));
    }

    EXPECT_TRUE(mux.handleEvents());
    EXPECT_TRUE(mux.handleEvents());
    EXPECT_TRUE(mux.handleEvents());

    ASSERT_EQ(3u, calls.size());
    EXPECT_EQ((std::set<int>{4, 6}), calls[2].readFds);
}

// Removing an entry at or above the cursor leaves the cursor where it was.
TEST_F(IoMultiplexerTest, RemovalAboveCursorKeepsCursor) {
    giveReadFds(handlerA, {4});
    giveReadFds(handlerB, {5});
    giveReadFds(handlerC, {6});
    mux.registerReadHandler(&handlerA);
    mux.registerReadHandler(&handlerB);
    mux.registerReadHandler(&handlerC);
    readyRead = {4, 5, 6};
    {
        InSequence order;
        EXPECT_CALL(handlerA, handleInput(4)).WillOnce(Return(true));
        EXPECT_CALL(handlerB, handleInput(5)).WillOnce(Return(true));
    }
    EXPECT_CALL(handlerC, handleInput(::testing::_)).Times(0);

    EXPECT_TRUE(mux.handleEvents());
    mux.removeReadHandler(&handlerC);
    EXPECT_TRUE(mux.handleEvents());
}

// Removing the owner of the highest descriptor lowers maxFd to the highest one left.
TEST_F(IoMultiplexerTest, RemovingHighestLowersMaxFdToNextHighest) {
    giveReadFds(handlerA, {3});
    giveReadFds(handlerB, {8});
    giveReadFds(handlerC, {5});
    mux.registerReadHandler(&handlerA);
    mux.registerReadHandler(&handlerB);
    mux.registerReadHandler(&handlerC);

    mux.removeReadHandler(&handlerB);

    EXPECT_EQ(5, mux.getMaxFd());
}

// maxFd is recomputed over both lists: a write descriptor can be the highest left.
TEST_F(IoMultiplexerTest, RemovingHighestConsidersWriteList) {
    giveReadFds(handlerA, {3});
    giveWriteFds(handlerB, {6});
    giveReadFds(handlerC, {9});
    mux.registerReadHandler(&handlerA);
    mux.registerWriteHandler(&handlerB);
    mux.registerReadHandler(&handlerC);

    mux.removeReadHandler(&handlerC);

    EXPECT_EQ(6, mux.getMaxFd());
}

// Removing the last entries lowers maxFd to 0 and select gets a count of 1 again.
TEST_F(IoMultiplexerTest, RemovingLastEntryLowersMaxFdToZero) {
    giveReadFds(handlerA, {3, 8});
    mux.registerReadHandler(&handlerA);

    mux.removeReadHandler(&handlerA);
    EXPECT_TRUE(mux.handleEvents());

    EXPECT_EQ(0, mux.getMaxFd());
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(1, calls[0].nfds);
    EXPECT_EQ(std::set<int>{}, calls[0].readFds);
}

// Removing a write handler lowers maxFd and stops watching its descriptors.
TEST_F(IoMultiplexerTest, RemoveWriteHandlerRemovesItsEntries) {
    giveReadFds(handlerA, {3});
    giveWriteFds(handlerB, {7});
    mux.registerReadHandler(&handlerA);
    mux.registerWriteHandler(&handlerB);

    mux.removeWriteHandler(&handlerB);
    EXPECT_TRUE(mux.handleEvents());

    EXPECT_EQ(3, mux.getMaxFd());
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(4, calls[0].nfds);
    EXPECT_EQ(std::set<int>{}, calls[0].writeFds);
}

// Removing a handler without entries changes nothing.
TEST_F(IoMultiplexerTest, RemovingUnknownHandlerDoesNothing) {
    giveReadFds(handlerA, {4});
    mux.registerReadHandler(&handlerA);
    readyRead = {4};
    EXPECT_CALL(handlerA, handleInput(4)).WillOnce(Return(true));

    mux.removeReadHandler(&handlerB);
    mux.removeWriteHandler(&handlerA);
    EXPECT_TRUE(mux.handleEvents());

    EXPECT_EQ(4, mux.getMaxFd());
}

// A handler registered twice is called for each of its two entries.
TEST_F(IoMultiplexerTest, HandlerRegisteredTwiceIsCalledForBothEntries) {
    giveReadFds(handlerA, {4});
    giveReadFds(handlerB, {5});
    mux.registerReadHandler(&handlerA);
    mux.registerReadHandler(&handlerB);
    mux.registerReadHandler(&handlerA);
    readyRead = {4, 5};
    {
        InSequence order;
        EXPECT_CALL(handlerA, handleInput(4)).WillOnce(Return(true));
        EXPECT_CALL(handlerB, handleInput(5)).WillOnce(Return(true));
        EXPECT_CALL(handlerA, handleInput(4)).WillOnce(Return(true));
        EXPECT_CALL(handlerA, handleInput(4)).WillOnce(Return(true));
    }

    // Entries A(4), B(5), A(4): the fourth call wraps round from the second A entry to the first.
    EXPECT_TRUE(mux.handleEvents());
    EXPECT_TRUE(mux.handleEvents());
    EXPECT_TRUE(mux.handleEvents());
    EXPECT_TRUE(mux.handleEvents());
}

// One removal takes both entries of a handler registered twice.
TEST_F(IoMultiplexerTest, OneRemovalRemovesBothEntriesOfTwiceRegisteredHandler) {
    giveReadFds(handlerA, {8});
    giveReadFds(handlerB, {5});
    mux.registerReadHandler(&handlerA);
    mux.registerReadHandler(&handlerB);
    mux.registerReadHandler(&handlerA);
    readyRead = {5, 8};
    EXPECT_CALL(handlerA, handleInput(::testing::_)).Times(0);
    EXPECT_CALL(handlerB, handleInput(5)).Times(2).WillRepeatedly(Return(true));

    mux.removeReadHandler(&handlerA);
    EXPECT_TRUE(mux.handleEvents());
    EXPECT_TRUE(mux.handleEvents());

    EXPECT_EQ(5, mux.getMaxFd());
    ASSERT_EQ(2u, calls.size());
    EXPECT_EQ(std::set<int>{5}, calls[1].readFds);
}

// select failing with EINTR ends the loop: false, and no handler is called.
TEST_F(IoMultiplexerTest, SelectInterruptedReturnsFalse) {
    giveReadFds(handlerA, {4});
    mux.registerReadHandler(&handlerA);
    readyRead = {4};
    failWithErrno = EINTR;
    EXPECT_CALL(handlerA, handleInput(::testing::_)).Times(0);

    EXPECT_FALSE(mux.handleEvents());
}

// A handler may register another one from inside handleInput; the new entry is served later.
TEST_F(IoMultiplexerTest, RegistrationFromInsideHandlerIsServedLater) {
    giveReadFds(handlerA, {4});
    giveReadFds(handlerB, {9});
    mux.registerReadHandler(&handlerA);
    readyRead = {4, 9};
    {
        InSequence order;
        EXPECT_CALL(handlerA, handleInput(4)).WillOnce(Invoke([this](int) {
            mux.registerReadHandler(&handlerB);
            return true;
        }));
        EXPECT_CALL(handlerB, handleInput(9)).WillOnce(Return(true));
    }

    EXPECT_TRUE(mux.handleEvents());
    EXPECT_TRUE(mux.handleEvents());

    EXPECT_EQ(9, mux.getMaxFd());
}

// The base handler watches nothing and accepts input and output.
TEST(IoHandlerTest, BaseWatchesNothingAndSucceeds) {
    IoHandler handler;

    EXPECT_EQ(std::set<int>{}, handler.getReadFds());
    EXPECT_EQ(std::set<int>{}, handler.getWriteFds());
    EXPECT_TRUE(handler.handleInput(3));
    EXPECT_TRUE(handler.handleOutput(3));
}

// An entry keeps the handler pointer and descriptor it was made with, also in a copy.
TEST(IoHandlerFdTest, KeepsHandlerAndDescriptor) {
    IoHandler handler;
    const IoHandlerFd entry(&handler, 12);
    const IoHandlerFd copy = entry;

    EXPECT_EQ(&handler, copy.handler);
    EXPECT_EQ(12, copy.fd);
}

// On the real select a readable eventfd is handed to its handler.
TEST(IoMultiplexerSystemTest, ReadableEventFdIsServed) {
    IoMultiplexer mux;
    EventFdHandler idle;
    EventFdHandler busy;
    ASSERT_GE(idle.fd, 0);
    ASSERT_GE(busy.fd, 0);
    mux.registerReadHandler(&idle);
    mux.registerReadHandler(&busy);
    ASSERT_TRUE(busy.signal(1));
    const WaitWatchdog watchdog(10);

    EXPECT_TRUE(mux.handleEvents());

    EXPECT_EQ(std::vector<int>{}, idle.servedFds);
    EXPECT_EQ(std::vector<int>{busy.fd}, busy.servedFds);
    mux.removeReadHandler(&idle);
    mux.removeReadHandler(&busy);
}

// On the real select a registered descriptor that was closed makes handleEvents fail.
TEST(IoMultiplexerSystemTest, ClosedDescriptorMakesSelectFail) {
    IoMultiplexer mux;
    int pipeFds[2] = {-1, -1};
    ASSERT_EQ(0, pipe(pipeFds));
    NiceMock<MockIoHandler> handler;
    ON_CALL(handler, getReadFds()).WillByDefault(Return(std::set<int>{pipeFds[0]}));
    EXPECT_CALL(handler, handleInput(::testing::_)).Times(0);
    mux.registerReadHandler(&handler);
    close(pipeFds[0]);
    close(pipeFds[1]);
    const WaitWatchdog watchdog(10);

    EXPECT_FALSE(mux.handleEvents());
    mux.removeReadHandler(&handler);
}

}  // namespace
