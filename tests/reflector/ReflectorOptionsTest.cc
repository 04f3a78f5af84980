#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ReflectorOptions.h"

namespace {

using Args = std::vector<std::string>;

class ReflectorOptionsTest : public ::testing::Test {
  protected:
    bool parse(const Args& arguments) {
        error.clear();
        options = ReflectorOptions();
        return parseReflectorOptions(arguments, options, error);
    }
    // The option fails with a message that names it and contains expected.
    void expectRejected(const Args& arguments, const std::string& expected) {
        EXPECT_FALSE(parse(arguments)) << arguments[0];
        EXPECT_NE(std::string::npos, error.find(expected)) << error;
    }
    ReflectorOptions options;
    std::string error;
};

// Without arguments every option keeps its documented default.
TEST_F(ReflectorOptionsTest, Defaults) {
    ASSERT_TRUE(parse({})) << error;
    EXPECT_EQ("::", options.listenAddress);
    EXPECT_EQ(862, options.port);
    EXPECT_EQ(255, options.replyTtl);
    EXPECT_FALSE(options.seedGiven);
    EXPECT_EQ(0.0, options.forwardLossPercent);
    EXPECT_EQ(0.0, options.reverseLossPercent);
    EXPECT_EQ(0.0, options.duplicatePercent);
    EXPECT_EQ(0.0, options.reorderPercent);
    EXPECT_EQ(0.0, options.forwardDelayMs);
    EXPECT_EQ(0.0, options.forwardJitterMs);
    EXPECT_EQ(0.0, options.reverseDelayMs);
    EXPECT_EQ(0.0, options.reverseJitterMs);
    EXPECT_EQ(0u, options.restartEvery);
    EXPECT_EQ(0u, options.restartAfter);
    EXPECT_EQ(0u, options.restartGap);
    EXPECT_EQ(0.0, options.restartGapMs);
    EXPECT_FALSE(options.stateless);
    EXPECT_EQ(0.0, options.skewMs);
    EXPECT_FALSE(options.senderTtlGiven);
    EXPECT_EQ(0.0, options.t1OffsetMs);
    EXPECT_EQ(0u, options.unreachableAfter);
    EXPECT_EQ(1000.0, options.unreachableMs);
    EXPECT_TRUE(options.truthPath.empty());
    EXPECT_FALSE(options.quiet);
    EXPECT_FALSE(options.help);
}

// Every option lands in its field, in both spellings of a value.
TEST_F(ReflectorOptionsTest, EveryOption) {
    ASSERT_TRUE(parse({"--listen",
                       "198.18.0.2",
                       "--port=8620",
                       "--reply-ttl",
                       "64",
                       "--seed",
                       "18446744073709551615",
                       "--fwd-loss",
                       "1.5",
                       "--rev-loss=2",
                       "--duplicate",
                       "3",
                       "--reorder",
                       "4.25",
                       "--fwd-delay",
                       "0.5",
                       "--fwd-jitter",
                       "0.125",
                       "--rev-delay",
                       "10",
                       "--rev-jitter=2.5",
                       "--restart-every",
                       "100",
                       "--skew",
                       "-7.5",
                       "--truth",
                       "/tmp/t.jsonl",
                       "--quiet"}))
        << error;
    EXPECT_EQ("198.18.0.2", options.listenAddress);
    EXPECT_EQ(8620, options.port);
    EXPECT_EQ(64, options.replyTtl);
    EXPECT_TRUE(options.seedGiven);
    EXPECT_EQ(18446744073709551615ULL, options.seed);
    EXPECT_EQ(1.5, options.forwardLossPercent);
    EXPECT_EQ(2.0, options.reverseLossPercent);
    EXPECT_EQ(3.0, options.duplicatePercent);
    EXPECT_EQ(4.25, options.reorderPercent);
    EXPECT_EQ(0.5, options.forwardDelayMs);
    EXPECT_EQ(0.125, options.forwardJitterMs);
    EXPECT_EQ(10.0, options.reverseDelayMs);
    EXPECT_EQ(2.5, options.reverseJitterMs);
    EXPECT_EQ(100u, options.restartEvery);
    EXPECT_EQ(-7.5, options.skewMs);
    EXPECT_EQ("/tmp/t.jsonl", options.truthPath);
    EXPECT_TRUE(options.quiet);
}

// The one-shot restart takes its count and its gap in both spellings.
TEST_F(ReflectorOptionsTest, RestartAfterAndGap) {
    ASSERT_TRUE(parse({"--restart-after", "200", "--restart-gap=60"})) << error;
    EXPECT_EQ(200u, options.restartAfter);
    EXPECT_EQ(60u, options.restartGap);
    expectRejected({"--restart-after", "-1"}, "--restart-after: '-1' is not a whole number");
    expectRejected({"--restart-gap", "2.5"}, "--restart-gap: '2.5' is not a whole number");
    expectRejected({"--restart-gap"}, "--restart-gap needs a value");
}

// A restart gap of about a second is given as a time.
TEST_F(ReflectorOptionsTest, RestartGapAsTime) {
    ASSERT_TRUE(parse({"--restart-after", "100", "--restart-gap-ms", "1000"})) << error;
    EXPECT_EQ(100u, options.restartAfter);
    EXPECT_EQ(1000.0, options.restartGapMs);
    expectRejected({"--restart-gap-ms", "-1"}, "--restart-gap-ms: -1 is out of range 0..3600000");
}

// The gap is a count or a time, not both.
TEST_F(ReflectorOptionsTest, RestartGapCountAndTimeExcludeEachOther) {
    expectRejected({"--restart-after", "1", "--restart-gap", "5", "--restart-gap-ms", "500"},
                   "--restart-gap and --restart-gap-ms: the gap is either a count or a time");
}

// --stateless numbers replies with the sender's numbers.
TEST_F(ReflectorOptionsTest, Stateless) {
    ASSERT_TRUE(parse({"--stateless"})) << error;
    EXPECT_TRUE(options.stateless);
    expectRejected({"--stateless=1"}, "--stateless takes no value");
}

// A stateless reflector has no numbering to restart.
TEST_F(ReflectorOptionsTest, StatelessRefusesRestarts) {
    expectRejected({"--stateless", "--restart-every", "10"},
                   "--stateless: a reflector without state has no numbering to restart");
    expectRejected({"--restart-after", "10", "--stateless"},
                   "--stateless: a reflector without state has no numbering to restart");
}

// --sender-ttl takes 0 to 255, 0 included.
TEST_F(ReflectorOptionsTest, SenderTtl) {
    ASSERT_TRUE(parse({"--sender-ttl", "0"})) << error;
    EXPECT_TRUE(options.senderTtlGiven);
    EXPECT_EQ(0, options.senderTtl);
    ASSERT_TRUE(parse({"--sender-ttl=255"})) << error;
    EXPECT_EQ(255, options.senderTtl);
    expectRejected({"--sender-ttl", "256"}, "--sender-ttl: 256 is out of range 0..255");
}

// --corrupt-t1 takes a signed offset in milliseconds of up to a day.
TEST_F(ReflectorOptionsTest, CorruptT1) {
    ASSERT_TRUE(parse({"--corrupt-t1", "-60000"})) << error;
    EXPECT_EQ(-60000.0, options.t1OffsetMs);
    ASSERT_TRUE(parse({"--corrupt-t1=0.5"})) << error;
    EXPECT_EQ(0.5, options.t1OffsetMs);
    expectRejected({"--corrupt-t1", "86400001"},
                   "--corrupt-t1: 86400001 is out of range -86400000..86400000");
}

// --unreachable-after counts requests; --unreachable-ms is more than 0.
TEST_F(ReflectorOptionsTest, Unreachable) {
    ASSERT_TRUE(parse({"--unreachable-after", "50", "--unreachable-ms=2500"})) << error;
    EXPECT_EQ(50u, options.unreachableAfter);
    EXPECT_EQ(2500.0, options.unreachableMs);
    expectRejected({"--unreachable-after", "1.5"}, "--unreachable-after: '1.5' is not a whole");
    expectRejected({"--unreachable-ms", "0"}, "--unreachable-ms: 0 is out of range 0.001..3600000");
}

// IPv6 addresses, the IPv4 wildcard and port 0 are accepted.
TEST_F(ReflectorOptionsTest, AddressesAndPortZero) {
    ASSERT_TRUE(parse({"--listen", "2001:db8:18::2", "--port", "0"})) << error;
    EXPECT_EQ("2001:db8:18::2", options.listenAddress);
    EXPECT_EQ(0, options.port);
    ASSERT_TRUE(parse({"--listen=0.0.0.0"})) << error;
    EXPECT_EQ("0.0.0.0", options.listenAddress);
}

// --help and -h ask for the usage text.
TEST_F(ReflectorOptionsTest, Help) {
    ASSERT_TRUE(parse({"--help"})) << error;
    EXPECT_TRUE(options.help);
    ASSERT_TRUE(parse({"-h"})) << error;
    EXPECT_TRUE(options.help);
}

// The usage text names every option with its default.
TEST_F(ReflectorOptionsTest, UsageNamesEveryOption) {
    const std::string usage = reflectorUsage();
    for (const char* option : {"--listen",
                               "--port",
                               "--reply-ttl",
                               "--seed",
                               "--fwd-loss",
                               "--rev-loss",
                               "--duplicate",
                               "--reorder",
                               "--fwd-delay",
                               "--fwd-jitter",
                               "--rev-delay",
                               "--rev-jitter",
                               "--restart-every",
                               "--restart-after",
                               "--restart-gap",
                               "--restart-gap-ms",
                               "--stateless",
                               "--skew",
                               "--sender-ttl",
                               "--corrupt-t1",
                               "--unreachable-after",
                               "--unreachable-ms",
                               "--truth",
                               "--quiet",
                               "--help"}) {
        EXPECT_NE(std::string::npos, usage.find(option)) << option;
    }
    EXPECT_NE(std::string::npos, usage.find("default 862"));
    EXPECT_NE(std::string::npos, usage.find("default 255"));
    EXPECT_NE(std::string::npos, usage.find("default ::"));
}

// Unknown options, stray arguments and missing values are refused.
TEST_F(ReflectorOptionsTest, StructuralMistakes) {
    expectRejected({"--frobnicate", "1"}, "unknown option --frobnicate");
    expectRejected({"--frobnicate"}, "unknown option --frobnicate");
    expectRejected({"--port=1", "--frob=2"}, "unknown option --frob");
    expectRejected({"862"}, "unexpected argument '862'");
    expectRejected({"--port"}, "--port needs a value");
    expectRejected({"--quiet=yes"}, "--quiet takes no value");
    expectRejected({"--truth", ""}, "--truth needs a file name");
}

// Values outside their range or not numbers are refused with the option's name.
TEST_F(ReflectorOptionsTest, BadValues) {
    expectRejected({"--listen", "localhost"}, "--listen: 'localhost' is not a numeric");
    expectRejected({"--listen", "198.18.0.256"}, "--listen");
    expectRejected({"--port", "65536"}, "--port: 65536 is out of range 0..65535");
    expectRejected({"--port", "-1"}, "--port: '-1' is not a whole number");
    expectRejected({"--port", "8x"}, "--port: '8x' is not a whole number");
    expectRejected({"--reply-ttl", "0"}, "--reply-ttl: 0 is out of range 1..255");
    expectRejected({"--reply-ttl", "256"}, "--reply-ttl");
    expectRejected({"--seed", "18446744073709551616"}, "--seed");
    expectRejected({"--seed", "-1"}, "--seed");
    expectRejected({"--fwd-loss", "100.5"}, "--fwd-loss: 100.5 is out of range 0..100");
    expectRejected({"--rev-loss", "-1"}, "--rev-loss");
    expectRejected({"--duplicate", "nan"}, "--duplicate: 'nan' is not a number");
    expectRejected({"--reorder", "inf"}, "--reorder");
    expectRejected({"--fwd-delay", "60001"}, "--fwd-delay");
    expectRejected({"--fwd-jitter", "-0.1"}, "--fwd-jitter");
    expectRejected({"--rev-delay", "ten"}, "--rev-delay: 'ten' is not a number");
    expectRejected({"--rev-jitter", ""}, "--rev-jitter");
    expectRejected({"--restart-every", "1.5"}, "--restart-every");
    expectRejected({"--skew", "-60000.5"}, "--skew: -60000.5 is out of range -60000..60000");
}

}  // namespace
