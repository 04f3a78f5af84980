#include <netdb.h>

#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "SessionTestBase.h"
#include "TraceRecorder.h"
#include "TwampTestSession.h"

namespace {

using twamp_test::SessionTestBase;
using twamp_test::TraceRecorder;

class TwampTestSessionResolveTest : public SessionTestBase {};

// init resolves the reflector's address and port texts through the session's system calls.
TEST_F(TwampTestSessionResolveTest, ResolvesThroughSystemCalls) {
    auto session = makeSession(10, 0, 0, "192.0.2.7");
    EXPECT_TRUE(session->init());
    EXPECT_EQ(std::vector<std::string>{"192.0.2.7 862"}, systemCalls.resolved);
}

// A resolver failure stops init with the resolver's text, before any timer exists.
TEST_F(TwampTestSessionResolveTest, ResolverFailureStopsInit) {
    systemCalls.resolveError = EAI_NONAME;
    auto session = makeSession(10, 0, 0, "reflector.example");
    EXPECT_FALSE(session->init());
    EXPECT_EQ(std::vector<std::string>{"init(): Failed getaddrinfo: Name or service not known"},
              TraceRecorder::twampMessages("ERROR"));
    EXPECT_EQ(-1, systemCalls.createdClock);
}

}  // namespace
