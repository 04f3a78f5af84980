#include "TwampTestSessionController.h"

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "EventFdHandler.h"
#include "FakeItc.h"
#include "ItcDispatcher.h"
#include "MockTwampTestSession.h"
#include "MockTwampTestSessionController.h"
#include "MockTwampTestSessionFactory.h"
#include "PercentileVector.h"
#include "RandomFd.h"
#include "SystemClock.h"
#include "ScriptedSystemCalls.h"
#include "SessionKey.h"
#include "TraceRecorder.h"
#include "TwtsiSignals.h"

namespace {

using ::testing::_;
using ::testing::InSequence;
using ::testing::Invoke;
using ::testing::NiceMock;
using ::testing::Return;
using twamp_test::FakeItc;
using twamp_test::MockTwampTestSession;
using twamp_test::MockTwampTestSessionController;
using twamp_test::MockTwampTestSessionFactory;
using twamp_test::TraceRecorder;

constexpr itc_mbox_id_t kManager = 0x00020002;

SessionKey keyEndingIn(uint8_t last) {
    SessionKey key;
    std::memset(key.bytes, 0x11, sizeof(key.bytes));
    key.bytes[15] = last;
    return key;
}

twtsiCreateTwampTestSession createSignal(const SessionKey& key) {
    twtsiCreateTwampTestSession create;
    std::memset(&create, 0, sizeof(create));
    create.sigNo = TWTSI_CREATE_TWAMP_TEST_SESSION;
    std::strcpy(create.dstIpAddress, "192.0.2.1");
    create.dstUdpPort = 862;
    std::memcpy(create.sessionId, key.bytes, sizeof(create.sessionId));
    create.packetsPerSecond = 1;
    create.packetSize = 64;
    return create;
}

twtsiDeleteTwampTestSession deleteSignal(const SessionKey& key) {
    twtsiDeleteTwampTestSession signal;
    signal.sigNo = TWTSI_DELETE_TWAMP_TEST_SESSION;
    std::memcpy(signal.sessionId, key.bytes, sizeof(signal.sessionId));
    return signal;
}

// The real controller as the process-wide instance, built with a mock
// factory; destroyed and forgotten after each test.
class TwampTestSessionControllerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        TraceRecorder::reset();
        FakeItc::reset();
        TwampTestSessionController::resetInstanceForTest();
        controller = TwampTestSessionController::getInstance(nullptr, &factory);
    }
    void TearDown() override {
        delete controller;
        TwampTestSessionController::resetInstanceForTest();
        EXPECT_EQ(0u, FakeItc::unknownSignalCalls());
    }

    // A mock session that the registry will own.
    MockTwampTestSession* newSession() { return new NiceMock<MockTwampTestSession>(); }

    NiceMock<MockTwampTestSessionFactory> factory;
    TwampTestSessionControllerInterface* controller = nullptr;
};

// The first getInstance builds a controller with its dispatcher.
TEST_F(TwampTestSessionControllerTest, GetInstanceBuildsController) {
    ASSERT_NE(nullptr, controller);
    EXPECT_NE(nullptr, dynamic_cast<TwampTestSessionController*>(controller));
    EXPECT_NE(nullptr, controller->getItcDispatcher());
}

// Later calls return the same instance, whatever they pass.
TEST_F(TwampTestSessionControllerTest, GetInstanceReturnsExistingInstance) {
    NiceMock<MockTwampTestSessionController> other;
    EXPECT_EQ(controller, TwampTestSessionController::getInstance());
    EXPECT_EQ(controller, TwampTestSessionController::getInstance(&other, &factory));
}

// The shared parts are the same objects at every call.
TEST_F(TwampTestSessionControllerTest, SharedPartsAreStable) {
    EXPECT_EQ(&controller->getIoMultiplexer(), &controller->getIoMultiplexer());
    EXPECT_EQ(&controller->getUdpSocket(), &controller->getUdpSocket());
    EXPECT_EQ(&controller->getSocketHelper(), &controller->getSocketHelper());
    EXPECT_EQ(controller->getItcDispatcher(), controller->getItcDispatcher());
    EXPECT_EQ(&controller->getRandomFd(), &controller->getRandomFd());
}

// The random source is open from construction on.
TEST_F(TwampTestSessionControllerTest, RandomSourceIsOpen) {
    EXPECT_GE(controller->getRandomFd().getFd(), 0);
}

// An unknown key yields null.
TEST_F(TwampTestSessionControllerTest, UnknownKeyYieldsNull) {
    EXPECT_EQ(nullptr, controller->getTwampTestSession(keyEndingIn(1)));
}

// A registered session is found under its key.
TEST_F(TwampTestSessionControllerTest, AddedSessionIsFound) {
    MockTwampTestSession* session = newSession();
    controller->addTwampTestSession(keyEndingIn(1), session);
    EXPECT_EQ(session, controller->getTwampTestSession(keyEndingIn(1)));
}

// A second session under a taken key is neither stored nor destroyed.
TEST_F(TwampTestSessionControllerTest, FirstSessionOfKeyStays) {
    MockTwampTestSession* first = newSession();
    std::unique_ptr<MockTwampTestSession> second(newSession());
    EXPECT_CALL(*second, destroyed()).Times(0);
    controller->addTwampTestSession(keyEndingIn(1), first);
    controller->addTwampTestSession(keyEndingIn(1), second.get());
    EXPECT_EQ(first, controller->getTwampTestSession(keyEndingIn(1)));
    ::testing::Mock::VerifyAndClearExpectations(second.get());
}

// Deleting destroys the session and forgets the key.
TEST_F(TwampTestSessionControllerTest, DeleteDestroysSession) {
    MockTwampTestSession* session = newSession();
    controller->addTwampTestSession(keyEndingIn(1), session);
    EXPECT_CALL(*session, destroyed());
    controller->deleteTwampTestSession(keyEndingIn(1));
    EXPECT_EQ(nullptr, controller->getTwampTestSession(keyEndingIn(1)));
}

// Deleting a key twice: the second call does nothing.
TEST_F(TwampTestSessionControllerTest, DeleteTwice) {
    MockTwampTestSession* session = newSession();
    MockTwampTestSession* other = newSession();
    controller->addTwampTestSession(keyEndingIn(1), session);
    controller->addTwampTestSession(keyEndingIn(2), other);
    EXPECT_CALL(*session, destroyed()).Times(1);
    controller->deleteTwampTestSession(keyEndingIn(1));
    controller->deleteTwampTestSession(keyEndingIn(1));
    EXPECT_EQ(other, controller->getTwampTestSession(keyEndingIn(2)));
    EXPECT_TRUE(TraceRecorder::records().empty());
}

// Keys differing only in the last byte are distinct entries.
TEST_F(TwampTestSessionControllerTest, KeysDifferingInLastByteAreDistinct) {
    MockTwampTestSession* low = newSession();
    MockTwampTestSession* high = newSession();
    controller->addTwampTestSession(keyEndingIn(0x01), low);
    controller->addTwampTestSession(keyEndingIn(0xFF), high);
    EXPECT_EQ(low, controller->getTwampTestSession(keyEndingIn(0x01)));
    EXPECT_EQ(high, controller->getTwampTestSession(keyEndingIn(0xFF)));
}

// Keys are ordered by their last byte as an unsigned value: the controller
// destroys its sessions in key order, 0x01 before 0x7F before 0x80 before 0xFF.
TEST_F(TwampTestSessionControllerTest, KeysOrderedAsUnsignedBytes) {
    MockTwampTestSession* k01 = newSession();
    MockTwampTestSession* k7f = newSession();
    MockTwampTestSession* k80 = newSession();
    MockTwampTestSession* kff = newSession();
    controller->addTwampTestSession(keyEndingIn(0xFF), kff);
    controller->addTwampTestSession(keyEndingIn(0x80), k80);
    controller->addTwampTestSession(keyEndingIn(0x01), k01);
    controller->addTwampTestSession(keyEndingIn(0x7F), k7f);
    InSequence inOrder;
    EXPECT_CALL(*k01, destroyed());
    EXPECT_CALL(*k7f, destroyed());
    EXPECT_CALL(*k80, destroyed());
    EXPECT_CALL(*kff, destroyed());
    delete controller;
    controller = nullptr;
}

// The sessions are destroyed before the dispatcher deletes the mailbox.
TEST_F(TwampTestSessionControllerTest, SessionsDestroyedBeforeDispatcher) {
    // The controller's loop watches real descriptors only.
    const twamp_test::EventFdHandler mailbox;
    FakeItc::setFd(mailbox.fd);
    ASSERT_TRUE(controller->getItcDispatcher()->init("twamp"));
    MockTwampTestSession* session = newSession();
    controller->addTwampTestSession(keyEndingIn(1), session);
    std::vector<itc_mbox_id_t> deletedWhenSessionDied{0xFFFFFFFFu};
    EXPECT_CALL(*session, destroyed()).WillOnce(Invoke([&deletedWhenSessionDied]() {
        deletedWhenSessionDied = FakeItc::deletedMailboxes();
    }));
    delete controller;
    controller = nullptr;
    EXPECT_EQ(std::vector<itc_mbox_id_t>{}, deletedWhenSessionDied);
    EXPECT_EQ(std::vector<itc_mbox_id_t>{0x00010001u}, FakeItc::deletedMailboxes());
}

// The dispatcher builds sessions with the factory given to getInstance.
TEST_F(TwampTestSessionControllerTest, DispatcherUsesTheGivenFactory) {
    MockTwampTestSession* session = newSession();
    EXPECT_CALL(factory, createTwampTestSession(_, _, _, _, _, _, _, _, _))
        .WillOnce(Return(session));
    FakeItc::queueSignal(createSignal(keyEndingIn(1)), kManager);
    controller->getItcDispatcher()->handleInput(42);
    EXPECT_EQ(session, controller->getTwampTestSession(keyEndingIn(1)));
}

// Two create signals with one key: the second builds no session, and the
// first stays registered.
TEST_F(TwampTestSessionControllerTest, TwoCreatesWithSameKey) {
    MockTwampTestSession* first = newSession();
    EXPECT_CALL(factory, createTwampTestSession(_, _, _, _, _, _, _, _, _)).WillOnce(Return(first));
    EXPECT_CALL(*first, init()).WillOnce(Return(true));
    FakeItc::queueSignal(createSignal(keyEndingIn(1)), kManager);
    FakeItc::queueSignal(createSignal(keyEndingIn(1)), kManager);
    controller->getItcDispatcher()->handleInput(42);
    controller->getItcDispatcher()->handleInput(42);
    EXPECT_EQ(first, controller->getTwampTestSession(keyEndingIn(1)));
    EXPECT_EQ(std::vector<std::string>{"handleTwtsiCreateTwampTestSession(): Session "
                                       "11111111111111111111111111111101 already exists"},
              TraceRecorder::twampMessages("ERROR"));
    EXPECT_TRUE(FakeItc::sent().empty());
}

// A real session that gets no timer descriptor is refused: the registry keeps
// only the session created before it, and the refused one closed nothing
// because it opened nothing.
TEST_F(TwampTestSessionControllerTest, SessionWithoutDescriptorIsNotKept) {
    ASSERT_TRUE(percentile_init());
    MockTwampTestSession* running = newSession();
    twamp_test::ScriptedSystemCalls systemCalls;
    systemCalls.timerCreateErrno = EMFILE;
    EXPECT_CALL(factory, createTwampTestSession(_, _, _, _, _, _, _, _, _))
        .WillOnce(Return(running))
        .WillOnce(Invoke([&systemCalls](const char* address, const char* port, uint32_t rate,
                                        uint32_t spare1, uint32_t spare2, int32_t size,
                                        uint32_t dscp, uint32_t offset, uint32_t base) {
            return new TwampTestSession(address, port, rate, spare1, spare2, size, dscp, offset,
                                        base, SystemClock::instance(), &systemCalls);
        }));
    FakeItc::queueSignal(createSignal(keyEndingIn(1)), kManager);
    FakeItc::queueSignal(createSignal(keyEndingIn(2)), kManager);

    controller->getItcDispatcher()->handleInput(42);
    controller->getItcDispatcher()->handleInput(42);

    EXPECT_EQ(running, controller->getTwampTestSession(keyEndingIn(1)));
    EXPECT_EQ(nullptr, controller->getTwampTestSession(keyEndingIn(2)));
    EXPECT_EQ(std::vector<int>{}, systemCalls.closedFds);
    EXPECT_EQ(0, controller->getIoMultiplexer().getMaxFd());
    EXPECT_EQ((std::vector<std::string>{
                  "init(): Failed timerfd_create: errno 24 - Too many open files",
                  "handleTwtsiCreateTwampTestSession(): Session 11111111111111111111111111111102 "
                  "for dstIpAddress 192.0.2.1, dstUdpPort 862 refused: timerfd_create failed: "
                  "Too many open files"}),
              TraceRecorder::twampMessages("ERROR"));
    EXPECT_TRUE(percentile_uninit());
}

// Two delete signals for one key: the first destroys the session, the second does nothing.
TEST_F(TwampTestSessionControllerTest, TwoDeleteSignals) {
    MockTwampTestSession* session = newSession();
    controller->addTwampTestSession(keyEndingIn(1), session);
    EXPECT_CALL(*session, destroyed()).Times(1);
    FakeItc::queueSignal(deleteSignal(keyEndingIn(1)), kManager);
    FakeItc::queueSignal(deleteSignal(keyEndingIn(1)), kManager);
    controller->getItcDispatcher()->handleInput(42);
    controller->getItcDispatcher()->handleInput(42);
    EXPECT_EQ(nullptr, controller->getTwampTestSession(keyEndingIn(1)));
    EXPECT_TRUE(FakeItc::sent().empty());
    EXPECT_EQ(std::vector<uint32_t>({0x01A11403u, 0x01A11403u}), FakeItc::freedSignalNumbers());
}

// Without an instance, a given instance is adopted and returned from then on.
TEST(TwampTestSessionControllerInstanceTest, AdoptsGivenInstance) {
    TwampTestSessionController::resetInstanceForTest();
    NiceMock<MockTwampTestSessionController> mock;
    EXPECT_EQ(&mock, TwampTestSessionController::getInstance(&mock));
    EXPECT_EQ(&mock, TwampTestSessionController::getInstance());
    TwampTestSessionController::resetInstanceForTest();
}

}  // namespace
