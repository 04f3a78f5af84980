// The operator log module against the real log service stand-in: records
// land in the stream files with severity, user name and text.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include <unistd.h>

#include "tn_log_internal.h"
#include "TextFiles.h"

namespace {

using twamp_test::readLines;

class TnLogIntegrationTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/tn_log_integration.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        logDir = pattern;
        setenv("SA_LOG_DIR", logDir.c_str(), 1);
    }
    void TearDown() override {
        tn_log_uninit();
        unsetenv("SA_LOG_DIR");
        std::system(("rm -rf " + logDir).c_str());
    }

    // An operator configures a stream by creating its file.
    void configureStream(const std::string& stream) { std::ofstream(streamFile(stream)).close(); }
    std::string streamFile(const std::string& stream) const {
        return logDir + "/" + stream + ".log";
    }

    std::string logDir;
};

const char* const kRecordTime = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6}Z";

// Records land in both stream files with time, severity, user name "TWAMP" and text.
TEST_F(TnLogIntegrationTest, RecordsLandInStreamFiles) {
    configureStream("TnApplicationLog");
    configureStream("TnNetworkLog");
    ASSERT_TRUE(tn_log_init());

    const std::string message = std::string(300, 'a') + std::string(50, 'b');
    tn_log_internal_log(SA_LOG_SEV_INFO, kTnApplicationLogMask | kTnNetworkLogMask, "TWAMP",
                        message.c_str());
    tn_log_internal_log(SA_LOG_SEV_INFO, kTnNetworkLogMask, "TWAMP",
                        "for dstIpAddress 198.18.0.2, dstUdpPort 862.");

    const auto application = readLines(streamFile("TnApplicationLog"));
    const auto network = readLines(streamFile("TnNetworkLog"));
    ASSERT_EQ(2u, application.size());
    ASSERT_EQ(3u, network.size());
    const std::regex first(std::string(kRecordTime) + " INFO TWAMP " + std::string(300, 'a'));
    const std::regex second(std::string(kRecordTime) + " INFO TWAMP " + std::string(50, 'b'));
    const std::regex third(std::string(kRecordTime) +
                           " INFO TWAMP for dstIpAddress 198\\.18\\.0\\.2, dstUdpPort 862\\.");
    EXPECT_TRUE(std::regex_match(application[0], first)) << application[0];
    EXPECT_TRUE(std::regex_match(application[1], second)) << application[1];
    EXPECT_TRUE(std::regex_match(network[0], first)) << network[0];
    EXPECT_TRUE(std::regex_match(network[1], second)) << network[1];
    EXPECT_TRUE(std::regex_match(network[2], third)) << network[2];
    EXPECT_TRUE(tn_log_uninit());
}

// A stream whose file is missing is not configured: tn_log_init fails and writes nothing.
TEST_F(TnLogIntegrationTest, UnconfiguredStreamMakesInitFail) {
    configureStream("TnApplicationLog");
    EXPECT_FALSE(tn_log_init());
    tn_log_internal_log(SA_LOG_SEV_INFO, kTnApplicationLogMask, "TWAMP", "not written");
    EXPECT_TRUE(readLines(streamFile("TnApplicationLog")).empty());
    EXPECT_TRUE(tn_log_uninit());
}

// After a failed init the operator can configure the stream and init succeeds.
TEST_F(TnLogIntegrationTest, InitSucceedsOnceConfigured) {
    ASSERT_FALSE(tn_log_init());
    configureStream("TnApplicationLog");
    configureStream("TnNetworkLog");
    EXPECT_TRUE(tn_log_init());
}

}  // namespace
