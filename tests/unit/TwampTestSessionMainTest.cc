#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "DefaultNamespaceHandle.h"
#include "ResourceLimitSystemCalls.h"
#include "TraceRecorder.h"
#include "TwampTestSessionMain.h"

namespace {

using twamp_test::TraceRecorder;

class TwampTestSessionMainTest : public ::testing::Test {
  protected:
    void SetUp() override { TraceRecorder::reset(); }

    // Runs the daemon's entry with the given arguments in a death test child.
    static void run(std::vector<std::string> arguments) {
        std::vector<char*> argv;
        for (std::string& argument : arguments) {
            argv.push_back(&argument[0]);
        }
        argv.push_back(nullptr);
        TraceRecorder::setEchoToStderr(true);
        runTwampTestSession(static_cast<int>(arguments.size()), argv.data());
    }
};

using TwampTestSessionMainDeathTest = TwampTestSessionMainTest;

// Three arguments: the argc line, every argv trace, the usage trace, exit status 1.
TEST_F(TwampTestSessionMainDeathTest, TooFewArgumentsExitWithUsage) {
    EXPECT_EXIT(run({"twampTestSession", "svc", "10.0.0.1"}), ::testing::ExitedWithCode(1),
                "^argc= 3\n"
                "trace com_quorin_tn_twamp:LAB \\[TwampTestSessionMain.cc:[0-9]+\\] \\[TWAMP\\] "
                "main\\(\\): argv\\[0\\] = twampTestSession\n"
                ".*argv\\[1\\] = svc\n"
                ".*argv\\[2\\] = 10.0.0.1\n"
                "trace com_quorin_tn_twamp:INFO .* main\\(\\): Usage: "
                "twampTestSession <service-name> <src-ip-addr> <src-udp-port> <name_space> "
                "<isIpsecTunnel>\n$");
}

// Only the program name: argc 1 exits with status 1 after its one argv trace.
TEST_F(TwampTestSessionMainDeathTest, NoArgumentsExitWithUsage) {
    EXPECT_EXIT(run({"twampTestSession"}), ::testing::ExitedWithCode(1),
                "^argc= 1\n.*argv\\[0\\] = twampTestSession\n.*Usage: twampTestSession ");
}

// Six arguments behind the program name (argc 7) are refused as well, after all argv traces.
TEST_F(TwampTestSessionMainDeathTest, TooManyArgumentsExitWithUsage) {
    EXPECT_EXIT(run({"twampTestSession", "svc", "10.0.0.1", "862", "default", "0", "extra"}),
                ::testing::ExitedWithCode(1), "^argc= 7\n.*argv\\[6\\] = extra\n.*Usage: ");
}

// isIpsecTunnel is true exactly when strtoul in base 0 gives 1.
TEST_F(TwampTestSessionMainTest, IsIpsecTunnelParsing) {
    EXPECT_TRUE(parseIsIpsecTunnel("1"));
    EXPECT_TRUE(parseIsIpsecTunnel("0x1"));
    EXPECT_TRUE(parseIsIpsecTunnel("01"));
    EXPECT_TRUE(parseIsIpsecTunnel("1abc"));
    EXPECT_FALSE(parseIsIpsecTunnel("2"));
    EXPECT_FALSE(parseIsIpsecTunnel("yes"));
    EXPECT_FALSE(parseIsIpsecTunnel(""));
    EXPECT_FALSE(parseIsIpsecTunnel("true"));
    EXPECT_FALSE(parseIsIpsecTunnel("0"));
}

// Whether two descriptors or paths name the same file.
bool sameFile(int fd, const std::string& path) {
    struct stat byFd {};
    struct stat byPath {};
    return fstat(fd, &byFd) == 0 && stat(path.c_str(), &byPath) == 0 &&
           byFd.st_dev == byPath.st_dev && byFd.st_ino == byPath.st_ino;
}

class NamespaceFileTest : public TwampTestSessionMainTest {
  protected:
    void SetUp() override {
        TwampTestSessionMainTest::SetUp();
        // getNsFd asks for a restart and waits forever when it cannot open
        // the handle: check first, so that a broken host fails the test.
        ASSERT_TRUE(twamp_test::ensureDefaultNamespaceHandle())
            << twamp_test::kDefaultNamespaceHandle << " cannot be opened on this host";
        mkdir("/var/run/netns", 0755);
    }

    // A stand-in file under /var/run/netns; getNsFd only opens it.
    std::string makeNetnsFile(const std::string& name) {
        const std::string path = "/var/run/netns/" + name;
        FILE* file = std::fopen(path.c_str(), "w");
        EXPECT_NE(nullptr, file);
        if (file != nullptr) {
            std::fclose(file);
        }
        created.push_back(path);
        return path;
    }
    void TearDown() override {
        for (const std::string& path : created) {
            unlink(path.c_str());
        }
    }

    std::vector<std::string> created;
};

// A name without "fib", the word default included, opens /tmp/proc_1_ns_net.
TEST_F(NamespaceFileTest, NamesWithoutFibOpenTheInitialNamespace) {
    for (const char* name : {"default", "ns1"}) {
        TraceRecorder::reset();
        const int fd = getNsFd(name);
        ASSERT_GE(fd, 0) << name;
        EXPECT_TRUE(sameFile(fd, "/tmp/proc_1_ns_net")) << name;
        EXPECT_EQ((std::vector<std::string>{"getNsFd(): Namespace: ns_name=[default]"}),
                  TraceRecorder::twampMessages("LAB"));
        close(fd);
    }
}

// A name holding "fib" anywhere opens /var/run/netns/<name>.
TEST_F(NamespaceFileTest, NamesWithFibOpenUnderVarRunNetns) {
    const std::string suffix = std::to_string(getpid());
    for (const std::string& name : {"fib_7_" + suffix, "myfib" + suffix}) {
        TraceRecorder::reset();
        const std::string path = makeNetnsFile(name);
        const int fd = getNsFd(name.c_str());
        ASSERT_GE(fd, 0) << name;
        EXPECT_TRUE(sameFile(fd, path)) << name;
        EXPECT_EQ((std::vector<std::string>{"getNsFd(): Namespace: ns_name=[" + name + "]"}),
                  TraceRecorder::twampMessages("LAB"));
        close(fd);
    }
}

// A failing close is traced with the errno text and number, and the caller carries on.
TEST_F(TwampTestSessionMainTest, CloseFailureIsTraced) {
    closeNs(-1);
    EXPECT_EQ((std::vector<std::string>{
                  "closeNs(): Can't close namespace: errno=\"Bad file descriptor(9)\""}),
              TraceRecorder::twampMessages("ERROR"));
}

// Descriptor limits as the test sets them; records what start-up asks to set.
class FakeResourceLimits : public ResourceLimitSystemCalls {
  public:
    // ResourceLimitSystemCalls
    int getOpenFileLimit(struct rlimit* limit) override {
        if (getErrno != 0) {
            errno = getErrno;
            return -1;
        }
        *limit = current;
        return 0;
    }
    int setOpenFileLimit(const struct rlimit* limit) override {
        setLimits.push_back(*limit);
        if (setErrno != 0) {
            errno = setErrno;
            return -1;
        }
        current = *limit;
        return 0;
    }

    struct rlimit current = {1024, 524288};
    int getErrno = 0;
    int setErrno = 0;
    std::vector<struct rlimit> setLimits;
};

// The soft descriptor limit is raised to the hard limit, traced at INFO.
TEST_F(TwampTestSessionMainTest, OpenFileLimitRaisedToHardLimit) {
    FakeResourceLimits limits;
    EXPECT_TRUE(raiseOpenFileLimit(limits));
    ASSERT_EQ(1u, limits.setLimits.size());
    EXPECT_EQ(524288u, limits.setLimits[0].rlim_cur);
    EXPECT_EQ(524288u, limits.setLimits[0].rlim_max);
    EXPECT_EQ((std::vector<std::string>{
                  "raiseOpenFileLimit(): Open descriptor limit raised from 1024 to 524288"}),
              TraceRecorder::twampMessages("INFO"));
}

// A soft limit already at the hard limit is left alone and named at INFO.
TEST_F(TwampTestSessionMainTest, OpenFileLimitAlreadyAtHardLimit) {
    FakeResourceLimits limits;
    limits.current = {20000, 20000};
    EXPECT_TRUE(raiseOpenFileLimit(limits));
    EXPECT_TRUE(limits.setLimits.empty());
    EXPECT_EQ((std::vector<std::string>{
                  "raiseOpenFileLimit(): Open descriptor limit 20000 is the hard limit"}),
              TraceRecorder::twampMessages("INFO"));
}

// A failing getrlimit is traced with the errno text and nothing is set.
TEST_F(TwampTestSessionMainTest, OpenFileLimitReadFailureIsTraced) {
    FakeResourceLimits limits;
    limits.getErrno = EFAULT;
    EXPECT_FALSE(raiseOpenFileLimit(limits));
    EXPECT_TRUE(limits.setLimits.empty());
    EXPECT_EQ((std::vector<std::string>{
                  "raiseOpenFileLimit(): Failed getrlimit RLIMIT_NOFILE: errno 14 - Bad address"}),
              TraceRecorder::twampMessages("ERROR"));
}

// A failing setrlimit is traced with both limits and the errno text.
TEST_F(TwampTestSessionMainTest, OpenFileLimitRaiseFailureIsTraced) {
    FakeResourceLimits limits;
    limits.setErrno = EPERM;
    EXPECT_FALSE(raiseOpenFileLimit(limits));
    EXPECT_EQ((std::vector<std::string>{"raiseOpenFileLimit(): Failed setrlimit RLIMIT_NOFILE from "
                                        "1024 to 524288: errno 1 - Operation not permitted"}),
              TraceRecorder::twampMessages("ERROR"));
    EXPECT_TRUE(TraceRecorder::twampMessages("INFO").empty());
}

}  // namespace
