#include "TwampTestSessionFactory.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <memory>
#include <stdexcept>

#include <gtest/gtest.h>

#include "AdoptedMockController.h"
#include "TraceRecorder.h"
#include "TwampTestSession.h"

namespace {

using twamp_test::AdoptedMockController;
using twamp_test::TraceRecorder;

class TwampTestSessionFactoryTest : public ::testing::Test {
  protected:
    void SetUp() override { TraceRecorder::reset(); }

    AdoptedMockController env;
    TwampTestSessionFactory factory;
};

// The factory builds a real session from the address and port it is given.
TEST_F(TwampTestSessionFactoryTest, BuildsSessionTowardsDestination) {
    std::unique_ptr<TwampTestSession> session(
        factory.createTwampTestSession("127.0.0.1", "4000", 10, 1, 2, 64, 46, 3, 5000));
    ASSERT_NE(nullptr, session);
    ASSERT_TRUE(session->init());
    const struct sockaddr_storage storage = session->getDstAddress();
    const auto* address = reinterpret_cast<const struct sockaddr_in*>(&storage);
    EXPECT_EQ(AF_INET, address->sin_family);
    EXPECT_EQ(htons(4000), address->sin_port);
}

// The constructor's exception for a null text reaches the caller.
TEST_F(TwampTestSessionFactoryTest, ConstructorExceptionPropagates) {
    EXPECT_THROW(factory.createTwampTestSession(nullptr, "862", 1, 0, 0, 64, 0, 0, 0),
                 std::logic_error);
}

}  // namespace
