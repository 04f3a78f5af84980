// GoogleMock stand-in for an event source of the IoMultiplexer.
#ifndef TWAMP_TESTS_MOCK_IO_HANDLER_H
#define TWAMP_TESTS_MOCK_IO_HANDLER_H

#include <set>

#include <gmock/gmock.h>

#include "IoHandler.h"

namespace twamp_test {

class MockIoHandler : public IoHandler {
  public:
    // IoHandler
    MOCK_METHOD(std::set<int>, getReadFds, (), (const, override));
    MOCK_METHOD(std::set<int>, getWriteFds, (), (const, override));
    MOCK_METHOD(bool, handleInput, (int fd), (override));
    MOCK_METHOD(bool, handleOutput, (int fd), (override));
};

}  // namespace twamp_test

#endif  // TWAMP_TESTS_MOCK_IO_HANDLER_H
