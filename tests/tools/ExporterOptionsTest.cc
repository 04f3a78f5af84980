#include "ExporterOptions.h"

#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "OptionValues.h"

namespace {

class ExporterOptionsTest : public ::testing::Test {
  protected:
    bool parse(const std::vector<std::string>& arguments) {
        return parseExporterOptions(arguments, "twamp", options, error);
    }

    ExporterOptions options;
    std::string error;
};

// Without options the exporter listens on the loopback address, port 9862.
TEST_F(ExporterOptionsTest, DefaultsWithoutOptions) {
    ASSERT_TRUE(parse({})) << error;
    EXPECT_EQ("127.0.0.1", options.listenAddress);
    EXPECT_EQ(9862, options.port);
    EXPECT_EQ("twamp", options.service);
    EXPECT_EQ(2.0, options.timeoutSeconds);
}

// Every option is taken with its value.
TEST_F(ExporterOptionsTest, EveryOptionTaken) {
    ASSERT_TRUE(parse(
        {"--listen-address", "::1", "--port", "9100", "--service", "lab", "--timeout", "0.5"}))
        << error;
    EXPECT_EQ("::1", options.listenAddress);
    EXPECT_EQ(9100, options.port);
    EXPECT_EQ("lab", options.service);
    EXPECT_EQ(0.5, options.timeoutSeconds);
}

// The timeout reads fractions as twamp-ctl's does, up to a minute.
TEST_F(ExporterOptionsTest, TimeoutBounds) {
    ASSERT_TRUE(parse({"--timeout", ".25"})) << error;
    EXPECT_EQ(0.25, options.timeoutSeconds);
    ASSERT_TRUE(parse({"--timeout", "60"})) << error;
    EXPECT_FALSE(parse({"--timeout", "60.5"}));
    EXPECT_EQ("--timeout: '60.5' is not a number of seconds in (0, 60]", error);
    EXPECT_FALSE(parse({"--timeout", "0"}));
    EXPECT_FALSE(parse({"--timeout", " 5"}));
    EXPECT_FALSE(parse({"--timeout", "5s"}));
}

// An option at the end without its value is named.
TEST_F(ExporterOptionsTest, MissingValueNamed) {
    EXPECT_FALSE(parse({"--port"}));
    EXPECT_EQ("--port needs a value", error);
}

// Bad values and unknown options are refused with a message.
TEST_F(ExporterOptionsTest, BadValuesRefused) {
    EXPECT_FALSE(parse({"--port", "0"}));
    EXPECT_EQ("--port: '0' is not a port in 1..65535", error);
    EXPECT_FALSE(parse({"--listen-address", "localhost"}));
    EXPECT_EQ("--listen-address: 'localhost' is not an IPv4 or IPv6 address", error);
    EXPECT_FALSE(parse({"--service", ""}));
    EXPECT_EQ("--service needs a name", error);
    EXPECT_FALSE(parse({"--verbose"}));
    EXPECT_EQ("unknown option: --verbose", error);
}

// The service comes from TWAMP_SERVICE when it names one, else "twamp".
TEST(OptionValuesTest, DefaultServiceFromEnvironment) {
    setenv("TWAMP_SERVICE", "lab_sender", 1);
    EXPECT_EQ("lab_sender", defaultServiceName());
    setenv("TWAMP_SERVICE", "", 1);
    EXPECT_EQ("twamp", defaultServiceName());
    unsetenv("TWAMP_SERVICE");
    EXPECT_EQ("twamp", defaultServiceName());
}

}  // namespace
