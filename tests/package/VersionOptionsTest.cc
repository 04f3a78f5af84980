#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CtlOptions.h"
#include "ReflectorOptions.h"
#include "TwampTestSessionMain.h"

namespace {

using Args = std::vector<std::string>;

// Each program's command line as its main sees it, parsed for --version.
class VersionOptionsTest : public ::testing::Test {
  protected:
    bool parseCtl(const Args& arguments) {
        error.clear();
        return parseCtlOptions(arguments, "twamp", ctl, error);
    }
    bool parseReflector(const Args& arguments) {
        error.clear();
        return parseReflectorOptions(arguments, reflector, error);
    }
    static bool daemonAsksVersion(Args arguments) {
        std::vector<char*> argv;
        for (std::string& argument : arguments) {
            argv.push_back(&argument[0]);
        }
        argv.push_back(nullptr);
        return isVersionRequest(static_cast<int>(arguments.size()), argv.data());
    }
    CtlOptions ctl;
    ReflectorOptions reflector;
    std::string error;
};

// twamp-ctl --version asks for the version and needs no command.
TEST_F(VersionOptionsTest, CtlVersionAlone) {
    ASSERT_TRUE(parseCtl({"--version"})) << error;
    EXPECT_TRUE(ctl.version);
}

// twamp-ctl --version after --service still asks for the version.
TEST_F(VersionOptionsTest, CtlVersionAfterService) {
    ASSERT_TRUE(parseCtl({"--service", "core", "--version"})) << error;
    EXPECT_TRUE(ctl.version);
}

// A twamp-ctl command line without --version does not ask for it.
TEST_F(VersionOptionsTest, CtlCommandIsNoVersion) {
    ASSERT_TRUE(parseCtl({"delete", "--id", "s1"})) << error;
    EXPECT_FALSE(ctl.version);
}

// twamp-ctl's usage text lists --version.
TEST_F(VersionOptionsTest, CtlUsageListsVersion) {
    EXPECT_NE(std::string::npos,
              ctlUsage().find("  --version   print the program's name and version\n"));
}

// twamp-reflector --version asks for the version.
TEST_F(VersionOptionsTest, ReflectorVersion) {
    ASSERT_TRUE(parseReflector({"--version"})) << error;
    EXPECT_TRUE(reflector.version);
}

// twamp-reflector without --version does not ask for it.
TEST_F(VersionOptionsTest, ReflectorWithoutVersion) {
    ASSERT_TRUE(parseReflector({"--quiet"})) << error;
    EXPECT_FALSE(reflector.version);
}

// twamp-reflector's usage text lists --version.
TEST_F(VersionOptionsTest, ReflectorUsageListsVersion) {
    EXPECT_NE(
        std::string::npos,
        reflectorUsage().find("  --version            print the program's name and version\n"));
}

// The daemon with the one argument --version asks for the version.
TEST_F(VersionOptionsTest, DaemonVersionAlone) {
    EXPECT_TRUE(daemonAsksVersion({"twampTestSession", "--version"}));
}

// A daemon command line of five arguments is never a version request, even
// with the service named --version.
TEST_F(VersionOptionsTest, DaemonServiceNamedVersionRuns) {
    EXPECT_FALSE(
        daemonAsksVersion({"twampTestSession", "--version", "127.0.0.1", "4000", "default", "0"}));
}

// The daemon without arguments is not a version request: it gets the usage trace.
TEST_F(VersionOptionsTest, DaemonWithoutArgumentsIsNoVersion) {
    EXPECT_FALSE(daemonAsksVersion({"twampTestSession"}));
}

}  // namespace
