#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "TruthQueue.h"
#include "TruthWriter.h"

namespace {

// 2023-11-14 22:13:20 UTC in NTP, sender minute 28333333.
constexpr uint64_t kT1 = (1700000000ULL + 2208988800ULL) << 32;
constexpr int64_t kDeadlineNs = 1000;
// Ethernet, IPv4 and UDP headers in front of a looped reply on veth.
constexpr std::size_t kVethIpv4Headers = 42;

class TruthQueueTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char path[] = "/tmp/reflector_truth_queue_XXXXXX";
        const int fd = mkstemp(path);
        ASSERT_GE(fd, 0);
        close(fd);
        path_ = path;
        std::string error;
        ASSERT_TRUE(writer_.open(path_, error)) << error;
    }
    void TearDown() override { unlink(path_.c_str()); }

    std::vector<std::string> written() const {
        std::ifstream file(path_);
        std::vector<std::string> lines;
        std::string line;
        while (std::getline(file, line)) {
            lines.push_back(line);
        }
        return lines;
    }

    static ReplyTruth truth(uint32_t senderSeq, int copy = 1) {
        ReplyTruth value;
        value.packet.senderSeq = senderSeq;
        value.packet.senderTimestamp = kT1;
        value.copy = copy;
        value.t2Ns = 1700000000000000000LL + senderSeq;
        value.t3Ns = 1700000000000001000LL + senderSeq;
        return value;
    }

    // A 64-byte reply whose first bytes tell it from the replies of other numbers.
    static std::vector<uint8_t> reply(uint32_t senderSeq) {
        std::vector<uint8_t> bytes(64, 0x5A);
        bytes[3] = static_cast<uint8_t>(senderSeq);
        bytes[27] = static_cast<uint8_t>(senderSeq);
        return bytes;
    }

    // The reply as the error queue loops it back: behind headers, cut short.
    static std::vector<uint8_t> looped(const std::vector<uint8_t>& reply, std::size_t headers,
                                       std::size_t kept) {
        std::vector<uint8_t> frame(headers, 0x45);
        frame.insert(frame.end(), reply.begin(), reply.begin() + kept);
        return frame;
    }

    static std::string stamped(ReplyTruth value, int64_t transmitNs) {
        value.hasTransmitTime = true;
        value.transmitNs = transmitNs;
        return TruthWriter::replyLine(value);
    }

    void await(uint32_t senderSeq, int copy = 1, int64_t deadlineNs = kDeadlineNs) {
        const std::vector<uint8_t> bytes = reply(senderSeq);
        queue_.awaitTransmit(truth(senderSeq, copy), bytes.data(), bytes.size(), deadlineNs);
    }

    bool transmitted(uint32_t senderSeq, int64_t transmitNs, std::size_t headers = 0,
                     std::size_t kept = 64) {
        const std::vector<uint8_t> frame = looped(reply(senderSeq), headers, kept);
        return queue_.transmitted(frame.data(), frame.size(), transmitNs);
    }

    std::string path_;
    TruthWriter writer_;
    TruthQueue queue_{writer_};
};

// With nothing waiting a line is written at once.
TEST_F(TruthQueueTest, WritesAtOnceWhenNothingWaits) {
    queue_.write("{\"a\":1}");
    EXPECT_EQ(std::vector<std::string>{"{\"a\":1}"}, written());
    EXPECT_FALSE(queue_.waiting());
}

// A reply's line waits for its transmit time, and the lines after it wait behind it.
TEST_F(TruthQueueTest, LinesWaitBehindAReply) {
    await(1);
    queue_.write("{\"b\":2}");
    EXPECT_TRUE(written().empty());
    EXPECT_TRUE(queue_.waiting());
    EXPECT_TRUE(transmitted(1, 1700000000000002000LL));
    const std::vector<std::string> expected = {stamped(truth(1), 1700000000000002000LL),
                                               "{\"b\":2}"};
    EXPECT_EQ(expected, written());
    EXPECT_FALSE(queue_.waiting());
}

// The reply is found behind the headers of the looped frame, however far the frame was cut.
TEST_F(TruthQueueTest, FindsTheReplyBehindHeaders) {
    await(7);
    EXPECT_TRUE(transmitted(7, 1700000000000005000LL, kVethIpv4Headers, 41));
    EXPECT_EQ(std::vector<std::string>{stamped(truth(7), 1700000000000005000LL)}, written());
}

// A looped frame cut before the reply's fixed fields end matches nothing.
TEST_F(TruthQueueTest, FrameTooShortMatchesNothing) {
    await(7);
    EXPECT_FALSE(transmitted(7, 1700000000000005000LL, kVethIpv4Headers, 40));
    EXPECT_TRUE(written().empty());
}

// Fixed fields further in than any header reaches are not looked for.
TEST_F(TruthQueueTest, HeadersLongerThanAnyDeviceAddsMatchNothing) {
    await(7);
    EXPECT_FALSE(transmitted(7, 1700000000000005000LL, TruthQueue::kMaxHeaderBytes + 1));
}

// A transmit time of another reply leaves the waiting one waiting.
TEST_F(TruthQueueTest, TimeOfAnotherReplyIsNotTaken) {
    await(1);
    EXPECT_FALSE(transmitted(2, 1700000000000002000LL));
    EXPECT_TRUE(written().empty());
    EXPECT_TRUE(queue_.waiting());
}

// Two copies of one reply take their transmit times in the order they were sent.
TEST_F(TruthQueueTest, CopiesTakeTimesInSendOrder) {
    await(3, 1);
    await(3, 2);
    EXPECT_TRUE(transmitted(3, 1700000000000010000LL));
    EXPECT_TRUE(transmitted(3, 1700000000000020000LL));
    const std::vector<std::string> expected = {stamped(truth(3, 1), 1700000000000010000LL),
                                               stamped(truth(3, 2), 1700000000000020000LL)};
    EXPECT_EQ(expected, written());
}

// A later reply's time can come first: the lines keep the send order.
TEST_F(TruthQueueTest, TimesOutOfOrderKeepTheLineOrder) {
    await(1);
    await(2);
    EXPECT_TRUE(transmitted(2, 1700000000000020000LL));
    EXPECT_TRUE(written().empty());
    EXPECT_TRUE(transmitted(1, 1700000000000010000LL));
    const std::vector<std::string> expected = {stamped(truth(1), 1700000000000010000LL),
                                               stamped(truth(2), 1700000000000020000LL)};
    EXPECT_EQ(expected, written());
}

// At its deadline a reply is written without a transmit time; not before.
TEST_F(TruthQueueTest, DeadlineWritesWithoutTime) {
    await(1, 1, 500);
    await(2, 1, 900);
    EXPECT_EQ(500, queue_.nextDeadlineNs());
    queue_.expire(499);
    EXPECT_TRUE(written().empty());
    queue_.expire(500);
    EXPECT_EQ(std::vector<std::string>{TruthWriter::replyLine(truth(1))}, written());
    EXPECT_EQ(900, queue_.nextDeadlineNs());
}

// A transmit time after the deadline finds nothing left to match.
TEST_F(TruthQueueTest, TimeAfterDeadlineIsNotTaken) {
    await(1, 1, 500);
    queue_.expire(500);
    EXPECT_FALSE(transmitted(1, 1700000000000002000LL));
}

// Flushing writes every waiting reply without a transmit time, and what waited behind.
TEST_F(TruthQueueTest, FlushWritesEverything) {
    await(1);
    queue_.write("{\"c\":3}");
    queue_.flush();
    const std::vector<std::string> expected = {TruthWriter::replyLine(truth(1)), "{\"c\":3}"};
    EXPECT_EQ(expected, written());
    EXPECT_FALSE(queue_.waiting());
}

}  // namespace
