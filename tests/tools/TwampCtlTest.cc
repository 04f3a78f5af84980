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
                       "65535",
                       "--rate",
                       "10",
                       "--dscp",
                       "46",
                       "--size",
                       "1500",
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
    EXPECT_EQ("2001:db8:18::2", options.dstIpAddress);
    EXPECT_EQ(65535, options.dstUdpPort);
    EXPECT_EQ(10u, options.packetsPerSecond);
    EXPECT_EQ(46u, options.dscp);
    EXPECT_EQ(1500, options.packetSize);
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

// list needs no id and takes --json.
TEST_F(CtlOptionsTest, ListCommand) {
    ASSERT_TRUE(parse({"--service", "node1", "list", "--json"})) << error;
    EXPECT_EQ(CtlCommand::List, options.command);
    EXPECT_EQ("node1", options.service);
    EXPECT_EQ(CtlOutput::Json, options.output);
}

// list refuses options of other commands.
TEST_F(CtlOptionsTest, ListRefusesId) {
    EXPECT_FALSE(parse({"list", "--id", "s1"}));
    EXPECT_EQ("unknown option: --id", error);
}

// plot takes an id, the completed interval and the output file.
TEST_F(CtlOptionsTest, PlotCommand) {
    ASSERT_TRUE(parse({"plot", "--id", "s1", "--completed", "--out", "/tmp/s1.png"})) << error;
    EXPECT_EQ(CtlCommand::Plot, options.command);
    EXPECT_TRUE(options.completedIntervalOnly);
    EXPECT_EQ("/tmp/s1.png", options.plotOut);
}

// plot from a CSV file needs no id.
TEST_F(CtlOptionsTest, PlotFromCsvWithoutId) {
    ASSERT_TRUE(parse({"plot", "--from-csv", "c.csv", "--out", "p.svg"})) << error;
    EXPECT_EQ("c.csv", options.fromCsv);
}

// plot needs an output file ending in .png or .svg.
TEST_F(CtlOptionsTest, PlotOutputChecked) {
    EXPECT_FALSE(parse({"plot", "--id", "s1"}));
    EXPECT_EQ("plot needs --out FILE.png or FILE.svg", error);
    EXPECT_FALSE(parse({"plot", "--id", "s1", "--out", "p.jpg"}));
    EXPECT_EQ("--out: 'p.jpg' must end in .png or .svg", error);
}

// Malformed arguments give a clear message.
TEST_F(CtlOptionsTest, MalformedArguments) {
    EXPECT_FALSE(parse({}));
    EXPECT_EQ("a command is needed: create, delete, counters, list or plot", error);
    EXPECT_FALSE(parse({"start"}));
    EXPECT_EQ("unknown command: start", error);
    EXPECT_FALSE(parse({"create", "--id", "s1", "--dst", "198.18.0.2"}));
    EXPECT_EQ("create needs --dst and --port", error);
    EXPECT_FALSE(parse({"create", "--id", "s1", "--dst", "198.18.0.2", "--port", "70000"}));
    EXPECT_EQ("--port: 70000 is out of range 1..65535", error);
    EXPECT_FALSE(parse({"create", "--id", "s1", "--dst", "198.18.0.2", "--port", "86x"}));
    EXPECT_EQ("--port: '86x' is not a whole number in 1..65535", error);
    EXPECT_FALSE(
        parse({"create", "--id", "s1", "--dst", "198.18.0.2", "--port", "1", "--dscp", "64"}));
    EXPECT_EQ("--dscp: 64 is out of range 0..63", error);
    EXPECT_FALSE(parse({"--timeout", "0", "counters", "--id", "s1"}));
    EXPECT_EQ("--timeout: '0' is not a number of seconds in (0, 86400]", error);
    EXPECT_FALSE(parse({"counters", "--id", "s1", "--rate", "3"}));
    EXPECT_EQ("unknown option: --rate", error);
    EXPECT_FALSE(parse({"delete", "--id"}));
    EXPECT_EQ("--id needs a value", error);
    EXPECT_FALSE(parse({"create", "--id", "s1", "--dst", std::string(46, '1'), "--port", "1"}));
    EXPECT_EQ("--dst: '" + std::string(46, '1') +
                  "' has 46 characters; an address of 1 to 45 characters is needed",
              error);
}

// A create with every option given, ending in the extra arguments of a case.
Args createWith(const Args& extra) {
    Args arguments = {"create", "--id", "s1", "--dst", "198.18.0.2", "--port", "862"};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    return arguments;
}

// Extra create arguments and the message they must give.
struct Refusal {
    Args extra;
    std::string error;
};

class CtlCreateRefusalTest : public CtlOptionsTest,
                             public ::testing::WithParamInterface<Refusal> {};

// A create value the daemon would refuse, or a malformed number or address, is
// refused before sending with a message naming option, value and allowed range.
TEST_P(CtlCreateRefusalTest, RefusedWithMessage) {
    EXPECT_FALSE(parse(createWith(GetParam().extra)));
    EXPECT_EQ(GetParam().error, error);
}

INSTANTIATE_TEST_SUITE_P(
    Limits, CtlCreateRefusalTest,
    ::testing::Values(
        Refusal{{"--size", "40"}, "--size: 40 is out of range 41..65507"},
        Refusal{{"--size", "65508"}, "--size: 65508 is out of range 41..65507"},
        Refusal{{"--size", "-64"}, "--size: -64 is out of range 41..65507"},
        Refusal{{"--port", "0"}, "--port: 0 is out of range 1..65535"},
        Refusal{{"--rate", "10001"}, "--rate: 10001 is out of range 0..10000"},
        Refusal{{"--rate", "-1"}, "--rate: -1 is out of range 0..10000"},
        Refusal{{"--dscp", "64"}, "--dscp: 64 is out of range 0..63"},
        Refusal{{"--offset", "2500"},
                "--offset: 2500 is out of range 0..2499 (0..5555 with --spreading-base 5000)"},
        Refusal{{"--offset", "2500", "--spreading-base", "4999"},
                "--offset: 2500 is out of range 0..2499 (0..5555 with --spreading-base 5000)"},
        Refusal{{"--spreading-base", "5000", "--offset", "5556"},
                "--offset: 5556 is out of range 0..5555 with --spreading-base 5000"},
        Refusal{
            {"--offset", "4294967296"},
            "--offset: 4294967296 is out of range 0..2499 (0..5555 with --spreading-base 5000)"},
        Refusal{{"--offset", "-1"},
                "--offset: -1 is out of range 0..2499 (0..5555 with --spreading-base 5000)"},
        Refusal{{"--offset", "1e3"},
                "--offset: '1e3' is not a whole number in 0..2499 (0..5555 with --spreading-base "
                "5000)"},
        Refusal{{"--spare1", "4294967296"}, "--spare1: 4294967296 is out of range 0..4294967295"},
        Refusal{{"--spare2", "-1"}, "--spare2: -1 is out of range 0..4294967295"}));

INSTANTIATE_TEST_SUITE_P(
    MalformedNumbers, CtlCreateRefusalTest,
    ::testing::Values(
        Refusal{{"--size", "99999999999999999999"},
                "--size: 99999999999999999999 is out of range 41..65507"},
        Refusal{{"--size", "-99999999999999999999"},
                "--size: -99999999999999999999 is out of range 41..65507"},
        Refusal{{"--size", "64abc"}, "--size: '64abc' is not a whole number in 41..65507"},
        Refusal{{"--size", " 64"}, "--size: ' 64' is not a whole number in 41..65507"},
        Refusal{{"--size", "+64"}, "--size: '+64' is not a whole number in 41..65507"},
        Refusal{{"--size", "6.4e1"}, "--size: '6.4e1' is not a whole number in 41..65507"},
        Refusal{{"--size", ""}, "--size: '' is not a whole number in 41..65507"},
        Refusal{{"--size", "-"}, "--size: '-' is not a whole number in 41..65507"},
        Refusal{{"--rate", "0x10"}, "--rate: '0x10' is not a whole number in 0..10000"},
        Refusal{{"--spreading-base", "5000 "},
                "--spreading-base: '5000 ' is not a whole number in 0..4294967295"}));

INSTANTIATE_TEST_SUITE_P(
    Addresses, CtlCreateRefusalTest,
    ::testing::Values(
        Refusal{{"--dst", "198.18.0"}, "--dst: '198.18.0' is not an IPv4 or IPv6 address"},
        Refusal{{"--dst", "198.18.0.256"}, "--dst: '198.18.0.256' is not an IPv4 or IPv6 address"},
        Refusal{{"--dst", "reflector.example"},
                "--dst: 'reflector.example' is not an IPv4 or IPv6 address"},
        Refusal{{"--dst", "2001:db8::1 "}, "--dst: '2001:db8::1 ' is not an IPv4 or IPv6 address"},
        Refusal{{"--dst", "2001:db8:::1"}, "--dst: '2001:db8:::1' is not an IPv4 or IPv6 address"},
        Refusal{{"--dst", "fe80::1%"}, "--dst: 'fe80::1%' is not an IPv4 or IPv6 address"},
        Refusal{{"--dst", ""},
                "--dst: '' has 0 characters; an address of 1 to 45 characters is needed"}));

// The limits themselves are accepted: size 41 and 65507, port 1, rate 0 and
// 10000, dscp 63, offset 2499.
TEST_F(CtlOptionsTest, CreateAcceptsLowerAndUpperLimits) {
    ASSERT_TRUE(
        parse(createWith({"--size", "41", "--port", "1", "--rate", "0", "--offset", "2499"})))
        << error;
    EXPECT_EQ(41, options.packetSize);
    EXPECT_EQ(1, options.dstUdpPort);
    EXPECT_EQ(0u, options.packetsPerSecond);
    EXPECT_EQ(2499u, options.startOffset);
    ASSERT_TRUE(parse(createWith({"--size", "65507", "--rate", "10000", "--dscp", "63"}))) << error;
    EXPECT_EQ(65507, options.packetSize);
    EXPECT_EQ(10000u, options.packetsPerSecond);
    EXPECT_EQ(63u, options.dscp);
}

// With spreading base 5000 the offset may reach 5555, in either option order.
TEST_F(CtlOptionsTest, CreateAcceptsDenseOffsetWithDenseBase) {
    ASSERT_TRUE(parse(createWith({"--offset", "5555", "--spreading-base", "5000"}))) << error;
    EXPECT_EQ(5555u, options.startOffset);
    EXPECT_EQ(5000u, options.spreadingBase);
}

// Leading zeros are still decimal: 0064 is 64.
TEST_F(CtlOptionsTest, CreateReadsLeadingZerosAsDecimal) {
    ASSERT_TRUE(parse(createWith({"--size", "0064"}))) << error;
    EXPECT_EQ(64, options.packetSize);
}

// The longest IPv6 text form (45 characters) fits the signal's field and is accepted.
TEST_F(CtlOptionsTest, CreateAcceptsLongestIpv6Text) {
    const std::string longest = "0000:0000:0000:0000:0000:ffff:255.255.255.255";
    ASSERT_EQ(45u, longest.size());
    ASSERT_TRUE(parse(createWith({"--dst", longest}))) << error;
    EXPECT_EQ(longest, options.dstIpAddress);
}

// An IPv6 address with a zone is accepted; the daemon resolves the zone in its namespace.
TEST_F(CtlOptionsTest, CreateAcceptsIpv6AddressWithZone) {
    ASSERT_TRUE(parse(createWith({"--dst", "fe80::1%veth0"}))) << error;
    EXPECT_EQ("fe80::1%veth0", options.dstIpAddress);
}

// A time-out with leading blanks is refused like any malformed number.
TEST_F(CtlOptionsTest, TimeoutWithLeadingBlankRefused) {
    EXPECT_FALSE(parse({"--timeout", " 5", "counters", "--id", "s1"}));
    EXPECT_EQ("--timeout: ' 5' is not a number of seconds in (0, 86400]", error);
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
