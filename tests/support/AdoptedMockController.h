// A mock controller adopted as the process-wide instance for the lifetime of
// this object, handing out the mock multiplexer and socket and a real random
// source and finalisation pacer. Sessions and dispatchers must be gone before it is.
#ifndef TWAMP_TESTS_ADOPTED_MOCK_CONTROLLER_H
#define TWAMP_TESTS_ADOPTED_MOCK_CONTROLLER_H

#include <gmock/gmock.h>

#include "FinalisationPacer.h"
#include "MockIoMultiplexer.h"
#include "MockTwampTestSessionController.h"
#include "MockUdpSocket.h"
#include "RandomFd.h"
#include "TwampTestSessionController.h"

namespace twamp_test {

class AdoptedMockController {
  public:
    AdoptedMockController() {
        ON_CALL(controller, getIoMultiplexer()).WillByDefault(::testing::ReturnRef(multiplexer));
        ON_CALL(multiplexer, registerReadHandler(::testing::_))
            .WillByDefault(::testing::Return(true));
        ON_CALL(multiplexer, registerWriteHandler(::testing::_))
            .WillByDefault(::testing::Return(true));
        ON_CALL(controller, getUdpSocket()).WillByDefault(::testing::ReturnRef(udpSocket));
        ON_CALL(controller, getRandomFd()).WillByDefault(::testing::ReturnRef(randomFd));
        ON_CALL(controller, getFinalisationPacer())
            .WillByDefault(::testing::ReturnRef(finalisationPacer));
        TwampTestSessionController::resetInstanceForTest();
        TwampTestSessionController::getInstance(&controller);
    }
    ~AdoptedMockController() { TwampTestSessionController::resetInstanceForTest(); }
    AdoptedMockController(const AdoptedMockController&) = delete;
    AdoptedMockController& operator=(const AdoptedMockController&) = delete;

    ::testing::NiceMock<MockIoMultiplexer> multiplexer;
    ::testing::NiceMock<MockUdpSocket> udpSocket;
    RandomFd randomFd;
    FinalisationPacer finalisationPacer;
    ::testing::NiceMock<MockTwampTestSessionController> controller;
};

}  // namespace twamp_test

#endif  // TWAMP_TESTS_ADOPTED_MOCK_CONTROLLER_H
