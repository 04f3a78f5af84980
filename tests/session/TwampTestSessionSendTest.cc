#include "TwampTestSession.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "PmPeriodRecord.h"
#include "RandomFd.h"
#include "SessionTestBase.h"
#include "TraceRecorder.h"
#include "TwampTestSessionPeer.h"

namespace {

using ::testing::Return;
using twamp_test::minuteOfHour;
using twamp_test::ScriptedSystemCalls;
using twamp_test::SentPacket;
using twamp_test::SessionTestBase;
using twamp_test::TraceRecorder;
using Messages = std::vector<std::string>;

uint32_t readBigEndian32(const std::vector<uint8_t>& bytes, std::size_t offset) {
    uint32_t value = 0;
    for (std::size_t index = 0; index < 4; ++index) {
        value = (value << 8) | bytes.at(offset + index);
    }
    return value;
}

uint64_t readBigEndian64(const std::vector<uint8_t>& bytes, std::size_t offset) {
    return (static_cast<uint64_t>(readBigEndian32(bytes, offset)) << 32) |
           readBigEndian32(bytes, offset + 4);
}

// The padding bytes of a sent packet (14 to 63).
std::vector<uint8_t> paddingOf(const SentPacket& packet) {
    return std::vector<uint8_t>(packet.payload.begin() + 14, packet.payload.end());
}

// One control item read back from a sent control area.
struct ControlItem {
    std::size_t length;
    int level;
    int type;
    int value;
};

ControlItem controlItemAt(const SentPacket& packet, std::size_t offset) {
    struct cmsghdr header;
    std::memcpy(&header, packet.control.data() + offset, sizeof(header));
    int value = 0;
    std::memcpy(&value, packet.control.data() + offset + CMSG_LEN(0), sizeof(value));
    return {header.cmsg_len, header.cmsg_level, header.cmsg_type, value};
}

// A started session, armed in minute 7, whose sends are observed.
class TwampTestSessionSendTest : public SessionTestBase {
  protected:
    std::unique_ptr<TwampTestSession> startSession(const char* address = "127.0.0.1") {
        auto session = makeSession(10, 0, 0, address, 46);
        EXPECT_TRUE(session->init());
        TraceRecorder::reset();
        return session;
    }
};

// Packet k carries Sequence Number k, and the map of minute 8's parity holds keys 0 to k.
TEST_F(TwampTestSessionSendTest, PacketKCarriesSequenceNumberK) {
    auto session = startSession();
    fire(*session, minuteOfHour(8));
    fire(*session, minuteOfHour(8), 100000000);
    fire(*session, minuteOfHour(8), 200000000);
    ASSERT_EQ(3u, systemCalls.sent.size());
    EXPECT_EQ(0u, readBigEndian32(systemCalls.sent[0].payload, 0));
    EXPECT_EQ(1u, readBigEndian32(systemCalls.sent[1].payload, 0));
    EXPECT_EQ(2u, readBigEndian32(systemCalls.sent[2].payload, 0));
    EXPECT_EQ((std::vector<uint32_t>{0, 1, 2}),
              TwampTestSessionPeer::getOutstandingSeqNos(*session, 0));
    EXPECT_EQ(std::vector<uint32_t>{}, TwampTestSessionPeer::getOutstandingSeqNos(*session, 1));
    EXPECT_EQ(3u, TwampTestSessionPeer::getSequenceNumber(*session));
    EXPECT_EQ(3u, TwampTestSessionPeer::getSentOkCount(*session));
}

// A packet sent in an odd minute is kept in the map of parity 1.
TEST_F(TwampTestSessionSendTest, OddMinuteUsesParityOneMap) {
    clock.set(minuteOfHour(8) + 10);
    auto session = startSession();
    fire(*session, minuteOfHour(9));
    EXPECT_EQ(std::vector<uint32_t>{0}, TwampTestSessionPeer::getOutstandingSeqNos(*session, 1));
    EXPECT_EQ(std::vector<uint32_t>{}, TwampTestSessionPeer::getOutstandingSeqNos(*session, 0));
}

// The packet holds T1 as NTP and the fixed Error Estimate, and is sent whole to the destination.
TEST_F(TwampTestSessionSendTest, PacketHoldsTimestampAndErrorEstimate) {
    auto session = startSession();
    fire(*session, minuteOfHour(8), 500000000);
    ASSERT_EQ(1u, systemCalls.sent.size());
    const SentPacket& packet = systemCalls.sent[0];
    EXPECT_EQ(0xE8FE6E4080000000ULL, readBigEndian64(packet.payload, 4));
    EXPECT_EQ(0x05, packet.payload.at(12));
    EXPECT_EQ(0x86, packet.payload.at(13));
    EXPECT_EQ(64u, packet.payload.size());
    EXPECT_EQ(sizeof(struct sockaddr_in), packet.nameLength);
    EXPECT_EQ(twamp_test::SessionTestBase::kSocketFd, packet.fd);
}

// Every padding byte is XORed with one fresh random byte, and the XORs accumulate.
TEST_F(TwampTestSessionSendTest, PaddingVariesWithOneRandomByte) {
    auto session = startSession();  // padding written as 0x5A
    systemCalls.randomByte = 0x0F;
    fire(*session, minuteOfHour(8));
    fire(*session, minuteOfHour(8), 100000000);
    ASSERT_EQ(2u, systemCalls.sent.size());
    EXPECT_EQ(std::vector<uint8_t>(50, 0x55), paddingOf(systemCalls.sent[0]));
    EXPECT_EQ(std::vector<uint8_t>(50, 0x5A), paddingOf(systemCalls.sent[1]));
    // The random bytes are read ahead in one block.
    EXPECT_EQ((std::vector<std::size_t>{50, 256}), systemCalls.randomReadLengths);
}

// A packet sent whole counts in sentPkts of its minute's slot.
TEST_F(TwampTestSessionSendTest, SentPacketCountsInMinuteSlot) {
    auto session = startSession();
    fire(*session, minuteOfHour(8));
    fire(*session, minuteOfHour(8), 100000000);
    fire(*session, minuteOfHour(9) + 4);
    fire(*session, minuteOfHour(16));
    EXPECT_EQ(2, TwampTestSessionPeer::getRecord(*session, 0).at(PmCounter::sentPkts, 8));
    EXPECT_EQ(1, TwampTestSessionPeer::getRecord(*session, 1).at(PmCounter::sentPkts, 1));
}

// With /dev/urandom unopenable no packet is ever sent and the sequence number stays 0.
TEST_F(TwampTestSessionSendTest, NoRandomSourceSendsNothing) {
    RandomFd missing("/nonexistent/urandom");
    ON_CALL(env.controller, getRandomFd()).WillByDefault(::testing::ReturnRef(missing));
    auto session = makeSession();
    EXPECT_FALSE(session->init());
    TraceRecorder::reset();
    fire(*session, minuteOfHour(8));
    fire(*session, minuteOfHour(8), 100000000);
    EXPECT_TRUE(systemCalls.sent.empty());
    EXPECT_EQ(0u, TwampTestSessionPeer::getSequenceNumber(*session));
    EXPECT_EQ(0u, TwampTestSessionPeer::getSendFailedCount(*session));
    EXPECT_EQ(0, TwampTestSessionPeer::getRecord(*session, 0).at(PmCounter::sentPkts, 8));
    EXPECT_EQ((Messages{"sendMessage(): Failed to set packet padding: /dev/urandom not open",
                        "sendMessage(): Failed to set packet padding: /dev/urandom not open"}),
              TraceRecorder::twampMessages("ERROR"));
}

// A failed random read sends nothing and traces the errno.
TEST_F(TwampTestSessionSendTest, RandomReadFailureSendsNothing) {
    auto session = startSession();
    systemCalls.randomFails = true;
    systemCalls.randomResult = -1;
    systemCalls.randomErrno = EIO;
    fire(*session, minuteOfHour(8));
    EXPECT_TRUE(systemCalls.sent.empty());
    EXPECT_EQ(0u, TwampTestSessionPeer::getSequenceNumber(*session));
    EXPECT_EQ(Messages{"sendMessage(): Failed to set packet padding: errno 5 - Input/output error"},
              TraceRecorder::twampMessages("ERROR"));
}

// A random read of no byte sends nothing and traces both counts.
TEST_F(TwampTestSessionSendTest, RandomShortReadSendsNothing) {
    auto session = startSession();
    systemCalls.randomFails = true;
    systemCalls.randomResult = 0;
    fire(*session, minuteOfHour(8));
    EXPECT_TRUE(systemCalls.sent.empty());
    EXPECT_EQ(Messages{"sendMessage(): Failed to set packet padding, expected 1 bytes, sent 0 "
                       "bytes"},
              TraceRecorder::twampMessages("ERROR"));
}

// For IPv4 the shared socket's IP_TOS is set to dscp * 4 only when it holds another value.
TEST_F(TwampTestSessionSendTest, Ipv4SetsTosOnlyWhenItChanges) {
    auto session = startSession();
    fire(*session, minuteOfHour(8));
    fire(*session, minuteOfHour(8), 100000000);
    // Another session's packet left with another TOS in between.
    env.udpSocket.setAppliedTos(0);
    fire(*session, minuteOfHour(8), 200000000);
    const std::string tos =
        "setsockopt 7 " + std::to_string(IPPROTO_IP) + " " + std::to_string(IP_TOS) + " 184";
    EXPECT_EQ((Messages{tos, "sendmsg 7", "sendmsg 7", tos, "sendmsg 7"}), systemCalls.events);
    EXPECT_EQ(0u, systemCalls.sent[0].controlLength);
}

// A failed IP_TOS is traced and the packet is sent anyway.
TEST_F(TwampTestSessionSendTest, Ipv4TosFailureStillSends) {
    auto session = startSession();
    systemCalls.setsockoptErrno = EBADF;
    fire(*session, minuteOfHour(8));
    EXPECT_EQ(Messages{"setDscp(): Failed to set socket option IP_TOS: errno 9 - Bad file "
                       "descriptor"},
              TraceRecorder::twampMessages("ERROR"));
    EXPECT_EQ(1u, systemCalls.sent.size());
    EXPECT_EQ(1u, TwampTestSessionPeer::getSequenceNumber(*session));
}

// For IPv6 the control length is 48: traffic class at offset 0, hop limit 255 at offset 24.
TEST_F(TwampTestSessionSendTest, Ipv6AddsTrafficClassAndHopLimit) {
    ON_CALL(env.udpSocket, getFamily()).WillByDefault(Return(AF_INET6));
    auto session = startSession("::1");
    fire(*session, minuteOfHour(8));
    ASSERT_EQ(1u, systemCalls.sent.size());
    const SentPacket& packet = systemCalls.sent[0];
    ASSERT_EQ(48u, packet.controlLength);
    const ControlItem trafficClass = controlItemAt(packet, 0);
    EXPECT_EQ(20u, trafficClass.length);
    EXPECT_EQ(IPPROTO_IPV6, trafficClass.level);
    EXPECT_EQ(IPV6_TCLASS, trafficClass.type);
    EXPECT_EQ(184, trafficClass.value);
    const ControlItem hopLimit = controlItemAt(packet, 24);
    EXPECT_EQ(20u, hopLimit.length);
    EXPECT_EQ(IPPROTO_IPV6, hopLimit.level);
    EXPECT_EQ(IPV6_HOPLIMIT, hopLimit.type);
    EXPECT_EQ(255, hopLimit.value);
    EXPECT_EQ(Messages{"sendmsg 7"}, systemCalls.events);
    EXPECT_EQ(sizeof(struct sockaddr_in6), packet.nameLength);
}

// Another family gets neither the socket option nor ancillary data.
TEST_F(TwampTestSessionSendTest, OtherFamilySetsNothing) {
    ON_CALL(env.udpSocket, getFamily()).WillByDefault(Return(0));
    auto session = startSession();
    fire(*session, minuteOfHour(8));
    EXPECT_EQ(Messages{"sendmsg 7"}, systemCalls.events);
    EXPECT_EQ(0u, systemCalls.sent.at(0).controlLength);
}

// The same errno five times in a row is traced once and counted five times.
TEST_F(TwampTestSessionSendTest, RepeatedSendErrorTracedOnce) {
    auto session = startSession();
    for (int attempt = 0; attempt < 5; ++attempt) {
        systemCalls.sendResults.push_back({-1, ENETUNREACH});
        fire(*session, minuteOfHour(8), attempt * 100000000L);
    }
    EXPECT_EQ(Messages{"sendMessage(): Failed sendmsg: errno 101 - Network is unreachable"},
              TraceRecorder::twampMessages("LAB"));
    EXPECT_EQ(5u, TwampTestSessionPeer::getSendFailedCount(*session));
    EXPECT_EQ(101, TwampTestSessionPeer::getLastSendErrno(*session));
    EXPECT_EQ(0u, TwampTestSessionPeer::getSequenceNumber(*session));
    EXPECT_EQ(std::vector<uint32_t>{}, TwampTestSessionPeer::getOutstandingSeqNos(*session, 0));
    EXPECT_EQ(0, TwampTestSessionPeer::getRecord(*session, 0).at(PmCounter::sentPkts, 8));
}

// A different errno is traced again.
TEST_F(TwampTestSessionSendTest, ChangedSendErrorTracedAgain) {
    auto session = startSession();
    systemCalls.sendResults.push_back({-1, ENETUNREACH});
    systemCalls.sendResults.push_back({-1, EPERM});
    fire(*session, minuteOfHour(8));
    fire(*session, minuteOfHour(8), 100000000);
    EXPECT_EQ((Messages{"sendMessage(): Failed sendmsg: errno 101 - Network is unreachable",
                        "sendMessage(): Failed sendmsg: errno 1 - Operation not permitted"}),
              TraceRecorder::twampMessages("LAB"));
}

// A success between two equal failures makes the second one traced again.
TEST_F(TwampTestSessionSendTest, SuccessResetsRepeatedErrorSuppression) {
    auto session = startSession();
    systemCalls.sendResults.push_back({-1, ENETUNREACH});
    systemCalls.sendResults.push_back({64, 0});
    systemCalls.sendResults.push_back({-1, ENETUNREACH});
    fire(*session, minuteOfHour(8));
    fire(*session, minuteOfHour(8), 100000000);
    fire(*session, minuteOfHour(8), 200000000);
    EXPECT_EQ((Messages{"sendMessage(): Failed sendmsg: errno 101 - Network is unreachable",
                        "sendMessage(): Failed sendmsg: errno 101 - Network is unreachable"}),
              TraceRecorder::twampMessages("LAB"));
    EXPECT_EQ(2u, TwampTestSessionPeer::getSendFailedCount(*session));
    EXPECT_EQ(1u, TwampTestSessionPeer::getSentOkCount(*session));
}

// A partial send resets the last errno to 0, so a following -1 is traced again.
TEST_F(TwampTestSessionSendTest, PartialSendResetsLastErrno) {
    auto session = startSession();
    systemCalls.sendResults.push_back({-1, ENETUNREACH});
    systemCalls.sendResults.push_back({10, 0});
    systemCalls.sendResults.push_back({-1, ENETUNREACH});
    fire(*session, minuteOfHour(8));
    fire(*session, minuteOfHour(8), 100000000);
    EXPECT_EQ(0, TwampTestSessionPeer::getLastSendErrno(*session));
    fire(*session, minuteOfHour(8), 200000000);
    EXPECT_EQ((Messages{"sendMessage(): Failed sendmsg: errno 101 - Network is unreachable",
                        "sendMessage(): Partial/failed sendmsg, expected 64 bytes, sent 10 bytes",
                        "sendMessage(): Failed sendmsg: errno 101 - Network is unreachable"}),
              TraceRecorder::twampMessages("LAB"));
    EXPECT_EQ(3u, TwampTestSessionPeer::getSendFailedCount(*session));
}

// A partial send keeps the sequence number and creates no outstanding packet.
TEST_F(TwampTestSessionSendTest, PartialSendKeepsSequenceNumber) {
    auto session = startSession();
    systemCalls.sendResults.push_back({10, 0});
    fire(*session, minuteOfHour(8));
    fire(*session, minuteOfHour(8), 100000000);
    ASSERT_EQ(2u, systemCalls.sent.size());
    EXPECT_EQ(0u, readBigEndian32(systemCalls.sent[1].payload, 0));
    EXPECT_EQ(std::vector<uint32_t>{0}, TwampTestSessionPeer::getOutstandingSeqNos(*session, 0));
    EXPECT_EQ(1, TwampTestSessionPeer::getRecord(*session, 0).at(PmCounter::sentPkts, 8));
    EXPECT_EQ(1u, TwampTestSessionPeer::getSendFailedCount(*session));
    EXPECT_EQ(1u, TwampTestSessionPeer::getSentOkCount(*session));
}

}  // namespace
