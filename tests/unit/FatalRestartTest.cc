#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <string>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

#include "TraceFacade.h"
#include "TextFiles.h"

namespace {

using twamp_test::readFile;

// Waits up to ten seconds for the restart log to hold a complete line.
std::string waitForRecord(const std::string& path) {
    for (int attempt = 0; attempt < 1000; ++attempt) {
        std::string content = readFile(path);
        if (!content.empty() && content.back() == '\n') {
            return content;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return "";
}

// Notes the line of the request in both processes; only the child requests the restart.
#define REQUEST_RESTART_IN_CHILD(child, logPath, lineOut, ...)  \
    do {                                                        \
        (lineOut) = __LINE__;                                   \
        if ((child) == 0) {                                     \
            setenv("QRN_NG_RESTART_LOG", (logPath).c_str(), 1); \
            unsetenv("QRN_NG_EXIT_STATUS");                     \
            FATAL_RESTART(__VA_ARGS__);                         \
        }                                                       \
    } while (0)

class FatalRestartTest : public ::testing::Test {
  protected:
    void SetUp() override {
        logPath = "/tmp/fatal_restart_test." + std::to_string(getpid()) + ".log";
        unlink(logPath.c_str());
    }
    void TearDown() override { unlink(logPath.c_str()); }

    std::string logPath;
};

// fatal_restart hands line, full path, level 1 and the message cut to 127
// characters to the restart stand-in, then spins until it is killed.
TEST_F(FatalRestartTest, RecordsRequestAndKeepsSpinning) {
    const std::string longMessage(200, 'm');
    int requestLine = 0;
    pid_t child = fork();
    ASSERT_GE(child, 0);
    REQUEST_RESTART_IN_CHILD(child, logPath, requestLine, "Unable to open '%s': %s.",
                             longMessage.c_str(), "No such file");

    const std::string record = waitForRecord(logPath);
    ASSERT_FALSE(record.empty()) << "no restart request was recorded";

    const std::string expectedMessage = ("Unable to open '" + longMessage).substr(0, 127);
    const std::string expectedTail = " level=1 line=" + std::to_string(requestLine) +
                                     " file=" + __FILE__ + " data=0,0 message=\"" +
                                     expectedMessage + "\"\n";
    ASSERT_GE(record.size(), expectedTail.size());
    EXPECT_EQ(expectedTail, record.substr(record.size() - expectedTail.size()));
    EXPECT_NE(std::string::npos, record.find(" pid=" + std::to_string(child) + " "));

    // The child keeps spinning: it has neither exited nor aborted.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    int status = 0;
    EXPECT_EQ(0, waitpid(child, &status, WNOHANG));

    ASSERT_EQ(0, kill(child, SIGKILL));
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(SIGKILL, WTERMSIG(status));
}

}  // namespace
