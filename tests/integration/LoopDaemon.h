// The daemon of a scenario test, built as its start-up builds it: the
// controller with its socket bound to a free port, the dispatcher's mailbox,
// and a heartbeat that keeps the loop turning while nothing else is due.
#ifndef TWAMP_TESTS_LOOP_DAEMON_H
#define TWAMP_TESTS_LOOP_DAEMON_H

#include <memory>

#include <gtest/gtest.h>

#include "ItcDispatcher.h"
#include "LoopHeartbeat.h"
#include "TwampTestSessionController.h"
#include "TwampTestSessionFactory.h"
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

}  // namespace scenario_test

#endif  // TWAMP_TESTS_LOOP_DAEMON_H
