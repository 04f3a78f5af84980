// GoogleMock of the multiplexer: records registrations instead of watching
// descriptors (AdoptedMockController lets every registration succeed).
#ifndef TWAMP_TESTS_MOCK_IO_MULTIPLEXER_H
#define TWAMP_TESTS_MOCK_IO_MULTIPLEXER_H

#include <gmock/gmock.h>

#include "IoMultiplexer.h"

namespace twamp_test {

class MockIoMultiplexer : public IoMultiplexer {
  public:
    // IoMultiplexer
    MOCK_METHOD(bool, registerReadHandler, (IoHandler * handler), (override));
    MOCK_METHOD(void, removeReadHandler, (IoHandler * handler), (override));
    MOCK_METHOD(bool, registerWriteHandler, (IoHandler * handler), (override));
    MOCK_METHOD(void, removeWriteHandler, (IoHandler * handler), (override));
    MOCK_METHOD(bool, handleEvents, (), (override));
};

}  // namespace twamp_test

#endif  // TWAMP_TESTS_MOCK_IO_MULTIPLEXER_H
