#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <unistd.h>

#include "JsonLine.h"
#include "TruthWriter.h"

namespace {

constexpr uint64_t kNtpUnixEpoch = 2208988800ULL;
// 2023-11-14 22:13:20 UTC, POSIX minute 28333333.
constexpr uint64_t kPosixSeconds = 1700000000ULL;

uint64_t ntpAt(uint64_t posixSeconds) {
    return (posixSeconds + kNtpUnixEpoch) << 32;
}

TruthPacket packet(uint32_t seq) {
    TruthPacket value;
    value.senderSeq = seq;
    value.senderTimestamp = ntpAt(kPosixSeconds) | 0x80000000ULL;
    return value;
}

// The sender minute is the POSIX minute of the NTP seconds, rounded down.
TEST(TruthWriterTest, SenderMinute) {
    EXPECT_EQ(0, TruthWriter::senderMinute(ntpAt(0)));
    EXPECT_EQ(0, TruthWriter::senderMinute(ntpAt(59) | 0xFFFFFFFFULL));
    EXPECT_EQ(1, TruthWriter::senderMinute(ntpAt(60)));
    EXPECT_EQ(28333333, TruthWriter::senderMinute(ntpAt(kPosixSeconds)));
    EXPECT_EQ(-1, TruthWriter::senderMinute((kNtpUnixEpoch - 1) << 32));
}

// The start line carries every option, the bound port and the seed.
TEST(TruthWriterTest, StartLine) {
    ReflectorOptions options;
    options.seed = 5;
    options.forwardLossPercent = 0.1;
    options.reverseJitterMs = 2.5;
    options.restartEvery = 1000;
    options.restartAfter = 200;
    options.restartGap = 60;
    options.skewMs = -1.25;
    options.truthPath = "/tmp/a \"b\".jsonl";
    EXPECT_EQ(
        "{\"event\":\"start\",\"senderSeq\":null,\"senderMinute\":null,\"listen\":\"::\","
        "\"port\":40000,\"replyTtl\":255,\"seed\":5,\"fwdLossPct\":0.1,\"revLossPct\":0,"
        "\"duplicatePct\":0,\"reorderPct\":0,\"fwdDelayMs\":0,\"fwdJitterMs\":0,\"revDelayMs\":0,"
        "\"revJitterMs\":2.5,\"restartEvery\":1000,\"restartAfter\":200,\"restartGap\":60,"
        "\"restartGapMs\":0,\"stateless\":false,\"skewMs\":-1.25,\"senderTtl\":null,"
        "\"corruptT1Ms\":0,\"unreachableAfter\":0,\"unreachableMs\":1000,"
        "\"truth\":\"/tmp/a \\\"b\\\".jsonl\"}",
        TruthWriter::startLine(options, 40000));
}

// The start line names the misbehaviours of a reflector unlike a correct one.
TEST(TruthWriterTest, StartLineOfMisbehaviours) {
    ReflectorOptions options;
    options.seed = 1;
    options.restartAfter = 100;
    options.restartGapMs = 1000;
    options.stateless = true;
    options.senderTtlGiven = true;
    options.senderTtl = 0;
    options.t1OffsetMs = -60000;
    options.unreachableAfter = 50;
    options.unreachableMs = 2500;
    EXPECT_EQ(
        "{\"event\":\"start\",\"senderSeq\":null,\"senderMinute\":null,\"listen\":\"::\","
        "\"port\":862,\"replyTtl\":255,\"seed\":1,\"fwdLossPct\":0,\"revLossPct\":0,"
        "\"duplicatePct\":0,\"reorderPct\":0,\"fwdDelayMs\":0,\"fwdJitterMs\":0,\"revDelayMs\":0,"
        "\"revJitterMs\":0,\"restartEvery\":0,\"restartAfter\":100,\"restartGap\":0,"
        "\"restartGapMs\":1000,\"stateless\":true,\"skewMs\":0,\"senderTtl\":0,"
        "\"corruptT1Ms\":-60000,\"unreachableAfter\":50,\"unreachableMs\":2500,\"truth\":\"\"}",
        TruthWriter::startLine(options, 862));
}

// A datagram too short to hold a sender packet has no sender fields.
TEST(TruthWriterTest, ShortLines) {
    EXPECT_EQ("{\"event\":\"short\",\"senderSeq\":null,\"senderMinute\":null,\"length\":13}",
              TruthWriter::shortLine(nullptr, 13));
    const TruthPacket sender = packet(9);
    EXPECT_EQ("{\"event\":\"short\",\"senderSeq\":9,\"senderMinute\":28333333,\"length\":40}",
              TruthWriter::shortLine(&sender, 40));
}

// Loss lines, with the reason of a drop on purpose, and the restart line.
TEST(TruthWriterTest, LossAndRestartLines) {
    EXPECT_EQ("{\"event\":\"fwd_loss\",\"senderSeq\":4294967295,\"senderMinute\":28333333}",
              TruthWriter::forwardLossLine(packet(4294967295u)));
    EXPECT_EQ(
        "{\"event\":\"rev_loss\",\"senderSeq\":3,\"senderMinute\":28333333,\"reflectorSeq\":2,"
        "\"fwdDelayUs\":1500.25}",
        TruthWriter::reverseLossLine(packet(3), 2, 1500250));
    EXPECT_EQ(
        "{\"event\":\"fwd_loss\",\"senderSeq\":7,\"senderMinute\":28333333,"
        "\"reason\":\"restart_gap\"}",
        TruthWriter::forwardLossLine(packet(7), "restart_gap"));
    EXPECT_EQ(
        "{\"event\":\"restart\",\"senderSeq\":8,\"senderMinute\":28333333,\"reflectorSeq\":0}",
        TruthWriter::restartLine(packet(8)));
}

// A reply line names the copy, the holds, the skew and what was sent.
TEST(TruthWriterTest, ReplyLine) {
    ReplyTruth reply;
    reply.packet = packet(12);
    reply.reflectorSeq = 10;
    reply.copy = 2;
    reply.forwardDelayNs = 2000000;
    reply.reverseDelayNs = 1;
    reply.skewNs = -2500000;
    reply.senderTtl = 64;
    reply.tos = 0xB8;
    reply.length = 64;
    reply.reordered = true;
    reply.t1OffsetNs = 60000000000LL;
    reply.hasReceiveTime = true;
    reply.receiveNs = 1700000000000100000LL;
    reply.t2Ns = 1700000000002350000LL;
    reply.t3Ns = 1700000000000400500LL;
    reply.hasTransmitTime = true;
    reply.transmitNs = 1700000000002950000LL;
    EXPECT_EQ(
        "{\"event\":\"reply\",\"senderSeq\":12,\"senderMinute\":28333333,\"reflectorSeq\":10,"
        "\"copy\":2,\"fwdDelayUs\":2000,\"revDelayUs\":0.001,\"skewUs\":-2500,\"ttl\":64,"
        "\"tos\":184,\"length\":64,\"reordered\":true,\"t1OffsetUs\":60000000,"
        "\"rxKernelNs\":1700000000000100000,\"t2Ns\":1700000000002350000,"
        "\"t3Ns\":1700000000000400500,\"txKernelNs\":1700000000002950000,\"fwdHeldUs\":2250,"
        "\"revHeldUs\":49.5}",
        TruthWriter::replyLine(reply));
}

// Without the kernel's times a reply line says so, and gives no real holds.
TEST(TruthWriterTest, ReplyLineWithoutKernelTimes) {
    ReplyTruth reply;
    reply.packet = packet(1);
    reply.t2Ns = 1700000000000000001LL;
    reply.t3Ns = 1700000000000000002LL;
    EXPECT_EQ(
        "{\"event\":\"reply\",\"senderSeq\":1,\"senderMinute\":28333333,\"reflectorSeq\":0,"
        "\"copy\":1,\"fwdDelayUs\":0,\"revDelayUs\":0,\"skewUs\":0,\"ttl\":0,\"tos\":0,"
        "\"length\":0,\"reordered\":false,\"t1OffsetUs\":0,\"rxKernelNs\":null,"
        "\"t2Ns\":1700000000000000001,\"t3Ns\":1700000000000000002,\"txKernelNs\":null,"
        "\"fwdHeldUs\":null,\"revHeldUs\":null}",
        TruthWriter::replyLine(reply));
}

// Closing the socket and opening it again are recorded with the real time.
TEST(TruthWriterTest, ClosedAndReopenedLines) {
    EXPECT_EQ(
        "{\"event\":\"closed\",\"senderSeq\":null,\"senderMinute\":null,"
        "\"timeNs\":1700000000123456789,\"reopenAfterUs\":1000000}",
        TruthWriter::closedLine(1700000000123456789LL, 1000000000LL));
    EXPECT_EQ(
        "{\"event\":\"reopened\",\"senderSeq\":null,\"senderMinute\":null,"
        "\"timeNs\":1700000001123456789}",
        TruthWriter::reopenedLine(1700000001123456789LL));
    EXPECT_EQ(
        "{\"event\":\"reopen_error\",\"senderSeq\":null,\"senderMinute\":null,"
        "\"timeNs\":1700000001123456789,\"error\":\"cannot bind :: port 862: Address already in "
        "use\"}",
        TruthWriter::reopenErrorLine(1700000001123456789LL,
                                     "cannot bind :: port 862: Address already in use"));
}

TEST(TruthWriterTest, SendErrorDiscardedAndStopLines) {
    ReplyTruth reply;
    reply.packet = packet(1);
    reply.reflectorSeq = 1;
    EXPECT_EQ(
        "{\"event\":\"send_error\",\"senderSeq\":1,\"senderMinute\":28333333,\"reflectorSeq\":1,"
        "\"copy\":1,\"errno\":1,\"error\":\"Operation not permitted\"}",
        TruthWriter::sendErrorLine(reply, EPERM));
    EXPECT_EQ(
        "{\"event\":\"discarded\",\"senderSeq\":5,\"senderMinute\":28333333,\"stage\":\"fwd_"
        "delay\"}",
        TruthWriter::discardedLine(packet(5), HoldStage::ForwardDelay, nullptr));
    const uint32_t seq = 4;
    EXPECT_EQ(
        "{\"event\":\"discarded\",\"senderSeq\":5,\"senderMinute\":28333333,\"reflectorSeq\":4,"
        "\"stage\":\"reorder\"}",
        TruthWriter::discardedLine(packet(5), HoldStage::Reorder, &seq));
    TruthTotals totals;
    totals.received = 9;
    totals.tooShort = 1;
    totals.forwardLost = 2;
    totals.accepted = 6;
    totals.reverseLost = 1;
    totals.sent = 7;
    totals.discarded = 1;
    EXPECT_EQ(
        "{\"event\":\"stop\",\"senderSeq\":null,\"senderMinute\":null,\"received\":9,\"short\":1,"
        "\"fwdLost\":2,\"accepted\":6,\"revLost\":1,\"sent\":7,\"sendErrors\":0,\"discarded\":1}",
        TruthWriter::stopLine(totals));
}

// Strings are escaped; microseconds keep up to three decimals without trailing zeros.
TEST(TruthWriterTest, JsonLineFormatting) {
    JsonLine line;
    line.add("text", std::string("a\"b\\c\n\x01"))
        .addMicroseconds("a", 1230)
        .addMicroseconds("b", -1)
        .addMicroseconds("c", 0)
        .addNumber("d", 1e-7)
        .add("e", false);
    EXPECT_EQ(
        "{\"text\":\"a\\\"b\\\\c\\u000a\\u0001\",\"a\":1.23,\"b\":-0.001,\"c\":0,\"d\":1e-07,"
        "\"e\":false}",
        line.text());
}

// Each line is in the file as soon as it is written, while the file stays open.
TEST(TruthWriterTest, WritesFlushedLines) {
    char path[] = "/tmp/reflector_truth_XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    TruthWriter writer;
    std::string error;
    ASSERT_TRUE(writer.open(path, error)) << error;
    writer.write("{\"a\":1}");
    writer.write("{\"b\":2}");
    std::ifstream file(path);
    std::string first;
    std::string second;
    std::getline(file, first);
    std::getline(file, second);
    EXPECT_EQ("{\"a\":1}", first);
    EXPECT_EQ("{\"b\":2}", second);
    unlink(path);
}

// Without a file nothing is written; a file that cannot be created is reported.
TEST(TruthWriterTest, DisabledAndUnopenable) {
    TruthWriter writer;
    EXPECT_FALSE(writer.enabled());
    writer.write("ignored");
    std::string error;
    EXPECT_FALSE(writer.open("/nonexistent-dir/truth.jsonl", error));
    EXPECT_EQ("cannot open '/nonexistent-dir/truth.jsonl': No such file or directory", error);
}

}  // namespace
