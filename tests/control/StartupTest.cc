// The daemon's start-up against adopted mocks: the order in which the shared
// objects are set up, the arguments they get, and the end of the process
// when the event loop fails.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "AdoptedMockController.h"
#include "DefaultNamespaceHandle.h"
#include "FakeSaLog.h"
#include "MockItcDispatcher.h"
#include "TextFiles.h"
#include "TraceRecorder.h"
#include "TwampTestSessionMain.h"
#include "UdpSocket.h"

namespace {

using ::testing::NiceMock;
using ::testing::Return;
using ::testing::ReturnRef;
using twamp_test::readFile;
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

// What the mailbox's init does: succeed, or fail with errno EEXIST as for a
// service name a live daemon already holds.
enum class MailboxInit { Opens, NameTaken };

// Runs the entry with mocks in place; handleEvents succeeds once, then fails.
void runWithMocks(std::vector<std::string> arguments,
                  MailboxInit mailboxInit = MailboxInit::Opens) {
    TraceRecorder::reset();
    TraceRecorder::setEchoToStderr(true);
    twamp_test::FakeSaLog::reset();
    twamp_test::AdoptedMockController mocks;
    ReportingUdpSocket socket;
    NiceMock<twamp_test::MockItcDispatcher> dispatcher;
    // The process ends with exit() inside the entry: the mocks are never destroyed.
    ::testing::Mock::AllowLeak(&mocks.controller);
    ::testing::Mock::AllowLeak(&mocks.multiplexer);
    ::testing::Mock::AllowLeak(&mocks.udpSocket);
    ::testing::Mock::AllowLeak(&dispatcher);
    ON_CALL(mocks.controller, getUdpSocket()).WillByDefault(ReturnRef(socket));
    ON_CALL(mocks.controller, getItcDispatcher()).WillByDefault(Return(&dispatcher));
    ON_CALL(dispatcher, init(::testing::_)).WillByDefault([mailboxInit](const std::string& name) {
        std::fprintf(stderr, "mailbox init %s\n", name.c_str());
        if (mailboxInit == MailboxInit::NameTaken) {
            errno = EEXIST;
            return false;
        }
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

// Exits through the restart request (the stand-in ends the process with the
// status in QRN_NG_EXIT_STATUS) after the mailbox's init failed.
void runWithTakenMailboxName(const std::string& restartLog) {
    setenv("QRN_NG_RESTART_LOG", restartLog.c_str(), 1);
    setenv("QRN_NG_EXIT_STATUS", "3", 1);
    runWithMocks({"twampTestSession", "svc", "10.0.0.1", "862", "default", "0"},
                 MailboxInit::NameTaken);
}

// A mailbox that cannot be opened is fatal: ERROR trace from main with the
// service name and the reason, the restart request, and the loop never runs.
TEST(StartupDeathTest, MailboxThatCannotBeOpenedIsFatal) {
    ASSERT_TRUE(twamp_test::ensureDefaultNamespaceHandle());
    const std::string restartLog =
        ::testing::TempDir() + "startup_mailbox_restart_" + std::to_string(getpid()) + ".log";
    std::remove(restartLog.c_str());
    EXPECT_EXIT(runWithTakenMailboxName(restartLog), ::testing::ExitedWithCode(3),
                "mailbox init svc\n"
                "trace com_quorin_tn_twamp:ERROR \\[TwampTestSessionMain.cc:[0-9]+\\] "
                "\\[TWAMP\\] main\\(\\): Unable to open mailbox 'svc': File exists.\n$");
    EXPECT_NE(std::string::npos,
              readFile(restartLog).find("message=\"Unable to open mailbox 'svc': File exists.\""));
    std::remove(restartLog.c_str());
}

}  // namespace
