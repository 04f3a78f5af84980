#include "SocketHelper.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ControlBuffer.h"
#include "TimestampSource.h"
#include "TraceRecorder.h"

namespace {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "expected values of native reads are written for a little-endian host");

using twamp_test::ControlBuffer;
using twamp_test::intBytes;
using twamp_test::timespecBytes;
using twamp_test::TraceRecorder;

constexpr int kWantedLevel = 41;
constexpr int kWantedType = 99;

class SocketHelperTest : public ::testing::Test {
  protected:
    void SetUp() override {
        TraceRecorder::reset();
        TimestampSource::setCurrent(TimestampSource(TimestampSource::Kind::kHardware));
    }
    void TearDown() override {
        TimestampSource::setCurrent(TimestampSource(TimestampSource::Kind::kHardware));
    }

    SocketHelper helper;
};

// ---- findControlMessage ----

// A control length below one header holds no control data.
TEST_F(SocketHelperTest, FindControlMessageNeedsSixteenBytes) {
    ControlBuffer buffer(15);
    EXPECT_EQ(nullptr, findControlMessage(&buffer.msg, kWantedLevel, kWantedType));
}

// A 16-byte header without data that fills the whole buffer is found; its data is at its end.
TEST_F(SocketHelperTest, FindControlMessageFindsHeaderFillingTheBuffer) {
    ControlBuffer buffer(16);
    buffer.put(0, 16, kWantedLevel, kWantedType);
    EXPECT_EQ(buffer.bytes.data() + 16, findControlMessage(&buffer.msg, kWantedLevel, kWantedType));
}

// The first matching message gives its data, 16 bytes behind its header.
TEST_F(SocketHelperTest, FindControlMessageGivesDataOfFirstMatch) {
    ControlBuffer buffer(48);
    buffer.append(IPPROTO_IP, IP_TTL, intBytes(64));
    buffer.append(kWantedLevel, kWantedType, intBytes(1));
    EXPECT_EQ(buffer.bytes.data() + 40, findControlMessage(&buffer.msg, kWantedLevel, kWantedType));
}

// Level and type must both match.
TEST_F(SocketHelperTest, FindControlMessageMatchesLevelAndType) {
    ControlBuffer buffer(48);
    buffer.append(kWantedLevel, kWantedType + 1, intBytes(1));
    buffer.append(kWantedLevel + 1, kWantedType, intBytes(1));
    EXPECT_EQ(nullptr, findControlMessage(&buffer.msg, kWantedLevel, kWantedType));
}

// Nine messages with the wanted one last: the ninth is still examined.
TEST_F(SocketHelperTest, FindControlMessageFindsNinthMessage) {
    ControlBuffer buffer(9 * 24);
    for (int i = 0; i < 8; ++i) {
        buffer.append(kWantedLevel, i, intBytes(i));
    }
    buffer.append(kWantedLevel, kWantedType, intBytes(7));
    EXPECT_EQ(buffer.bytes.data() + 208,
              findControlMessage(&buffer.msg, kWantedLevel, kWantedType));
}

// Ten messages with the wanted one last: the walk stops after nine.
TEST_F(SocketHelperTest, FindControlMessageDoesNotFindTenthMessage) {
    ControlBuffer buffer(10 * 24);
    for (int i = 0; i < 9; ++i) {
        buffer.append(kWantedLevel, i, intBytes(i));
    }
    buffer.append(kWantedLevel, kWantedType, intBytes(7));
    EXPECT_EQ(nullptr, findControlMessage(&buffer.msg, kWantedLevel, kWantedType));
}

// A matching header whose length is below 16 ends the walk with nothing.
TEST_F(SocketHelperTest, FindControlMessageStopsAtShortMatchingHeader) {
    ControlBuffer buffer(48);
    buffer.put(0, 15, kWantedLevel, kWantedType);
    EXPECT_EQ(nullptr, findControlMessage(&buffer.msg, kWantedLevel, kWantedType));
}

// A short header behind the first ends the walk before the wanted third message.
TEST_F(SocketHelperTest, FindControlMessageStopsAtShortHeaderOnTheWay) {
    ControlBuffer buffer(72);
    buffer.put(0, 20, IPPROTO_IP, IP_TTL, intBytes(64));
    buffer.put(24, 8, IPPROTO_IP, IP_TOS);
    buffer.put(48, 20, kWantedLevel, kWantedType, intBytes(1));
    EXPECT_EQ(nullptr, findControlMessage(&buffer.msg, kWantedLevel, kWantedType));
}

// A next header at 24 in a 39-byte buffer would not leave 16 bytes: not read.
TEST_F(SocketHelperTest, FindControlMessageStopsWhenNextHeaderDoesNotFit) {
    ControlBuffer buffer(39);
    buffer.put(0, 20, IPPROTO_IP, IP_TTL, intBytes(64));
    EXPECT_EQ(nullptr, findControlMessage(&buffer.msg, kWantedLevel, kWantedType));
}

// A next header at 24 in a 40-byte buffer leaves exactly 16 bytes: found.
TEST_F(SocketHelperTest, FindControlMessageReadsNextHeaderEndingTheBuffer) {
    ControlBuffer buffer(40);
    buffer.put(0, 20, IPPROTO_IP, IP_TTL, intBytes(64));
    buffer.put(24, 16, kWantedLevel, kWantedType);
    EXPECT_EQ(buffer.bytes.data() + 40, findControlMessage(&buffer.msg, kWantedLevel, kWantedType));
}

// A next header of length 21 at 24 rounds to 24 and ends a 48-byte buffer: found.
TEST_F(SocketHelperTest, FindControlMessageAcceptsRoundedLengthAtTheEnd) {
    ControlBuffer buffer(48);
    buffer.put(0, 20, IPPROTO_IP, IP_TTL, intBytes(64));
    buffer.put(24, 21, kWantedLevel, kWantedType, {1, 2, 3, 4, 5});
    EXPECT_EQ(buffer.bytes.data() + 40, findControlMessage(&buffer.msg, kWantedLevel, kWantedType));
}

// A next header of length 25 at 24 rounds to 32 and runs past a 48-byte buffer.
TEST_F(SocketHelperTest, FindControlMessageRejectsRoundedLengthPastTheEnd) {
    ControlBuffer buffer(48);
    buffer.put(0, 20, IPPROTO_IP, IP_TTL, intBytes(64));
    buffer.put(24, 25, kWantedLevel, kWantedType, {1, 2, 3, 4, 5, 6, 7, 8});
    EXPECT_EQ(nullptr, findControlMessage(&buffer.msg, kWantedLevel, kWantedType));
}

// Without a control buffer there is nothing to find.
TEST_F(SocketHelperTest, FindControlMessageWithoutControlBuffer) {
    struct msghdr msg {};
    msg.msg_controllen = 64;
    EXPECT_EQ(nullptr, findControlMessage(&msg, kWantedLevel, kWantedType));
}

// ---- getTxTimestamp ----

// The hardware source reads the third timespec (index 2) and converts it to NTP.
TEST_F(SocketHelperTest, GetTxTimestampReadsRawHardwareTimespec) {
    ControlBuffer buffer(64);
    buffer.appendTimestamping({1, 500000000}, {0, 0}, {1700000000, 250000000});
    EXPECT_EQ(0xE8FE6F8040000000ULL, getTxTimestamp(&buffer.msg));
}

// The software source reads the first timespec (index 0).
TEST_F(SocketHelperTest, GetTxTimestampReadsSoftwareTimespec) {
    TimestampSource::setCurrent(TimestampSource(TimestampSource::Kind::kSoftware));
    ControlBuffer buffer(64);
    buffer.appendTimestamping({1, 500000000}, {0, 0}, {1700000000, 250000000});
    EXPECT_EQ(0x83AA7E8180000000ULL, getTxTimestamp(&buffer.msg));
}

// The timestamp message is found behind other control messages.
TEST_F(SocketHelperTest, GetTxTimestampFindsMessageBehindOthers) {
    ControlBuffer buffer(88);
    buffer.append(IPPROTO_IP, IP_TTL, intBytes(64));
    buffer.appendTimestamping({0, 0}, {0, 0}, {1700000000, 250000000});
    EXPECT_EQ(0xE8FE6F8040000000ULL, getTxTimestamp(&buffer.msg));
}

// Without an SCM_TIMESTAMPING message the timestamp is 0.
TEST_F(SocketHelperTest, GetTxTimestampWithoutMessageIsZero) {
    ControlBuffer buffer(64);
    buffer.append(IPPROTO_IP, IP_TTL, intBytes(64));
    EXPECT_EQ(0U, getTxTimestamp(&buffer.msg));
}

// A message holding one timespec has no index 2: the hardware timestamp is 0.
TEST_F(SocketHelperTest, GetTxTimestampOfTooShortMessageIsZero) {
    ControlBuffer buffer(32);
    buffer.append(SOL_SOCKET, SCM_TIMESTAMPING, timespecBytes({{1, 500000000}}));
    EXPECT_EQ(0U, getTxTimestamp(&buffer.msg));
}

// A message holding one timespec serves the software source.
TEST_F(SocketHelperTest, GetTxTimestampOfOneTimespecServesSoftwareSource) {
    TimestampSource::setCurrent(TimestampSource(TimestampSource::Kind::kSoftware));
    ControlBuffer buffer(32);
    buffer.append(SOL_SOCKET, SCM_TIMESTAMPING, timespecBytes({{1, 500000000}}));
    EXPECT_EQ(0x83AA7E8180000000ULL, getTxTimestamp(&buffer.msg));
}

// A length claiming three timespecs in a buffer holding one reads nothing past the buffer.
TEST_F(SocketHelperTest, GetTxTimestampTrustsNoLengthBeyondTheBuffer) {
    ControlBuffer buffer(32);
    buffer.put(0, 64, SOL_SOCKET, SCM_TIMESTAMPING, timespecBytes({{1, 500000000}}));
    EXPECT_EQ(0U, getTxTimestamp(&buffer.msg));
}

// ---- getDscp ----

// IPv4: the one-byte IP_TOS 0xB8 followed by zero bytes gives DSCP 46.
TEST_F(SocketHelperTest, GetDscpReadsIpv4Tos) {
    ControlBuffer buffer(24);
    buffer.append(IPPROTO_IP, IP_TOS, {0xB8});
    EXPECT_EQ(46U, helper.getDscp(&buffer.msg, AF_INET));
}

// IPv4: the three bytes after IP_TOS are read with it, natively and unmasked.
TEST_F(SocketHelperTest, GetDscpIncludesThreeFollowingBytes) {
    ControlBuffer buffer(24);
    buffer.append(IPPROTO_IP, IP_TOS, {0xB8});
    buffer.bytes[17] = 0x01;
    buffer.bytes[18] = 0x02;
    buffer.bytes[19] = 0x03;
    // 0x030201B8 >> 2
    EXPECT_EQ(12615790U, helper.getDscp(&buffer.msg, AF_INET));
}

// IPv6: the int IPV6_TCLASS 184 gives DSCP 46.
TEST_F(SocketHelperTest, GetDscpReadsIpv6TrafficClass) {
    ControlBuffer buffer(48);
    buffer.append(IPPROTO_IPV6, IPV6_HOPLIMIT, intBytes(64));
    buffer.append(IPPROTO_IPV6, IPV6_TCLASS, intBytes(184));
    EXPECT_EQ(46U, helper.getDscp(&buffer.msg, AF_INET6));
}

// An IP_TOS byte that ends the buffer is read alone: nothing past the buffer.
TEST_F(SocketHelperTest, GetDscpReadsNothingPastTheBuffer) {
    ControlBuffer buffer(17);
    buffer.put(0, 17, IPPROTO_IP, IP_TOS, {0xB8});
    EXPECT_EQ(46U, helper.getDscp(&buffer.msg, AF_INET));
}

// An absent DSCP is 0, without trace.
TEST_F(SocketHelperTest, GetDscpAbsentIsZeroWithoutTrace) {
    ControlBuffer buffer(24);
    buffer.append(IPPROTO_IP, IP_TTL, intBytes(64));
    EXPECT_EQ(0U, helper.getDscp(&buffer.msg, AF_INET));
    EXPECT_TRUE(TraceRecorder::records().empty());
}

// The IPv6 item is not looked for on an IPv4 socket.
TEST_F(SocketHelperTest, GetDscpLooksForTheFamilysItem) {
    ControlBuffer buffer(24);
    buffer.append(IPPROTO_IPV6, IPV6_TCLASS, intBytes(184));
    EXPECT_EQ(0U, helper.getDscp(&buffer.msg, AF_INET));
}

// Another family is traced at INFO and gives 0.
TEST_F(SocketHelperTest, GetDscpInvalidFamily) {
    ControlBuffer buffer(24);
    buffer.append(IPPROTO_IP, IP_TOS, {0xB8});
    EXPECT_EQ(0U, helper.getDscp(&buffer.msg, 17));
    EXPECT_EQ(std::vector<std::string>{"getDscp(): Invalid socket Family 17"},
              TraceRecorder::twampMessages("INFO"));
}

// ---- getTtl ----

// IPv4: the first byte of the IP_TTL data.
TEST_F(SocketHelperTest, GetTtlReadsIpv4Ttl) {
    ControlBuffer buffer(24);
    buffer.append(IPPROTO_IP, IP_TTL, intBytes(0x0140));
    EXPECT_EQ(0x40, helper.getTtl(&buffer.msg, AF_INET));
}

// IPv6: the hop limit 255.
TEST_F(SocketHelperTest, GetTtlReadsIpv6HopLimit) {
    ControlBuffer buffer(48);
    buffer.append(IPPROTO_IPV6, IPV6_TCLASS, intBytes(184));
    buffer.append(IPPROTO_IPV6, IPV6_HOPLIMIT, intBytes(255));
    EXPECT_EQ(255, helper.getTtl(&buffer.msg, AF_INET6));
}

// An absent TTL is 0 with the INFO trace "return 0".
TEST_F(SocketHelperTest, GetTtlAbsentTracesReturnZero) {
    ControlBuffer buffer(24);
    buffer.append(IPPROTO_IP, IP_TOS, {0xB8});
    EXPECT_EQ(0, helper.getTtl(&buffer.msg, AF_INET));
    EXPECT_EQ(std::vector<std::string>{"getTtl(): return 0"}, TraceRecorder::twampMessages("INFO"));
}

// A TTL header without a data byte inside the buffer counts as absent.
TEST_F(SocketHelperTest, GetTtlWithoutDataByteIsAbsent) {
    ControlBuffer buffer(16);
    buffer.put(0, 16, IPPROTO_IP, IP_TTL);
    EXPECT_EQ(0, helper.getTtl(&buffer.msg, AF_INET));
    EXPECT_EQ(std::vector<std::string>{"getTtl(): return 0"}, TraceRecorder::twampMessages("INFO"));
}

// Another family is traced at INFO and gives 0.
TEST_F(SocketHelperTest, GetTtlInvalidFamily) {
    ControlBuffer buffer(24);
    buffer.append(IPPROTO_IP, IP_TTL, intBytes(64));
    EXPECT_EQ(0, helper.getTtl(&buffer.msg, 99));
    EXPECT_EQ(std::vector<std::string>{"getTtl(): Invalid socket Family 99"},
              TraceRecorder::twampMessages("INFO"));
}

// ---- setDscp and setHopLimit ----

// IPv4: TOS dscp * 4 is set on the socket; the message is left alone.
TEST_F(SocketHelperTest, SetDscpIpv4SetsSocketOption) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_NE(-1, fd);
    ControlBuffer buffer(48);
    EXPECT_TRUE(helper.setDscp(&buffer.msg, AF_INET, fd, 46));
    int tos = 0;
    socklen_t length = sizeof(tos);
    ASSERT_EQ(0, getsockopt(fd, IPPROTO_IP, IP_TOS, &tos, &length));
    close(fd);
    EXPECT_EQ(184, tos);
    EXPECT_EQ(48U, buffer.msg.msg_controllen);
    EXPECT_EQ(std::vector<uint8_t>(48, 0), buffer.bytes);
}

// IPv4: a failing setsockopt is traced at INFO with the word "errorno".
TEST_F(SocketHelperTest, SetDscpIpv4FailureTraced) {
    ControlBuffer buffer(48);
    EXPECT_FALSE(helper.setDscp(&buffer.msg, AF_INET, -1, 46));
    EXPECT_EQ(std::vector<std::string>{"setDscp(): Failed to set socket option IP_TOS: errorno 9 - "
                                       "Bad file descriptor"},
              TraceRecorder::twampMessages("INFO"));
}

// IPv6: the traffic class is added as ancillary data at offset 0.
TEST_F(SocketHelperTest, SetDscpIpv6AddsTrafficClass) {
    ControlBuffer buffer(48);
    EXPECT_TRUE(helper.setDscp(&buffer.msg, AF_INET6, -1, 46));
    ControlBuffer expected(48);
    expected.put(0, 20, IPPROTO_IPV6, IPV6_TCLASS, intBytes(184));
    EXPECT_EQ(expected.bytes, buffer.bytes);
    EXPECT_EQ(48U, buffer.msg.msg_controllen);
}

// Another family is traced at INFO; nothing is set.
TEST_F(SocketHelperTest, SetDscpInvalidFamily) {
    ControlBuffer buffer(48);
    EXPECT_FALSE(helper.setDscp(&buffer.msg, AF_UNIX, -1, 46));
    EXPECT_EQ(std::vector<std::string>{"setDscp(): Invalid socket Family 1"},
              TraceRecorder::twampMessages("INFO"));
    EXPECT_EQ(std::vector<uint8_t>(48, 0), buffer.bytes);
}

// Traffic class then hop limit land at offsets 0 and 24 of a 48-byte buffer.
TEST_F(SocketHelperTest, SetHopLimitFollowsTrafficClass) {
    ControlBuffer buffer(48);
    ASSERT_TRUE(helper.setDscp(&buffer.msg, AF_INET6, -1, 46));
    EXPECT_TRUE(helper.setHopLimit(&buffer.msg));
    ControlBuffer expected(48);
    expected.put(0, 20, IPPROTO_IPV6, IPV6_TCLASS, intBytes(184));
    expected.put(24, 20, IPPROTO_IPV6, IPV6_HOPLIMIT, intBytes(255));
    EXPECT_EQ(expected.bytes, buffer.bytes);
    EXPECT_EQ(48U, buffer.msg.msg_controllen);
}

// ---- setAncillaryData ----

// Four bytes of data fit into exactly 20 unused bytes.
TEST_F(SocketHelperTest, SetAncillaryDataFitsIntoTwentyBytes) {
    ControlBuffer buffer(20);
    EXPECT_TRUE(setAncillaryData(&buffer.msg, IPPROTO_IPV6, IPV6_TCLASS, intBytes(184).data(), 4));
    ControlBuffer expected(20);
    expected.put(0, 20, IPPROTO_IPV6, IPV6_TCLASS, intBytes(184));
    EXPECT_EQ(expected.bytes, buffer.bytes);
    EXPECT_TRUE(TraceRecorder::records().empty());
}

// Nineteen unused bytes are too few for four bytes of data: LAB trace, buffer unchanged.
TEST_F(SocketHelperTest, SetAncillaryDataFailsWithNineteenBytes) {
    ControlBuffer buffer(19);
    EXPECT_FALSE(setAncillaryData(&buffer.msg, IPPROTO_IPV6, IPV6_TCLASS, intBytes(184).data(), 4));
    EXPECT_EQ(std::vector<std::string>{"setAncillaryData(): Out of CMSG buffer space"},
              TraceRecorder::twampMessages("LAB"));
    EXPECT_EQ(std::vector<uint8_t>(19, 0), buffer.bytes);
}

// Behind a 24-byte message, 20 unused bytes of a 44-byte buffer take the new one at 24.
TEST_F(SocketHelperTest, SetAncillaryDataAppendsBehindExistingMessage) {
    ControlBuffer buffer(44);
    buffer.put(0, 24, IPPROTO_IPV6, IPV6_PKTINFO, {1, 2, 3, 4, 5, 6, 7, 8});
    EXPECT_TRUE(
        setAncillaryData(&buffer.msg, IPPROTO_IPV6, IPV6_HOPLIMIT, intBytes(255).data(), 4));
    EXPECT_EQ(20U, buffer.lengthAt(24));
    EXPECT_EQ(44U, buffer.msg.msg_controllen);
}

// Behind a 24-byte message, 19 unused bytes of a 43-byte buffer are too few.
TEST_F(SocketHelperTest, SetAncillaryDataFailsBehindExistingMessage) {
    ControlBuffer buffer(43);
    buffer.put(0, 24, IPPROTO_IPV6, IPV6_PKTINFO, {1, 2, 3, 4, 5, 6, 7, 8});
    EXPECT_FALSE(
        setAncillaryData(&buffer.msg, IPPROTO_IPV6, IPV6_HOPLIMIT, intBytes(255).data(), 4));
    EXPECT_EQ(std::vector<std::string>{"setAncillaryData(): Out of CMSG buffer space"},
              TraceRecorder::twampMessages("LAB"));
}

// Space is counted without rounding, but the new message must also fit at
// its aligned offset: 20 "unused" bytes of 40 behind a 20-byte message would
// end at 44, so nothing is written.
TEST_F(SocketHelperTest, SetAncillaryDataNeverWritesPastTheBuffer) {
    ControlBuffer buffer(40);
    buffer.put(0, 20, IPPROTO_IPV6, IPV6_TCLASS, intBytes(184));
    EXPECT_FALSE(
        setAncillaryData(&buffer.msg, IPPROTO_IPV6, IPV6_HOPLIMIT, intBytes(255).data(), 4));
    EXPECT_EQ(std::vector<std::string>{"setAncillaryData(): Out of CMSG buffer space"},
              TraceRecorder::twampMessages("LAB"));
}

// A control length below 16 fails with the LAB trace.
TEST_F(SocketHelperTest, SetAncillaryDataNeedsSixteenBytes) {
    ControlBuffer buffer(15);
    EXPECT_FALSE(setAncillaryData(&buffer.msg, IPPROTO_IPV6, IPV6_TCLASS, intBytes(1).data(), 0));
    EXPECT_EQ(std::vector<std::string>{"setAncillaryData(): Out of CMSG buffer space"},
              TraceRecorder::twampMessages("LAB"));
}

// A header shorter than 16 bytes ends the walk with a failure.
TEST_F(SocketHelperTest, SetAncillaryDataFailsAtShortHeader) {
    ControlBuffer buffer(64);
    buffer.put(0, 8, IPPROTO_IPV6, IPV6_TCLASS);
    EXPECT_FALSE(
        setAncillaryData(&buffer.msg, IPPROTO_IPV6, IPV6_HOPLIMIT, intBytes(255).data(), 4));
    EXPECT_EQ(std::vector<std::string>{"setAncillaryData(): Out of CMSG buffer space"},
              TraceRecorder::twampMessages("LAB"));
}

// A next header that would lie past the buffer (at 24 of 36 bytes) fails.
TEST_F(SocketHelperTest, SetAncillaryDataFailsWhenNextHeaderIsPastTheBuffer) {
    ControlBuffer buffer(36);
    buffer.put(0, 20, IPPROTO_IPV6, IPV6_TCLASS, intBytes(184));
    EXPECT_FALSE(setAncillaryData(&buffer.msg, IPPROTO_IPV6, IPV6_HOPLIMIT, nullptr, 0));
    EXPECT_EQ(std::vector<std::string>{"setAncillaryData(): Out of CMSG buffer space"},
              TraceRecorder::twampMessages("LAB"));
}

}  // namespace
