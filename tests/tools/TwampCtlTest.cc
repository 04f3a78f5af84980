#include <gtest/gtest.h>

#include <algorithm>

#include <string>
#include <vector>

#include "CountersFormatter.h"
#include "CtlOptions.h"

namespace {

using Args = std::vector<std::string>;

class CtlOptionsTest : public ::testing::Test {
  protected:
    bool parse(const Args& arguments) {
        error.clear();
        return parseCtlOptions(arguments, "twamp", options, error);
    }
    CtlOptions options;
    std::string error;
};

// A full create command fills every field; absent options keep the documented defaults.
TEST_F(CtlOptionsTest, CreateWithDefaults) {
    ASSERT_TRUE(parse({"create", "--id", "s1", "--dst", "198.18.0.2", "--port", "862"})) << error;
    EXPECT_EQ(CtlCommand::Create, options.command);
    EXPECT_EQ("twamp", options.service);
    EXPECT_EQ("198.18.0.2", options.dstIpAddress);
    EXPECT_EQ(862, options.dstUdpPort);
    EXPECT_EQ(1u, options.packetsPerSecond);
    EXPECT_EQ(0u, options.dscp);
    EXPECT_EQ(64, options.packetSize);
    EXPECT_EQ(0u, options.startOffset);
    EXPECT_EQ(0u, options.spreadingBase);
    EXPECT_EQ(5.0, options.timeoutSeconds);
}

// Every create option lands in its field.
TEST_F(CtlOptionsTest, CreateWithEveryOption) {
    ASSERT_TRUE(parse({"--service",
                       "svc",
                       "--timeout",
                       "2.5",
                       "create",
                       "--id",
                       "s1",
                       "--dst",
                       "2001:db8:18::2",
                       "--port",
                       "0",
                       "--rate",
                       "10",
                       "--dscp",
                       "46",
                       "--size",
                       "-1",
                       "--offset",
                       "7",
                       "--spreading-base",
                       "5000",
                       "--spare1",
                       "3",
                       "--spare2",
                       "4"}))
        << error;
    EXPECT_EQ("svc", options.service);
    EXPECT_EQ(2.5, options.timeoutSeconds);
    EXPECT_EQ(0, options.dstUdpPort);
    EXPECT_EQ(10u, options.packetsPerSecond);
    EXPECT_EQ(46u, options.dscp);
    EXPECT_EQ(-1, options.packetSize);
    EXPECT_EQ(7u, options.startOffset);
    EXPECT_EQ(5000u, options.spreadingBase);
    EXPECT_EQ(3u, options.spare1);
    EXPECT_EQ(4u, options.spare2);
}

// Thirty-two hex digits are the id's bytes; a shorter text is a label padded with zeros.
TEST_F(CtlOptionsTest, SessionIdForms) {
    ASSERT_TRUE(parse({"delete", "--id", "00112233445566778899AABBCCDDEEFF"})) << error;
    EXPECT_EQ("00112233445566778899aabbccddeeff", sessionIdHex(options.sessionId));
    ASSERT_TRUE(parse({"delete", "--id", "ab"})) << error;
    EXPECT_EQ("61620000000000000000000000000000", sessionIdHex(options.sessionId));
    ASSERT_TRUE(parse({"delete", "--id", "sixteen-bytes-id"})) << error;
    EXPECT_EQ("7369787465656e2d62797465732d6964", sessionIdHex(options.sessionId));
}

// An id that is neither 32 hex digits nor a label of at most 16 bytes is refused.
TEST_F(CtlOptionsTest, BadSessionIds) {
    EXPECT_FALSE(parse({"delete", "--id", "seventeen-bytes-x"}));
    EXPECT_EQ("--id: 'seventeen-bytes-x' is neither 32 hex digits nor a label of 1 to 16 bytes",
              error);
    EXPECT_FALSE(parse({"delete", "--id", ""}));
    EXPECT_FALSE(parse({"delete"}));
    EXPECT_EQ("--id is required", error);
}

// Counters options: completed, wait (which lengthens the default time-out), json, csv.
TEST_F(CtlOptionsTest, CountersOptions) {
    ASSERT_TRUE(parse({"counters", "--id", "s1"})) << error;
    EXPECT_FALSE(options.completedIntervalOnly);
    EXPECT_EQ(CtlOutput::Table, options.output);
    ASSERT_TRUE(parse({"counters", "--id", "s1", "--completed", "--wait", "--json"})) << error;
    EXPECT_TRUE(options.completedIntervalOnly);
    EXPECT_TRUE(options.wait);
    EXPECT_EQ(960.0, options.timeoutSeconds);
    EXPECT_EQ(CtlOutput::Json, options.output);
    ASSERT_TRUE(parse({"--timeout", "30", "counters", "--id", "s1", "--wait", "--csv"})) << error;
    EXPECT_EQ(30.0, options.timeoutSeconds);
    EXPECT_EQ(CtlOutput::Csv, options.output);
}

// Malformed arguments give a clear message.
TEST_F(CtlOptionsTest, MalformedArguments) {
    EXPECT_FALSE(parse({}));
    EXPECT_EQ("a command is needed: create, delete or counters", error);
    EXPECT_FALSE(parse({"start"}));
    EXPECT_EQ("unknown command: start", error);
    EXPECT_FALSE(parse({"create", "--id", "s1", "--dst", "198.18.0.2"}));
    EXPECT_EQ("create needs --dst and --port", error);
    EXPECT_FALSE(parse({"create", "--id", "s1", "--dst", "a", "--port", "70000"}));
    EXPECT_EQ("--port: 70000 is out of range 0..65535", error);
    EXPECT_FALSE(parse({"create", "--id", "s1", "--dst", "a", "--port", "86x"}));
    EXPECT_EQ("--port: '86x' is not a whole number", error);
    EXPECT_FALSE(parse({"create", "--id", "s1", "--dst", "a", "--port", "1", "--dscp", "64"}));
    EXPECT_EQ("--dscp: 64 is out of range 0..63", error);
    EXPECT_FALSE(parse({"--timeout", "0", "counters", "--id", "s1"}));
    EXPECT_EQ("--timeout: '0' is not a number of seconds in (0, 86400]", error);
    EXPECT_FALSE(parse({"counters", "--id", "s1", "--rate", "3"}));
    EXPECT_EQ("unknown option: --rate", error);
    EXPECT_FALSE(parse({"delete", "--id"}));
    EXPECT_EQ("--id needs a value", error);
    EXPECT_FALSE(parse({"create", "--id", "s1", "--dst", std::string(46, '1'), "--port", "1"}));
    EXPECT_EQ("--dst: an address of 1 to 45 characters is needed", error);
}

// --help anywhere before the command asks for the usage text.
TEST_F(CtlOptionsTest, Help) {
    ASSERT_TRUE(parse({"--help"}));
    EXPECT_EQ(CtlCommand::Help, options.command);
    EXPECT_NE(std::string::npos, ctlUsage().find("counters --id ID [--completed] [--wait]"));
}

// A grid with every value -2 except a few known ones.
struct Grid {
    Grid() {
        for (auto& row : values) {
            for (auto& value : row) {
                value = -2;
            }
        }
        values[37][0] = 60;   // sentPkts
        values[32][0] = 59;   // receivedPkts
        values[0][0] = 2150;  // delayRtAvg
    }
    CounterGrid values;
};

// JSON holds all 38 counters in record order with the raw values.
TEST(CountersFormatterTest, JsonHoldsRawValues) {
    Grid grid;
    const std::string json =
        formatCountersJson(grid.values, "00112233445566778899aabbccddeeff", false);
    EXPECT_EQ(0u, json.find("{\"sessionId\": \"00112233445566778899aabbccddeeff\", "
                            "\"completedIntervalOnly\": false, \"counters\": {\"delayRtAvg\": "
                            "[2150, -2, -2, -2, -2, -2, -2, -2, -2, -2, -2, -2, -2, -2, -2], "
                            "\"delayRtMax\": [-2, "));
    EXPECT_NE(std::string::npos, json.find("\"sentPkts\": [60, -2, -2, -2, -2, -2, -2, -2, -2, "
                                           "-2, -2, -2, -2, -2, -2]}}\n"));
    EXPECT_LT(json.find("\"receivedPkts\""), json.find("\"ttlFwdMax\""));
}

// The table shows units, the minutes' clock times and n/a for -2.
TEST(CountersFormatterTest, TableShowsUnitsTimesAndNa) {
    Grid grid;
    const time_t start = 1800000000 - 1800000000 % 900;  // 2027-01-15T08:00:00Z
    const std::string table = formatCountersTable(grid.values, start);
    EXPECT_NE(std::string::npos, table.find("   08:00    08:01"));
    EXPECT_NE(std::string::npos, table.find("08:14\n"));
    EXPECT_NE(std::string::npos, table.find("sentPkts (packets)                     60      n/a"));
    EXPECT_NE(std::string::npos, table.find("delayRtAvg (microseconds)            2150      n/a"));
    EXPECT_EQ(39, std::count(table.begin(), table.end(), '\n'));
}

// CSV: a header of clock times and one line per counter with raw values.
TEST(CountersFormatterTest, CsvOneLinePerCounter) {
    Grid grid;
    const std::string csv = formatCountersCsv(grid.values, 0);
    EXPECT_EQ(0u, csv.find("counter,unit,00:00,00:01,"));
    EXPECT_NE(std::string::npos,
              csv.find("\nsentPkts,packets,60,-2,-2,-2,-2,-2,-2,-2,-2,-2,-2,-2,-2,-2,-2\n"));
    EXPECT_EQ(39, std::count(csv.begin(), csv.end(), '\n'));
}

// The reported interval: in progress, its predecessor in its first minute, or the completed one.
TEST(CountersFormatterTest, ReportedIntervalStart) {
    const time_t intervalStart = 1800000000 - 1800000000 % 900;
    EXPECT_EQ(intervalStart, reportedIntervalStart(intervalStart + 7 * 60 + 5, false));
    EXPECT_EQ(intervalStart - 900, reportedIntervalStart(intervalStart + 30, false));
    EXPECT_EQ(intervalStart - 900, reportedIntervalStart(intervalStart + 7 * 60, true));
}

}  // namespace
