// GoogleMock of the reader and writer of ancillary data.
#ifndef TWAMP_TESTS_MOCK_SOCKET_HELPER_H
#define TWAMP_TESTS_MOCK_SOCKET_HELPER_H

#include <sys/socket.h>

#include <cstdint>

#include <gmock/gmock.h>

#include "SocketHelper.h"

namespace twamp_test {

class MockSocketHelper : public SocketHelper {
  public:
    // SocketHelper
    MOCK_METHOD(uint32_t, getDscp, (const struct msghdr* msg, int family), (override));
    MOCK_METHOD(uint8_t, getTtl, (const struct msghdr* msg, int family), (override));
    MOCK_METHOD(bool, setDscp, (struct msghdr * msg, int family, int socketFd, uint32_t dscp),
                (override));
    MOCK_METHOD(bool, setHopLimit, (struct msghdr * msg), (override));
};

}  // namespace twamp_test

#endif  // TWAMP_TESTS_MOCK_SOCKET_HELPER_H
