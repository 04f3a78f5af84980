// GoogleMock of the ITC dispatcher, for tests of the parts that send
// counters replies through it. Its base never opens a mailbox.
#ifndef TWAMP_TESTS_MOCK_ITC_DISPATCHER_H
#define TWAMP_TESTS_MOCK_ITC_DISPATCHER_H

#include <set>
#include <string>

#include <gmock/gmock.h>

#include "ItcDispatcher.h"

namespace twamp_test {

class MockItcDispatcher : public ItcDispatcher {
  public:
    MockItcDispatcher() : ItcDispatcher(nullptr) {}

    // IoHandler
    MOCK_METHOD(std::set<int>, getReadFds, (), (const, override));
    MOCK_METHOD(bool, handleInput, (int fd), (override));

    // ItcDispatcher
    MOCK_METHOD(bool, init, (const std::string& serviceName), (override));
    MOCK_METHOD(void, sendPmCountersReply, (TwampTestSession * session, union itc_msg* reply),
                (override));
};

}  // namespace twamp_test

#endif  // TWAMP_TESTS_MOCK_ITC_DISPATCHER_H
