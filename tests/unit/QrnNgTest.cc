#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "qrn_ng.h"
#include "TextFiles.h"

namespace {

using twamp_test::readLines;

class QrnNgTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/qrn_ng_test.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        directory = pattern;
        logPath = directory + "/restart.log";
        setenv("QRN_NG_RESTART_LOG", logPath.c_str(), 1);
        unsetenv("QRN_NG_EXIT_STATUS");
    }
    void TearDown() override {
        unsetenv("QRN_NG_RESTART_LOG");
        std::system(("rm -rf " + directory).c_str());
    }

    std::string directory;
    std::string logPath;
};

// A request is one line with time, pid, level, line, file, data and the quoted message.
TEST_F(QrnNgTest, RecordsOneLinePerRequest) {
    ASSERT_EQ(0, qrn_ng_restart_request_line_and_file(123, "/src/Main.cc", 1, "tn_log_init failed ",
                                                      0, 0));
    const auto lines = readLines(logPath);
    ASSERT_EQ(1u, lines.size());
    const std::regex expected(
        "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6}Z pid=" +
        std::to_string(getpid()) +
        " level=1 line=123 file=/src/Main.cc data=0,0 message=\"tn_log_init failed \"");
    EXPECT_TRUE(std::regex_match(lines[0], expected)) << lines[0];
}

// Requests are appended, in order.
TEST_F(QrnNgTest, AppendsRequests) {
    qrn_ng_restart_request_line_and_file(1, "a.cc", 1, "first", 0, 0);
    qrn_ng_restart_request_line_and_file(2, "b.cc", 2, "second", 7, 8);
    const auto lines = readLines(logPath);
    ASSERT_EQ(2u, lines.size());
    EXPECT_NE(std::string::npos,
              lines[0].find("level=1 line=1 file=a.cc data=0,0 message=\"first\""));
    EXPECT_NE(std::string::npos,
              lines[1].find("level=2 line=2 file=b.cc data=7,8 message=\"second\""));
}

// Quotes, backslashes and control characters are escaped so a request stays one line.
TEST_F(QrnNgTest, EscapesMessage) {
    qrn_ng_restart_request_line_and_file(5, "x.cc", 1, "a\"b\\c\nd\te\x01", 0, 0);
    const auto lines = readLines(logPath);
    ASSERT_EQ(1u, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find("message=\"a\\\"b\\\\c\\nd\\te\\x01\""));
}

// A missing message and file are recorded as such rather than crashing.
TEST_F(QrnNgTest, NullArgumentsAreRecorded) {
    ASSERT_EQ(0, qrn_ng_restart_request_line_and_file(9, nullptr, 1, nullptr, 0, 0));
    const auto lines = readLines(logPath);
    ASSERT_EQ(1u, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find("line=9 file=(null) data=0,0 message=\"\""));
}

// The log file's directory is created when it is missing.
TEST_F(QrnNgTest, CreatesMissingDirectory) {
    const std::string nested = directory + "/qrn_ng/restart.log";
    setenv("QRN_NG_RESTART_LOG", nested.c_str(), 1);
    ASSERT_EQ(0, qrn_ng_restart_request_line_and_file(1, "f.cc", 1, "m", 0, 0));
    EXPECT_EQ(1u, readLines(nested).size());
}

// A log that cannot be written gives -1 with errno.
TEST_F(QrnNgTest, UnwritableLogFails) {
    setenv("QRN_NG_RESTART_LOG", directory.c_str(), 1);  // a directory, not a file
    errno = 0;
    EXPECT_EQ(-1, qrn_ng_restart_request_line_and_file(1, "f.cc", 1, "m", 0, 0));
    EXPECT_EQ(EISDIR, errno);
}

// With QRN_NG_EXIT_STATUS the process ends with that status after the record is written.
TEST_F(QrnNgTest, ExitsWhenAsked) {
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        setenv("QRN_NG_EXIT_STATUS", "3", 1);
        qrn_ng_restart_request_line_and_file(77, "g.cc", 1, "bye", 0, 0);
        _exit(99);  // not reached when the stand-in ends the process
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(3, WEXITSTATUS(status));
    const auto lines = readLines(logPath);
    ASSERT_EQ(1u, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find("line=77 file=g.cc"));
}

// An exit status that is not a number 0..255 is ignored and the call returns.
TEST_F(QrnNgTest, IgnoresInvalidExitStatus) {
    setenv("QRN_NG_EXIT_STATUS", "restart", 1);
    EXPECT_EQ(0, qrn_ng_restart_request_line_and_file(1, "f.cc", 1, "m", 0, 0));
    setenv("QRN_NG_EXIT_STATUS", "256", 1);
    EXPECT_EQ(0, qrn_ng_restart_request_line_and_file(1, "f.cc", 1, "m", 0, 0));
    unsetenv("QRN_NG_EXIT_STATUS");
    EXPECT_EQ(2u, readLines(logPath).size());
}

}  // namespace
