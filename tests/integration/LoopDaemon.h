// The daemon of a scenario test, built as its start-up builds it (the
// controller with its socket bound to a free port, the dispatcher's mailbox,
// and a heartbeat that keeps the loop turning while nothing else is due), and
// its event loop driven until a condition holds.
#ifndef TWAMP_TESTS_LOOP_DAEMON_H
#define TWAMP_TESTS_LOOP_DAEMON_H

#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "ItcDispatcher.h"
#include "LoopHeartbeat.h"
#include "LoopbackReflector.h"
#include "TwampTestSessionController.h"
#include "TwampTestSessionFactory.h"
#include "TwtsiSignals.h"
#include "UdpSocket.h"
#include "itc.h"

namespace scenario_test {

// Builds it with sessions from factory, the socket on address, the mailbox
// named serviceName and a heartbeat every heartbeatMs; the controller, the
// heartbeat and the daemon's mailbox go to the last three.
inline ::testing::AssertionResult startLoopDaemon(TwampTestSessionFactory& factory,
                                                  const char* address, const char* serviceName,
                                                  long heartbeatMs,
                                                  TwampTestSessionControllerInterface*& controller,
                                                  std::unique_ptr<LoopHeartbeat>& heartbeat,
                                                  itc_mbox_id_t& daemonMailbox) {
    controller = TwampTestSessionController::getInstance(nullptr, &factory);
    if (!controller->getUdpSocket().init(address, "0", false)) {
        return ::testing::AssertionFailure() << "socket not bound to " << address;
    }
    if (!controller->getItcDispatcher()->init(serviceName)) {
        return ::testing::AssertionFailure() << "no mailbox " << serviceName;
    }
    heartbeat = std::make_unique<LoopHeartbeat>(controller->getIoMultiplexer(), heartbeatMs);
    if (!heartbeat->isRunning()) {
        return ::testing::AssertionFailure() << "no heartbeat timer";
    }
    daemonMailbox = itc_locate(serviceName);
    if (daemonMailbox == ITC_NO_ID) {
        return ::testing::AssertionFailure() << "daemon mailbox not found";
    }
    return ::testing::AssertionSuccess();
}

// A create signal for the session whose identifier is sessionId (its
// TWTSI_SESSION_ID_SIZE bytes), towards reflector, at packetsPerSecond with
// packets of packetSize bytes and dscp; null when none could be allocated.
inline union itc_msg* createSignalTowards(const LoopbackReflector& reflector,
                                          const uint8_t* sessionId, uint32_t packetsPerSecond,
                                          int32_t packetSize, uint32_t dscp) {
    union itc_msg* msg =
        itc_alloc(sizeof(twtsiCreateTwampTestSession), TWTSI_CREATE_TWAMP_TEST_SESSION);
    if (msg == nullptr) {
        return nullptr;
    }
    twtsiCreateTwampTestSession& create = msg->twtsiCreateTwampTestSession;
    const std::string address = reflector.getAddressText();
    std::memcpy(create.dstIpAddress, address.c_str(), address.size() + 1);
    create.dstUdpPort = reflector.getPort();
    std::memcpy(create.sessionId, sessionId, sizeof(create.sessionId));
    create.packetsPerSecond = packetsPerSecond;
    create.dscp = dscp;
    create.packetSize = packetSize;
    return msg;
}

// Drives the daemon's event loop until done() holds; false when stepLimit
// passes first or the loop fails.
inline bool runLoopUntil(TwampTestSessionControllerInterface& controller,
                         const std::function<bool()>& done, std::chrono::seconds stepLimit) {
    const auto deadline = std::chrono::steady_clock::now() + stepLimit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        if (!controller.getIoMultiplexer().handleEvents()) {
            return false;
        }
    }
    return true;
}

}  // namespace scenario_test

#endif  // TWAMP_TESTS_LOOP_DAEMON_H
