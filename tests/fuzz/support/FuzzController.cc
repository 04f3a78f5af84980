#include "FuzzController.h"

#include <cstdlib>
#include <utility>

#include "AcceptingPoller.h"
#include "FakeItc.h"
#include "FakeSaLog.h"
#include "PercentileVector.h"
#include "TwampTestSessionController.h"
#include "tn_log_internal.h"

namespace {

// The sockets' own addresses; only their families matter.
constexpr const char* kSourceAddress4 = "127.0.0.1";
constexpr const char* kSourceAddress6 = "::1";
constexpr const char* kSourcePort = "4000";

}  // namespace

FuzzController& FuzzController::instance() {
    static FuzzController* controller = [] {
        if (!percentile_init()) {
            std::abort();
        }
        auto* created = new FuzzController();
        TwampTestSessionController::resetInstanceForTest();
        TwampTestSessionController::getInstance(created);
        // Refused creates and invalidated minutes write operator-log records.
        twamp_test::FakeSaLog::reset();
        if (!tn_log_init()) {
            std::abort();
        }
        created->udpSocket4.init(kSourceAddress4, kSourcePort, false);
        created->udpSocket6.init(kSourceAddress6, kSourcePort, false);
        return created;
    }();
    return *controller;
}

FuzzController::FuzzController()
    : ioMultiplexer(std::make_unique<AcceptingPoller>(), IoMultiplexer::ServeRule::EveryReady),
      itcDispatcher(std::make_unique<ItcDispatcher>(&factory)) {}

FuzzController::~FuzzController() {
    deleteAllSessions();
    itcDispatcher.reset();
}

IoMultiplexer& FuzzController::getIoMultiplexer() {
    return ioMultiplexer;
}

ItcDispatcher* FuzzController::getItcDispatcher() {
    return itcDispatcher.get();
}

UdpSocket& FuzzController::getUdpSocket() {
    return *udpSocket;
}

RandomFd& FuzzController::getRandomFd() {
    return randomFd;
}

SocketHelper& FuzzController::getSocketHelper() {
    return socketHelper;
}

FinalisationPacer& FuzzController::getFinalisationPacer() {
    return finalisationPacer;
}

// The first session of a key stays, as in the daemon.
void FuzzController::addTwampTestSession(const SessionKey& key, TwampTestSession* session) {
    if (sessions.count(key) != 0) {
        return;
    }
    sessions.emplace(key, std::unique_ptr<TwampTestSession>(session));
}

void FuzzController::deleteTwampTestSession(const SessionKey& key) {
    auto entry = sessions.find(key);
    if (entry == sessions.end()) {
        return;
    }
    entry->second.reset();
    sessions.erase(entry);
}

TwampTestSession* FuzzController::getTwampTestSession(const SessionKey& key) {
    auto entry = sessions.find(key);
    return entry != sessions.end() ? entry->second.get() : nullptr;
}

FuzzClock& FuzzController::getClock() {
    return clock;
}

FuzzSessionSystemCalls& FuzzController::getSessionSystemCalls() {
    return sessionSystemCalls;
}

FuzzSocketSystemCalls& FuzzController::getSocketSystemCalls() {
    return socketSystemCalls;
}

std::unique_ptr<TwampTestSession> FuzzController::makeSession(const char* dstIpAddress,
                                                              const char* dstUdpPort,
                                                              uint32_t packetsPerSecond,
                                                              int32_t packetSize) {
    return std::unique_ptr<TwampTestSession>(factory.createTwampTestSession(
        dstIpAddress, dstUdpPort, packetsPerSecond, 0, 0, packetSize, 0, 0, 0));
}

// A session may be deleted by nothing here, so the registry is walked directly.
void FuzzController::fireTimers() {
    for (auto& entry : sessions) {
        TwampTestSession& session = *entry.second;
        for (const int fd : session.getReadFds()) {
            session.handleInput(fd);
        }
    }
}

void FuzzController::deleteAllSessions() {
    while (!sessions.empty()) {
        sessions.begin()->second.reset();
        sessions.erase(sessions.begin());
    }
}

void FuzzController::startInput() {
    twamp_test::FakeSaLog::forgetCalls();
    twamp_test::FakeItc::reset();
    socketSystemCalls.resetQueues();
    sessionSystemCalls.setExpiries(1);
    clock.set(kStartSeconds, 0);
    udpSocket = &udpSocket4;
    finalisationPacer = FinalisationPacer();
}

void FuzzController::finishInput() {
    deleteAllSessions();
    twamp_test::FakeItc::reset();
    socketSystemCalls.resetQueues();
}

void FuzzController::selectFamily(int family) {
    udpSocket = family == AF_INET6 ? &udpSocket6 : &udpSocket4;
}

TwampTestSession& FuzzController::startReflectorSession(int family) {
    selectFamily(family);
    SessionKey key;
    for (uint8_t& byte : key.bytes) {
        byte = kReflectorKeyByte;
    }
    const char* address = family == AF_INET6 ? kReflectorAddress6 : kReflectorAddress4;
    std::unique_ptr<TwampTestSession> created = makeSession(address, kReflectorPort, 1, 64);
    TwampTestSession& session = *created;
    session.init();
    addTwampTestSession(key, created.release());
    for (uint32_t packet = 0; packet < kSentPackets; ++packet) {
        clock.set(kFirstSendSeconds + packet, 0);
        for (const int fd : session.getReadFds()) {
            session.handleInput(fd);
        }
    }
    return session;
}
