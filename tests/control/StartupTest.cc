// The daemon's start-up against adopted mocks: the order in which the shared
// objects are set up, the arguments they get, and the end of the process
// when the event loop fails.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "ControlTestDoubles.h"
#include "DefaultNamespaceHandle.h"
#include "FakeSaLog.h"
#include "MockItcDispatcher.h"
#include "TraceRecorder.h"
#include "TwampTestSessionMain.h"
#include "UdpSocket.h"

namespace {

using ::testing::NiceMock;
using ::testing::Return;
using ::testing::ReturnRef;
using twamp_test::TraceRecorder;

// Reports its init on standard error instead of binding.
class ReportingUdpSocket : public UdpSocket {
  public:
    bool init(const char* srcIpAddress, const char* srcUdpPort, bool isIpsecTunnel) override {
        std::fprintf(stderr, "socket init %s %s %d\n", srcIpAddress, srcUdpPort,
                     isIpsecTunnel ? 1 : 0);
        return true;
    }
};

// Runs the entry with mocks in place; handleEvents succeeds once, then fails.
void runWithMocks(std::vector<std::string> arguments) {
    TraceRecorder::reset();
    TraceRecorder::setEchoToStderr(true);
    twamp_test::FakeSaLog::reset();
    control_test::AdoptedMockController mocks;
    ReportingUdpSocket socket;
    NiceMock<twamp_test::MockItcDispatcher> dispatcher;
    // The process ends with exit() inside the entry: the mocks are never destroyed.
    ::testing::Mock::AllowLeak(&mocks.controller);
    ::testing::Mock::AllowLeak(&mocks.multiplexer);
    ::testing::Mock::AllowLeak(&mocks.udpSocket);
    ::testing::Mock::AllowLeak(&dispatcher);
    ON_CALL(mocks.controller, getUdpSocket()).WillByDefault(ReturnRef(socket));
    ON_CALL(mocks.controller, getItcDispatcher()).WillByDefault(Return(&dispatcher));
    ON_CALL(dispatcher, init(::testing::_)).WillByDefault([](const std::string& name) {
        std::fprintf(stderr, "mailbox init %s\n", name.c_str());
        return true;
    });
    int rounds = 0;
    ON_CALL(mocks.multiplexer, handleEvents()).WillByDefault([&rounds]() {
        std::fprintf(stderr, "loop round %d\n", ++rounds);
        return rounds < 2;
    });
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        argv.push_back(&argument[0]);
    }
    argv.push_back(nullptr);
    runTwampTestSession(static_cast<int>(arguments.size()), argv.data());
}

// Socket, then mailbox with the service name, then the loop until it fails;
// then the process exits with status 0.
TEST(StartupDeathTest, SetsUpInOrderAndExitsZeroWhenTheLoopEnds) {
    ASSERT_TRUE(twamp_test::ensureDefaultNamespaceHandle());
    EXPECT_EXIT(runWithMocks({"twampTestSession", "svc", "10.0.0.1", "862", "default", "0x1"}),
                ::testing::ExitedWithCode(0),
                "^argc= 6\n"
                ".*Namespace: ns_name=\\[default\\]\n"
                "socket init 10.0.0.1 862 1\n"
                "mailbox init svc\n"
                "loop round 1\n"
                "loop round 2\n$");
}

// An isIpsecTunnel other than 1 reaches the socket as false.
TEST(StartupDeathTest, IpsecFlagOtherThanOneIsFalse) {
    ASSERT_TRUE(twamp_test::ensureDefaultNamespaceHandle());
    EXPECT_EXIT(runWithMocks({"twampTestSession", "svc", "10.0.0.1", "862", "ns1", "yes"}),
                ::testing::ExitedWithCode(0), "socket init 10.0.0.1 862 0\n");
}

}  // namespace
