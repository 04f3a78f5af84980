// The reflector loop against a UDP socket of the test, over loopback.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

#include "FakeReflectorClock.h"
#include "NtpTimestamp.h"
#include "ReceiveTimestamps.h"
#include "Reflector.h"
#include "SystemReflectorClock.h"
#include "TestClient.h"
#include "TruthWriter.h"
#include "TwampTestMessage.h"

namespace {

using reflector_test::ClientReply;
using reflector_test::FakeReflectorClock;
using reflector_test::TestClient;

// Bounds every wait for a datagram that should come; none is expected to need it.
constexpr int64_t kWaitNs = 5000000000LL;
constexpr int kWaitMs = 5000;
constexpr int kClientTtl = 77;
constexpr int kClientTos = 0xB8;  // DSCP 46
// 2023-11-14 22:13:20.5 UTC: sender minute 28333333.
constexpr uint64_t kT1 = ((1700000000ULL + 2208988800ULL) << 32) | 0x80000000ULL;

class ReflectorLoopbackTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(reflector_test::receiveTimestampsOn());
        char path[] = "/tmp/reflector_loopback_XXXXXX";
        const int fd = mkstemp(path);
        ASSERT_GE(fd, 0);
        close(fd);
        truthPath_ = path;
        options.port = 0;
        options.seed = 1;
        options.seedGiven = true;
        options.truthPath = truthPath_;
    }
    void TearDown() override { unlink(truthPath_.c_str()); }

    // Starts the reflector on address and a client towards it; false when the
    // address cannot be used here.
    bool start(const std::string& address, ReflectorClock& clock,
               const std::string& clientAddress = "") {
        options.listenAddress = address;
        std::string error;
        if (!truth_.open(truthPath_, error)) {
            ADD_FAILURE() << error;
            return false;
        }
        reflector_ = std::make_unique<Reflector>(options, clock, truth_);
        if (!reflector_->open(error)) {
            return false;
        }
        const std::string target = clientAddress.empty() ? address : clientAddress;
        return client_.open(target, reflector_->port(), kClientTtl, kClientTos);
    }

    // Sends one request and lets the reflector handle it.
    void exchange(uint32_t seq, std::size_t size = 64) {
        ASSERT_TRUE(client_.send(TestClient::packet(seq, kT1, size)));
        reflector_->runOnce(kWaitNs);
    }

    ClientReply expectReply() {
        ClientReply reply;
        EXPECT_TRUE(client_.receive(reply, kWaitMs)) << "no reply";
        return reply;
    }

    // Nothing was sent back by what the reflector has done so far.
    void expectNoReply() {
        ClientReply reply;
        EXPECT_FALSE(client_.receive(reply, 0)) << "unexpected reply";
    }

    // The ground truth after the start line, as written.
    std::vector<std::string> rawTruthAfterStart() {
        std::ifstream file(truthPath_);
        std::vector<std::string> lines;
        std::string line;
        while (std::getline(file, line)) {
            lines.push_back(line);
        }
        EXPECT_FALSE(lines.empty());
        if (lines.empty()) {
            return lines;
        }
        EXPECT_EQ(0u, lines[0].find("{\"event\":\"start\","));
        return std::vector<std::string>(lines.begin() + 1, lines.end());
    }

    // The ground truth after the start line, reply lines without their real times.
    std::vector<std::string> truthAfterStart() {
        std::vector<std::string> lines = rawTruthAfterStart();
        for (std::string& line : lines) {
            line = withoutRealTimes(line);
        }
        return lines;
    }

    // A reply line without the times that only the kernel and the clock know (its last fields).
    static std::string withoutRealTimes(const std::string& line) {
        const std::size_t start = line.find(",\"rxKernelNs\":");
        return start == std::string::npos ? line : line.substr(0, start) + "}";
    }

    static TruthPacket packet(uint32_t seq) {
        TruthPacket value;
        value.senderSeq = seq;
        value.senderTimestamp = kT1;
        return value;
    }

    static std::string replyLine(uint32_t senderSeq, uint32_t reflectorSeq, int copy = 1,
                                 bool reordered = false) {
        ReplyTruth reply;
        reply.packet = packet(senderSeq);
        reply.reflectorSeq = reflectorSeq;
        reply.copy = copy;
        reply.senderTtl = kClientTtl;
        reply.tos = kClientTos;
        reply.length = 64;
        reply.reordered = reordered;
        return withoutRealTimes(TruthWriter::replyLine(reply));
    }

    // The reply echoes the request and carries the reflector's fields.
    static void expectReplyFields(const ClientReply& reply, uint32_t senderSeq,
                                  uint32_t reflectorSeq, std::size_t length = 64) {
        ASSERT_EQ(length, reply.bytes.size());
        std::vector<uint8_t> bytes = reply.bytes;
        const TwampTestMessage message(bytes.data(), bytes.size());
        EXPECT_EQ(reflectorSeq, message.getSequenceNumber());
        EXPECT_EQ(senderSeq, message.getSenderSequenceNumber());
        EXPECT_EQ(kT1, message.getSenderTimestamp());
        EXPECT_EQ(0x0586, message.getSenderErrorEstimate());
        EXPECT_EQ(0xA001, message.getErrorEstimate());
        EXPECT_EQ(kClientTtl, message.getSenderTtl());
        EXPECT_EQ(0, bytes[14] | bytes[15] | bytes[38] | bytes[39]);
        for (std::size_t i = 41; i < bytes.size(); ++i) {
            EXPECT_EQ(0x5A, bytes[i]) << "padding at " << i;
        }
    }

    ReflectorOptions options;
    SystemReflectorClock systemClock_;
    FakeReflectorClock fakeClock_;
    TruthWriter truth_;
    std::unique_ptr<Reflector> reflector_;
    TestClient client_;
    std::string truthPath_;
};

uint64_t ntp(const timespec& time) {
    return toNtpTimestamp(time);
}

int64_t nanoseconds(const timespec& time) {
    return static_cast<int64_t>(time.tv_sec) * 1000000000LL + time.tv_nsec;
}

timespec fromNanoseconds(int64_t value) {
    timespec time{};
    time.tv_sec = static_cast<time_t>(value / 1000000000LL);
    time.tv_nsec = static_cast<long>(value % 1000000000LL);
    return time;
}

// The text of one field of a truth line ("null" included); empty when absent.
std::string fieldText(const std::string& line, const std::string& key) {
    const std::string marker = "\"" + key + "\":";
    const std::size_t start = line.find(marker);
    if (start == std::string::npos) {
        return "";
    }
    const std::size_t begin = start + marker.size();
    return line.substr(begin, line.find_first_of(",}", begin) - begin);
}

int64_t integerField(const std::string& line, const std::string& key) {
    return std::strtoll(fieldText(line, key).c_str(), nullptr, 10);
}

// An IPv4 request gets one reply: fields, T2 <= T3, TTL 255 and the request's TOS.
TEST_F(ReflectorLoopbackTest, RepliesOverIpv4) {
    ASSERT_TRUE(start("127.0.0.1", systemClock_));
    exchange(5);
    const ClientReply reply = expectReply();
    expectReplyFields(reply, 5, 0);
    std::vector<uint8_t> bytes = reply.bytes;
    const TwampTestMessage message(bytes.data(), bytes.size());
    EXPECT_GT(message.getReceiveTimestamp(), kT1);
    EXPECT_LE(message.getReceiveTimestamp(), message.getTimestamp());
    EXPECT_EQ(255, reply.ttl);
    EXPECT_EQ(kClientTos, reply.tos);
    EXPECT_EQ(std::vector<std::string>{replyLine(5, 0)}, truthAfterStart());
}

// The same over IPv6: hop limit and traffic class.
TEST_F(ReflectorLoopbackTest, RepliesOverIpv6) {
    if (!start("::1", systemClock_)) {
        GTEST_SKIP() << "IPv6 loopback is not usable here";
    }
    exchange(6);
    const ClientReply reply = expectReply();
    expectReplyFields(reply, 6, 0);
    EXPECT_EQ(255, reply.ttl);
    EXPECT_EQ(kClientTos, reply.tos);
    EXPECT_EQ(std::vector<std::string>{replyLine(6, 0)}, truthAfterStart());
}

// Listening on :: answers IPv4 as well, with the IPv4 TTL and TOS.
TEST_F(ReflectorLoopbackTest, DualStackAnswersIpv4) {
    if (!start("::", systemClock_, "127.0.0.1")) {
        GTEST_SKIP() << "IPv6 is not usable here";
    }
    exchange(7);
    const ClientReply reply = expectReply();
    expectReplyFields(reply, 7, 0);
    EXPECT_EQ(255, reply.ttl);
    EXPECT_EQ(kClientTos, reply.tos);
    EXPECT_EQ(std::vector<std::string>{replyLine(7, 0)}, truthAfterStart());
}

// --reply-ttl sets the TTL of the replies.
TEST_F(ReflectorLoopbackTest, ReplyTtlOption) {
    options.replyTtl = 9;
    ASSERT_TRUE(start("127.0.0.1", systemClock_));
    exchange(1);
    EXPECT_EQ(9, expectReply().ttl);
}

// At 100 % forward loss nothing is counted or answered.
TEST_F(ReflectorLoopbackTest, ForwardLossAtHundredPercent) {
    options.forwardLossPercent = 100.0;
    ASSERT_TRUE(start("127.0.0.1", systemClock_));
    exchange(1);
    exchange(2);
    expectNoReply();
    reflector_->finish();
    const std::vector<std::string> expected = {
        TruthWriter::forwardLossLine(packet(1)),
        TruthWriter::forwardLossLine(packet(2)),
        "{\"event\":\"stop\",\"senderSeq\":null,\"senderMinute\":null,\"received\":2,\"short\":0,"
        "\"fwdLost\":2,\"accepted\":0,\"revLost\":0,\"sent\":0,\"sendErrors\":0,\"discarded\":0}",
    };
    EXPECT_EQ(expected, truthAfterStart());
}

// At 100 % reverse loss every request is counted and no reply sent.
TEST_F(ReflectorLoopbackTest, ReverseLossAtHundredPercent) {
    options.reverseLossPercent = 100.0;
    ASSERT_TRUE(start("127.0.0.1", systemClock_));
    exchange(1);
    exchange(2);
    expectNoReply();
    const std::vector<std::string> expected = {
        TruthWriter::reverseLossLine(packet(1), 0, 0),
        TruthWriter::reverseLossLine(packet(2), 1, 0),
    };
    EXPECT_EQ(expected, truthAfterStart());
}

// At 100 % duplication each reply comes twice, byte for byte.
TEST_F(ReflectorLoopbackTest, DuplicateAtHundredPercent) {
    options.duplicatePercent = 100.0;
    ASSERT_TRUE(start("127.0.0.1", systemClock_));
    exchange(3);
    const ClientReply first = expectReply();
    const ClientReply second = expectReply();
    expectReplyFields(first, 3, 0);
    EXPECT_EQ(first.bytes, second.bytes);
    const std::vector<std::string> expected = {replyLine(3, 0, 1), replyLine(3, 0, 2)};
    EXPECT_EQ(expected, truthAfterStart());
}

// At 100 % reordering replies leave in swapped pairs.
TEST_F(ReflectorLoopbackTest, ReorderAtHundredPercent) {
    options.reorderPercent = 100.0;
    ASSERT_TRUE(start("127.0.0.1", systemClock_));
    exchange(10);
    expectNoReply();
    exchange(11);
    expectReplyFields(expectReply(), 11, 1);
    expectReplyFields(expectReply(), 10, 0);
    const std::vector<std::string> expected = {replyLine(11, 1), replyLine(10, 0, 1, true)};
    EXPECT_EQ(expected, truthAfterStart());
}

// After every N accepted requests the reflector sequence number starts again at 0.
TEST_F(ReflectorLoopbackTest, RestartEvery) {
    options.restartEvery = 2;
    ASSERT_TRUE(start("127.0.0.1", systemClock_));
    const uint32_t expectedReflectorSeq[] = {0, 1, 0, 1, 0};
    for (uint32_t seq = 0; seq < 5; ++seq) {
        exchange(seq);
        expectReplyFields(expectReply(), seq, expectedReflectorSeq[seq]);
    }
    const std::vector<std::string> expected = {
        replyLine(0, 0), replyLine(1, 1), TruthWriter::restartLine(packet(2)),
        replyLine(2, 0), replyLine(3, 1), TruthWriter::restartLine(packet(4)),
        replyLine(4, 0),
    };
    EXPECT_EQ(expected, truthAfterStart());
}

// Every sender (address and port) is a session of its own: its replies are
// numbered from 0 whatever other senders do.
TEST_F(ReflectorLoopbackTest, SequenceNumbersPerSender) {
    ASSERT_TRUE(start("127.0.0.1", systemClock_));
    TestClient second;
    ASSERT_TRUE(second.open("127.0.0.1", reflector_->port(), kClientTtl, kClientTos));
    exchange(0);
    expectReplyFields(expectReply(), 0, 0);
    ASSERT_TRUE(second.send(TestClient::packet(7, kT1, 64)));
    reflector_->runOnce(kWaitNs);
    ClientReply secondReply;
    ASSERT_TRUE(second.receive(secondReply, kWaitMs));
    expectReplyFields(secondReply, 7, 0);
    exchange(1);
    expectReplyFields(expectReply(), 1, 1);
}

// A restart starts every sender's numbers again at 0.
TEST_F(ReflectorLoopbackTest, RestartResetsEverySender) {
    options.restartEvery = 2;
    ASSERT_TRUE(start("127.0.0.1", systemClock_));
    TestClient second;
    ASSERT_TRUE(second.open("127.0.0.1", reflector_->port(), kClientTtl, kClientTos));
    exchange(0);
    expectReplyFields(expectReply(), 0, 0);
    ASSERT_TRUE(second.send(TestClient::packet(7, kT1, 64)));
    reflector_->runOnce(kWaitNs);
    ClientReply secondReply;
    ASSERT_TRUE(second.receive(secondReply, kWaitMs));
    expectReplyFields(secondReply, 7, 0);
    exchange(1);
    expectReplyFields(expectReply(), 1, 0);
}

// A restart after N accepted requests: the gap's requests are lost unanswered,
// then the sequence number starts again at 0, once.
TEST_F(ReflectorLoopbackTest, RestartAfterGap) {
    options.restartAfter = 2;
    options.restartGap = 2;
    ASSERT_TRUE(start("127.0.0.1", systemClock_));
    exchange(0);
    expectReplyFields(expectReply(), 0, 0);
    exchange(1);
    expectReplyFields(expectReply(), 1, 1);
    exchange(2);
    exchange(3);
    expectNoReply();
    for (uint32_t seq = 4; seq < 7; ++seq) {
        exchange(seq);
        expectReplyFields(expectReply(), seq, seq - 4);
    }
    reflector_->finish();
    const std::vector<std::string> expected = {
        replyLine(0, 0),
        replyLine(1, 1),
        TruthWriter::forwardLossLine(packet(2), "restart_gap"),
        TruthWriter::forwardLossLine(packet(3), "restart_gap"),
        TruthWriter::restartLine(packet(4)),
        replyLine(4, 0),
        replyLine(5, 1),
        replyLine(6, 2),
        "{\"event\":\"stop\",\"senderSeq\":null,\"senderMinute\":null,\"received\":7,\"short\":0,"
        "\"fwdLost\":2,\"accepted\":5,\"revLost\":0,\"sent\":5,\"sendErrors\":0,\"discarded\":0}",
    };
    EXPECT_EQ(expected, truthAfterStart());
}

// Without a gap the one restart comes with the request right after the count.
TEST_F(ReflectorLoopbackTest, RestartAfterWithoutGap) {
    options.restartAfter = 1;
    ASSERT_TRUE(start("127.0.0.1", systemClock_));
    const uint32_t expectedReflectorSeq[] = {0, 0, 1, 2};
    for (uint32_t seq = 0; seq < 4; ++seq) {
        exchange(seq);
        expectReplyFields(expectReply(), seq, expectedReflectorSeq[seq]);
    }
    const std::vector<std::string> expected = {
        replyLine(0, 0), TruthWriter::restartLine(packet(1)), replyLine(1, 0), replyLine(2, 1),
        replyLine(3, 2),
    };
    EXPECT_EQ(expected, truthAfterStart());
}

// Datagrams shorter than a reply are recorded and ignored; they use no sequence number.
TEST_F(ReflectorLoopbackTest, ShortDatagramsIgnored) {
    ASSERT_TRUE(start("127.0.0.1", systemClock_));
    ASSERT_TRUE(client_.send({}));
    reflector_->runOnce(kWaitNs);
    ASSERT_TRUE(client_.send(std::vector<uint8_t>(13, 0xFF)));
    reflector_->runOnce(kWaitNs);
    exchange(20, 40);
    exchange(21, 41);
    expectReplyFields(expectReply(), 21, 0, 41);
    ReplyTruth reply;
    reply.packet = packet(21);
    reply.senderTtl = kClientTtl;
    reply.tos = kClientTos;
    reply.length = 41;
    const TruthPacket shortPacket = packet(20);
    const std::vector<std::string> expected = {
        TruthWriter::shortLine(nullptr, 0),
        TruthWriter::shortLine(nullptr, 13),
        TruthWriter::shortLine(&shortPacket, 40),
        withoutRealTimes(TruthWriter::replyLine(reply)),
    };
    EXPECT_EQ(expected, truthAfterStart());
}

// Datagrams of any length and content: short ones are recorded, every other one
// is answered with its own length, up to the largest IPv4 datagram.
TEST_F(ReflectorLoopbackTest, AnyDatagramIsHandled) {
    ASSERT_TRUE(start("127.0.0.1", systemClock_));
    uint32_t state = 12345;
    uint32_t expectedReflectorSeq = 0;
    for (std::size_t length : {0, 1, 13, 14, 40, 41, 42, 68, 69, 200, 1500, 65507}) {
        std::vector<uint8_t> garbage(length);
        for (uint8_t& byte : garbage) {
            state = state * 1103515245u + 12345u;
            byte = static_cast<uint8_t>(state >> 24);
        }
        ASSERT_TRUE(client_.send(garbage)) << length;
        reflector_->runOnce(kWaitNs);
        if (length < 41) {
            continue;
        }
        const ClientReply reply = expectReply();
        ASSERT_EQ(length, reply.bytes.size());
        std::vector<uint8_t> bytes = reply.bytes;
        const TwampTestMessage message(bytes.data(), bytes.size());
        EXPECT_EQ(expectedReflectorSeq++, message.getSequenceNumber());
        EXPECT_EQ(0, std::memcmp(garbage.data(), bytes.data() + 24, 4)) << length;
    }
    reflector_->finish();
    const std::vector<std::string> truth = truthAfterStart();
    ASSERT_FALSE(truth.empty());
    EXPECT_NE(std::string::npos, truth.back().find("\"received\":12,\"short\":5,"));
    EXPECT_NE(std::string::npos, truth.back().find("\"sent\":7,"));
}

// A forward hold: T2 is the time of processing after the hold; the skew moves T3.
TEST_F(ReflectorLoopbackTest, ForwardDelayAndSkewOnInjectedClock) {
    options.forwardDelayMs = 5.0;
    options.skewMs = 2.5;
    ASSERT_TRUE(start("127.0.0.1", fakeClock_));
    exchange(30);
    fakeClock_.advance(4999999);
    reflector_->runOnce(0);
    expectNoReply();
    EXPECT_TRUE(truthAfterStart().empty());
    fakeClock_.advance(1);
    const timespec processing = fakeClock_.realtime();
    reflector_->runOnce(0);
    const ClientReply reply = expectReply();
    expectReplyFields(reply, 30, 0);
    std::vector<uint8_t> bytes = reply.bytes;
    const TwampTestMessage message(bytes.data(), bytes.size());
    EXPECT_EQ(ntp(processing), message.getReceiveTimestamp());
    fakeClock_.advance(2500000);
    EXPECT_EQ(ntp(fakeClock_.realtime()), message.getTimestamp());
    ReplyTruth truth;
    truth.packet = packet(30);
    truth.forwardDelayNs = 5000000;
    truth.skewNs = 2500000;
    truth.senderTtl = kClientTtl;
    truth.tos = kClientTos;
    truth.length = 64;
    EXPECT_EQ(std::vector<std::string>{withoutRealTimes(TruthWriter::replyLine(truth))},
              truthAfterStart());
}

// A reverse hold comes after T3: the reply carries the T3 of before the hold.
TEST_F(ReflectorLoopbackTest, ReverseDelayOnInjectedClock) {
    options.reverseDelayMs = 3.0;
    ASSERT_TRUE(start("127.0.0.1", fakeClock_));
    const timespec stamped = fakeClock_.realtime();
    exchange(40);
    expectNoReply();
    fakeClock_.advance(3000000);
    reflector_->runOnce(0);
    const ClientReply reply = expectReply();
    expectReplyFields(reply, 40, 0);
    std::vector<uint8_t> bytes = reply.bytes;
    const TwampTestMessage message(bytes.data(), bytes.size());
    EXPECT_EQ(ntp(stamped), message.getTimestamp());
    ReplyTruth truth;
    truth.packet = packet(40);
    truth.reverseDelayNs = 3000000;
    truth.senderTtl = kClientTtl;
    truth.tos = kClientTos;
    truth.length = 64;
    EXPECT_EQ(std::vector<std::string>{withoutRealTimes(TruthWriter::replyLine(truth))},
              truthAfterStart());
}

// A stop request ends run(): held packets are written as discarded, then the stop line.
TEST_F(ReflectorLoopbackTest, StopDiscardsHeldPackets) {
    options.forwardDelayMs = 5.0;
    ASSERT_TRUE(start("127.0.0.1", fakeClock_));
    exchange(50);
    reflector_->requestStop();
    reflector_->run();
    expectNoReply();
    const std::vector<std::string> expected = {
        TruthWriter::discardedLine(packet(50), HoldStage::ForwardDelay, nullptr),
        "{\"event\":\"stop\",\"senderSeq\":null,\"senderMinute\":null,\"received\":1,\"short\":0,"
        "\"fwdLost\":0,\"accepted\":0,\"revLost\":0,\"sent\":0,\"sendErrors\":0,\"discarded\":1}",
    };
    EXPECT_EQ(expected, truthAfterStart());
}

// A reply line records the kernel's receive time of the request, the T2 and
// T3 written and the kernel's transmit time of the reply; without a hold T2 is
// the kernel's receive time.
TEST_F(ReflectorLoopbackTest, RecordsKernelTimes) {
    ASSERT_TRUE(start("127.0.0.1", systemClock_));
    exchange(8);
    const ClientReply reply = expectReply();
    std::vector<uint8_t> bytes = reply.bytes;
    const TwampTestMessage message(bytes.data(), bytes.size());
    const std::vector<std::string> truth = rawTruthAfterStart();
    ASSERT_EQ(1u, truth.size());
    const std::string& line = truth[0];
    EXPECT_EQ(integerField(line, "rxKernelNs"), integerField(line, "t2Ns"));
    EXPECT_EQ(ntp(fromNanoseconds(integerField(line, "t2Ns"))), message.getReceiveTimestamp());
    EXPECT_EQ(ntp(fromNanoseconds(integerField(line, "t3Ns"))), message.getTimestamp());
    EXPECT_NE("null", fieldText(line, "txKernelNs"));
    EXPECT_GE(integerField(line, "txKernelNs"), integerField(line, "t3Ns"));
    EXPECT_EQ("0", fieldText(line, "fwdHeldUs"));
    EXPECT_NE("null", fieldText(line, "revHeldUs"));
}

// After a forward hold T2 is the time of processing, T3 the time of the send
// plus the skew, as the reply carries them.
TEST_F(ReflectorLoopbackTest, RecordsTimesWrittenOnInjectedClock) {
    options.forwardDelayMs = 1.0;
    options.skewMs = 0.5;
    ASSERT_TRUE(start("127.0.0.1", fakeClock_));
    exchange(31);
    fakeClock_.advance(1000000);
    const int64_t processing = nanoseconds(fakeClock_.realtime());
    reflector_->runOnce(0);
    expectReplyFields(expectReply(), 31, 0);
    const std::vector<std::string> truth = rawTruthAfterStart();
    ASSERT_EQ(1u, truth.size());
    EXPECT_EQ(processing, integerField(truth[0], "t2Ns"));
    EXPECT_EQ(processing + 500000, integerField(truth[0], "t3Ns"));
    EXPECT_NE("null", fieldText(truth[0], "rxKernelNs"));
}

// Two copies of a reply each get their own transmit time, in send order.
TEST_F(ReflectorLoopbackTest, EachCopyHasItsTransmitTime) {
    options.duplicatePercent = 100.0;
    ASSERT_TRUE(start("127.0.0.1", systemClock_));
    exchange(4);
    expectReply();
    expectReply();
    const std::vector<std::string> truth = rawTruthAfterStart();
    ASSERT_EQ(2u, truth.size());
    EXPECT_EQ("1", fieldText(truth[0], "copy"));
    EXPECT_EQ("2", fieldText(truth[1], "copy"));
    EXPECT_NE("null", fieldText(truth[0], "txKernelNs"));
    EXPECT_LE(integerField(truth[0], "txKernelNs"), integerField(truth[1], "txKernelNs"));
}

// A stateless reflector numbers each reply with the sender's own sequence number.
TEST_F(ReflectorLoopbackTest, StatelessNumbering) {
    options.stateless = true;
    ASSERT_TRUE(start("127.0.0.1", systemClock_));
    for (const uint32_t seq : {5u, 9u, 2u, 4294967295u}) {
        exchange(seq);
        expectReplyFields(expectReply(), seq, seq);
    }
    const std::vector<std::string> expected = {replyLine(5, 5), replyLine(9, 9), replyLine(2, 2),
                                               replyLine(4294967295u, 4294967295u)};
    EXPECT_EQ(expected, truthAfterStart());
}

// --sender-ttl 0 writes a Sender TTL of 0 whatever the request arrived with.
TEST_F(ReflectorLoopbackTest, SenderTtlZero) {
    options.senderTtlGiven = true;
    options.senderTtl = 0;
    ASSERT_TRUE(start("127.0.0.1", systemClock_));
    exchange(1);
    const ClientReply reply = expectReply();
    std::vector<uint8_t> bytes = reply.bytes;
    EXPECT_EQ(0, TwampTestMessage(bytes.data(), bytes.size()).getSenderTtl());
    EXPECT_EQ("0", fieldText(rawTruthAfterStart().at(0), "ttl"));
}

// A corrupting reflector echoes the sender timestamp off by the offset; the
// truth keeps the sender's minute and names the offset.
TEST_F(ReflectorLoopbackTest, CorruptedSenderTimestamp) {
    options.t1OffsetMs = -60000.0;
    ASSERT_TRUE(start("127.0.0.1", systemClock_));
    exchange(3);
    const ClientReply reply = expectReply();
    std::vector<uint8_t> bytes = reply.bytes;
    EXPECT_EQ(kT1 - (60ULL << 32),
              TwampTestMessage(bytes.data(), bytes.size()).getSenderTimestamp());
    const std::string line = rawTruthAfterStart().at(0);
    EXPECT_EQ("28333333", fieldText(line, "senderMinute"));
    EXPECT_EQ("-60000000", fieldText(line, "t1OffsetUs"));
}

// A negative skew writes T3 before T2.
TEST_F(ReflectorLoopbackTest, SkewWritesT3BeforeT2) {
    options.forwardDelayMs = 1.0;
    options.skewMs = -2.0;
    ASSERT_TRUE(start("127.0.0.1", fakeClock_));
    exchange(32);
    fakeClock_.advance(1000000);
    const timespec processing = fakeClock_.realtime();
    reflector_->runOnce(0);
    const ClientReply reply = expectReply();
    std::vector<uint8_t> bytes = reply.bytes;
    const TwampTestMessage message(bytes.data(), bytes.size());
    EXPECT_EQ(ntp(processing), message.getReceiveTimestamp());
    EXPECT_EQ(ntp(fromNanoseconds(nanoseconds(processing) - 2000000)), message.getTimestamp());
}

// A large positive skew makes T3 - T2 longer than the round trip: the reply
// leaves at once but claims 50 ms in the reflector.
TEST_F(ReflectorLoopbackTest, SkewLongerThanRoundTrip) {
    options.forwardDelayMs = 1.0;
    options.skewMs = 50.0;
    ASSERT_TRUE(start("127.0.0.1", fakeClock_));
    exchange(33);
    fakeClock_.advance(1000000);
    const timespec processing = fakeClock_.realtime();
    reflector_->runOnce(0);
    const ClientReply reply = expectReply();
    std::vector<uint8_t> bytes = reply.bytes;
    const TwampTestMessage message(bytes.data(), bytes.size());
    EXPECT_EQ(ntp(processing), message.getReceiveTimestamp());
    EXPECT_EQ(ntp(fromNanoseconds(nanoseconds(processing) + 50000000)), message.getTimestamp());
}

// The largest IPv4 request is answered whole, padding included, with its transmit time.
TEST_F(ReflectorLoopbackTest, LargestIpv4RequestAnsweredWhole) {
    ASSERT_TRUE(start("127.0.0.1", systemClock_));
    exchange(11, 65507);
    expectReplyFields(expectReply(), 11, 0, 65507);
    const std::string line = rawTruthAfterStart().at(0);
    EXPECT_EQ("65507", fieldText(line, "length"));
    EXPECT_NE("null", fieldText(line, "txKernelNs"));
}

// The same over IPv6.
TEST_F(ReflectorLoopbackTest, LargestIpv6RequestAnsweredWhole) {
    if (!start("::1", systemClock_)) {
        GTEST_SKIP() << "IPv6 loopback is not usable here";
    }
    exchange(12, 65507);
    expectReplyFields(expectReply(), 12, 0, 65507);
    const std::string line = rawTruthAfterStart().at(0);
    EXPECT_EQ("65507", fieldText(line, "length"));
    EXPECT_NE("null", fieldText(line, "txKernelNs"));
}

// A restart after a gap of one second: the requests within the second are
// lost, the first after it is numbered 0.
TEST_F(ReflectorLoopbackTest, RestartAfterGapOfOneSecond) {
    options.restartAfter = 2;
    options.restartGapMs = 1000.0;
    ASSERT_TRUE(start("127.0.0.1", fakeClock_));
    exchange(0);
    expectReplyFields(expectReply(), 0, 0);
    exchange(1);
    expectReplyFields(expectReply(), 1, 1);
    fakeClock_.advance(999999999);
    exchange(2);
    expectNoReply();
    fakeClock_.advance(1);
    exchange(3);
    expectReplyFields(expectReply(), 3, 0);
    exchange(4);
    expectReplyFields(expectReply(), 4, 1);
    const std::vector<std::string> expected = {
        replyLine(0, 0),
        replyLine(1, 1),
        TruthWriter::forwardLossLine(packet(2), "restart_gap"),
        TruthWriter::restartLine(packet(3)),
        replyLine(3, 0),
        replyLine(4, 1),
    };
    EXPECT_EQ(expected, truthAfterStart());
}

// After N accepted requests the socket closes for the time asked, then opens
// again on the same port and answers on, its numbers continuing.
TEST_F(ReflectorLoopbackTest, UnreachableClosesAndReopens) {
    options.unreachableAfter = 1;
    options.unreachableMs = 1000.0;
    ASSERT_TRUE(start("127.0.0.1", fakeClock_));
    const uint16_t port = reflector_->port();
    const int64_t closing = nanoseconds(fakeClock_.realtime());
    exchange(0);
    expectReplyFields(expectReply(), 0, 0);
    fakeClock_.advance(999999999);
    reflector_->runOnce(0);
    fakeClock_.advance(1);
    const int64_t reopening = nanoseconds(fakeClock_.realtime());
    reflector_->runOnce(0);
    EXPECT_EQ(port, reflector_->port());
    exchange(1);
    expectReplyFields(expectReply(), 1, 1);
    const std::vector<std::string> expected = {
        replyLine(0, 0),
        TruthWriter::closedLine(closing, 1000000000LL),
        TruthWriter::reopenedLine(reopening),
        replyLine(1, 1),
    };
    EXPECT_EQ(expected, truthAfterStart());
}

// While the socket is closed the kernel answers a request with port
// unreachable, which a connected sender sees as ECONNREFUSED.
TEST_F(ReflectorLoopbackTest, ClosedSocketAnswersPortUnreachable) {
    options.unreachableAfter = 1;
    ASSERT_TRUE(start("127.0.0.1", fakeClock_));
    exchange(0);
    expectReply();
    const int sender = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(sender, 0);
    sockaddr_in reflectorAddress{};
    reflectorAddress.sin_family = AF_INET;
    reflectorAddress.sin_port = htons(reflector_->port());
    reflectorAddress.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, connect(sender, reinterpret_cast<sockaddr*>(&reflectorAddress),
                         sizeof(reflectorAddress)));
    const std::vector<uint8_t> request = TestClient::packet(1, kT1, 64);
    ASSERT_EQ(64, ::send(sender, request.data(), request.size(), 0));
    pollfd descriptor{sender, POLLIN, 0};
    EXPECT_EQ(1, poll(&descriptor, 1, kWaitMs));
    uint8_t buffer[64];
    EXPECT_EQ(-1, recv(sender, buffer, sizeof(buffer), MSG_DONTWAIT));
    EXPECT_EQ(ECONNREFUSED, errno);
    close(sender);
}

// Requests already queued when the socket closes are lost with it, and recorded so.
TEST_F(ReflectorLoopbackTest, RequestsQueuedAtCloseAreLost) {
    options.unreachableAfter = 1;
    ASSERT_TRUE(start("127.0.0.1", fakeClock_));
    const int64_t closing = nanoseconds(fakeClock_.realtime());
    ASSERT_TRUE(client_.send(TestClient::packet(0, kT1, 64)));
    // Over loopback both wait on the socket once sent.
    ASSERT_TRUE(client_.send(TestClient::packet(1, kT1, 64)));
    reflector_->runOnce(kWaitNs);
    expectReplyFields(expectReply(), 0, 0);
    const std::vector<std::string> expected = {
        replyLine(0, 0),
        TruthWriter::forwardLossLine(packet(1), "closed"),
        TruthWriter::closedLine(closing, 1000000000LL),
    };
    EXPECT_EQ(expected, truthAfterStart());
}

}  // namespace
