#include "TimestampSource.h"

#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TraceRecorder.h"

namespace {

using twamp_test::TraceRecorder;

class TimestampSourceTest : public ::testing::Test {
  protected:
    void SetUp() override {
        TraceRecorder::reset();
        unsetenv("TWAMP_TIMESTAMPING");
        TimestampSource::setCurrent(TimestampSource(TimestampSource::Kind::kHardware));
    }
    void TearDown() override {
        unsetenv("TWAMP_TIMESTAMPING");
        TimestampSource::setCurrent(TimestampSource(TimestampSource::Kind::kHardware));
    }
};

// Hardware timestamps: option value 69, timespec index 2.
TEST_F(TimestampSourceTest, HardwareValues) {
    const TimestampSource source(TimestampSource::Kind::kHardware);
    EXPECT_EQ(69, source.getOptionValue());
    EXPECT_EQ(2U, source.getTimespecIndex());
    EXPECT_STREQ("hardware", source.getName());
}

// Software timestamps: option value 26, timespec index 0.
TEST_F(TimestampSourceTest, SoftwareValues) {
    const TimestampSource source(TimestampSource::Kind::kSoftware);
    EXPECT_EQ(26, source.getOptionValue());
    EXPECT_EQ(0U, source.getTimespecIndex());
    EXPECT_STREQ("software", source.getName());
}

// A default-constructed source is hardware.
TEST_F(TimestampSourceTest, DefaultIsHardware) {
    EXPECT_EQ(TimestampSource::Kind::kHardware, TimestampSource().getKind());
}

// Without a setting the source is hardware, without trace.
TEST_F(TimestampSourceTest, NoSettingGivesHardware) {
    EXPECT_EQ(TimestampSource::Kind::kHardware, TimestampSource::fromSetting(nullptr).getKind());
    EXPECT_TRUE(TraceRecorder::records().empty());
}

// "hardware" gives hardware.
TEST_F(TimestampSourceTest, HardwareSetting) {
    EXPECT_EQ(TimestampSource::Kind::kHardware, TimestampSource::fromSetting("hardware").getKind());
}

// "software" gives software.
TEST_F(TimestampSourceTest, SoftwareSetting) {
    EXPECT_EQ(TimestampSource::Kind::kSoftware, TimestampSource::fromSetting("software").getKind());
}

// An unknown value is traced at ERROR and gives hardware.
TEST_F(TimestampSourceTest, UnknownSettingGivesHardware) {
    EXPECT_EQ(TimestampSource::Kind::kHardware, TimestampSource::fromSetting("Software").getKind());
    EXPECT_EQ(std::vector<std::string>{"fromSetting(): Unknown TWAMP_TIMESTAMPING value "
                                       "'Software', using hardware"},
              TraceRecorder::twampMessages("ERROR"));
}

// An empty value is unknown too.
TEST_F(TimestampSourceTest, EmptySettingIsUnknown) {
    EXPECT_EQ(TimestampSource::Kind::kHardware, TimestampSource::fromSetting("").getKind());
    EXPECT_EQ(std::vector<std::string>{"fromSetting(): Unknown TWAMP_TIMESTAMPING value '', "
                                       "using hardware"},
              TraceRecorder::twampMessages("ERROR"));
}

// Until configured, the current source is hardware.
TEST_F(TimestampSourceTest, CurrentDefaultsToHardware) {
    EXPECT_EQ(2U, TimestampSource::getCurrent().getTimespecIndex());
}

// TWAMP_TIMESTAMPING=software becomes current and is traced at INFO.
TEST_F(TimestampSourceTest, ConfigureFromEnvironmentSoftware) {
    setenv("TWAMP_TIMESTAMPING", "software", 1);
    EXPECT_EQ(TimestampSource::Kind::kSoftware,
              TimestampSource::configureFromEnvironment().getKind());
    EXPECT_EQ(TimestampSource::Kind::kSoftware, TimestampSource::getCurrent().getKind());
    EXPECT_EQ(std::vector<std::string>{"configureFromEnvironment(): Timestamping source software: "
                                       "SO_TIMESTAMPING 26, timespec index 0"},
              TraceRecorder::twampMessages("INFO"));
}

// An unset TWAMP_TIMESTAMPING configures hardware, traced at INFO.
TEST_F(TimestampSourceTest, ConfigureFromEnvironmentUnset) {
    TimestampSource::setCurrent(TimestampSource(TimestampSource::Kind::kSoftware));
    EXPECT_EQ(TimestampSource::Kind::kHardware,
              TimestampSource::configureFromEnvironment().getKind());
    EXPECT_EQ(TimestampSource::Kind::kHardware, TimestampSource::getCurrent().getKind());
    EXPECT_EQ(std::vector<std::string>{"configureFromEnvironment(): Timestamping source hardware: "
                                       "SO_TIMESTAMPING 69, timespec index 2"},
              TraceRecorder::twampMessages("INFO"));
}

// An unknown TWAMP_TIMESTAMPING configures hardware: ERROR, then the INFO choice.
TEST_F(TimestampSourceTest, ConfigureFromEnvironmentUnknown) {
    setenv("TWAMP_TIMESTAMPING", "ptp", 1);
    EXPECT_EQ(TimestampSource::Kind::kHardware,
              TimestampSource::configureFromEnvironment().getKind());
    EXPECT_EQ(std::vector<std::string>{"fromSetting(): Unknown TWAMP_TIMESTAMPING value 'ptp', "
                                       "using hardware"},
              TraceRecorder::twampMessages("ERROR"));
    EXPECT_EQ(std::vector<std::string>{"configureFromEnvironment(): Timestamping source hardware: "
                                       "SO_TIMESTAMPING 69, timespec index 2"},
              TraceRecorder::twampMessages("INFO"));
}

}  // namespace
