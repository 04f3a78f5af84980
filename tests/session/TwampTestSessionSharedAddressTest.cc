// Sessions that share one reflector address: each answers whether a reply
// or a looped-back frame is its own, and the socket routes by that answer.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "KernelMessage.h"
#include "MeasureTestBase.h"
#include "MockSystemCalls.h"
#include "PmPeriodRecord.h"
#include "ReceiverKey.h"
#include "ScriptedReceiveQueues.h"
#include "TraceRecorder.h"
#include "TwampTestSessionPeer.h"
#include "UdpSocket.h"

namespace {

using twamp_test::KernelMessage;
using twamp_test::kNtpUnit;
using twamp_test::MeasureTestBase;
using twamp_test::ObservedSession;
using twamp_test::TraceRecorder;
using Messages = std::vector<std::string>;
using SeqNos = std::vector<uint32_t>;

// ---- The questions a session answers ----

class TwampTestSessionOwnershipTest : public MeasureTestBase {
  protected:
    // The reply to packet senderSeqNo sent at t1, as the socket hands it on.
    static std::unique_ptr<KernelMessage> reply(uint32_t senderSeqNo, uint64_t t1) {
        auto message = std::make_unique<KernelMessage>(KernelMessage::kPacketLength);
        KernelMessage::fillReply(*message, senderSeqNo, t1, 0, t1 + kNtpUnit, t1 + 2 * kNtpUnit,
                                 250);
        message->setKernelTimestamp(t1 + 3 * kNtpUnit);
        return message;
    }

    // The looped-back frame of packet senderSeqNo sent at t1.
    static std::unique_ptr<KernelMessage> loopedFrame(uint32_t senderSeqNo, uint64_t t1) {
        auto message = std::make_unique<KernelMessage>(KernelMessage::kLoopedHeaderLength +
                                                       KernelMessage::kPacketLength);
        KernelMessage::fillLoopedFrame(*message, senderSeqNo, t1);
        message->setKernelTimestamp(t1 + kNtpUnit);
        return message;
    }
};

// A reply echoing the sequence number and T1 of an outstanding packet is the session's.
TEST_F(TwampTestSessionOwnershipTest, OwnsReplyToItsPacket) {
    auto session = startSession();
    const uint64_t t1 = sendAt(*session, 8, 0);
    EXPECT_TRUE(session->ownsMessage(reply(0, t1)->get()));
}

// A reply with the right sequence number but another T1 is not the session's.
TEST_F(TwampTestSessionOwnershipTest, ReplyWithOtherT1NotOwned) {
    auto session = startSession();
    const uint64_t t1 = sendAt(*session, 8, 0);
    EXPECT_FALSE(session->ownsMessage(reply(0, t1 + kNtpUnit)->get()));
}

// A reply to a sequence number the session has not outstanding is not its own.
TEST_F(TwampTestSessionOwnershipTest, ReplyToUnknownPacketNotOwned) {
    auto session = startSession();
    const uint64_t t1 = sendAt(*session, 8, 0);
    EXPECT_FALSE(session->ownsMessage(reply(1, t1)->get()));
}

// A reply too short to hold the sender fields is nobody's.
TEST_F(TwampTestSessionOwnershipTest, ShortReplyNotOwned) {
    auto session = startSession();
    sendAt(*session, 8, 0);
    KernelMessage shortReply(40);
    EXPECT_FALSE(session->ownsMessage(shortReply.get()));
}

// A looped-back frame of an outstanding packet is the session's.
TEST_F(TwampTestSessionOwnershipTest, OwnsLoopedFrameOfItsPacket) {
    auto session = startSession();
    const uint64_t t1 = sendAt(*session, 8, 0);
    auto frame = loopedFrame(0, t1);
    EXPECT_TRUE(session->ownsErrQueueMessage(frame->get(), frame->length()));
}

// A looped-back frame with the right sequence number but another T1 is not the session's.
TEST_F(TwampTestSessionOwnershipTest, LoopedFrameWithOtherT1NotOwned) {
    auto session = startSession();
    const uint64_t t1 = sendAt(*session, 8, 0);
    auto frame = loopedFrame(0, t1 + kNtpUnit);
    EXPECT_FALSE(session->ownsErrQueueMessage(frame->get(), frame->length()));
}

// A looped-back frame too short to hold sequence number and timestamp is nobody's.
TEST_F(TwampTestSessionOwnershipTest, ShortLoopedFrameNotOwned) {
    auto session = startSession();
    const uint64_t t1 = sendAt(*session, 8, 0);
    auto frame = loopedFrame(0, t1);
    EXPECT_FALSE(session->ownsErrQueueMessage(frame->get(), 39));
}

// Asking changes nothing: no trace, no timestamp or reply booked, no analysis.
TEST_F(TwampTestSessionOwnershipTest, AskingChangesNothing) {
    auto session = startSession();
    const uint64_t t1 = sendAt(*session, 8, 0);
    TraceRecorder::reset();
    auto frame = loopedFrame(0, t1);
    session->ownsErrQueueMessage(frame->get(), frame->length());
    session->ownsMessage(reply(0, t1)->get());
    session->ownsMessage(reply(5, t1)->get());
    EXPECT_TRUE(TraceRecorder::records().empty());
    EXPECT_TRUE(session->calls.empty());
    EXPECT_EQ(0u, TwampTestSessionPeer::getOutstandingPacket(*session, 0, 0)->getT1Prime());
    EXPECT_EQ(0u, TwampTestSessionPeer::getOutstandingPacket(*session, 0, 0)->getReplyCount());
}

// ---- Routing through the shared socket ----

// Sessions towards 127.0.0.1 port 862 registered with a real socket whose
// kernel queues the test scripts; the controller's socket mock passes the
// registrations on to it.
class SharedReflectorTest : public MeasureTestBase {
  protected:
    void SetUp() override {
        MeasureTestBase::SetUp();
        socketCalls.delegateToReal();
        ON_CALL(socketCalls, bind).WillByDefault(::testing::Return(0));
        ON_CALL(socketCalls, recvmmsg).WillByDefault([this](auto... args) {
            return kernelQueues.recvmmsg(args...);
        });
        udpSocket = std::make_unique<UdpSocket>(&socketCalls);
        ASSERT_TRUE(udpSocket->init("127.0.0.1", "5000", false));
        ON_CALL(env.udpSocket, addMessageReceiver)
            .WillByDefault([this](const ReceiverKey& key, MessageReceiver* receiver) {
                udpSocket->addMessageReceiver(key, receiver);
            });
        ON_CALL(env.udpSocket, removeMessageReceiver)
            .WillByDefault([this](const ReceiverKey& key, MessageReceiver* receiver) {
                udpSocket->removeMessageReceiver(key, receiver);
            });
    }

    // A started session towards the shared reflector with its own DSCP.
    std::unique_ptr<ObservedSession> startSessionWithDscp(uint32_t dscp) {
        auto session = std::make_unique<ObservedSession>("127.0.0.1", "862", 10, 0, 0, 64, dscp, 0,
                                                         0, clock, &systemCalls);
        EXPECT_TRUE(session->init());
        return session;
    }

    // Queues the looped-back frame of packet senderSeqNo sent at t1 to the reflector.
    void queueTimestamp(uint32_t senderSeqNo, uint64_t t1) {
        KernelMessage frame(KernelMessage::kLoopedHeaderLength + KernelMessage::kPacketLength);
        KernelMessage::fillLoopedFrame(frame, senderSeqNo, t1);
        frame.setKernelTimestamp(t1 + kNtpUnit);
        twamp_test::ScriptedMessage message = scripted(frame);
        const uint8_t destination[] = {127, 0, 0, 1};
        std::copy(destination, destination + 4, message.bytes.begin() + 16);
        message.bytes[22] = 862 >> 8;
        message.bytes[23] = 862 & 0xFF;
        kernelQueues.queue(true, message);
    }

    // Queues the reflector's reply to packet senderSeqNo sent at t1, received
    // forwardUnits + reverseUnits + 1 after its transmit timestamp.
    void queueReply(uint32_t senderSeqNo, uint64_t t1, uint32_t responderSeqNo,
                    uint64_t forwardUnits, uint64_t reverseUnits) {
        const uint64_t t2 = t1 + (1 + forwardUnits) * kNtpUnit;
        const uint64_t t3 = t2 + kNtpUnit;
        KernelMessage reply(KernelMessage::kPacketLength);
        KernelMessage::fillReply(reply, senderSeqNo, t1, responderSeqNo, t2, t3, 250);
        reply.setKernelTimestamp(t3 + reverseUnits * kNtpUnit);
        twamp_test::ScriptedMessage message = scripted(reply);
        message.source = reflectorKey();
        kernelQueues.queue(false, message);
    }

    // One readiness of the socket.
    void serve() { udpSocket->handleInput(udpSocket->getSocketFd()); }

    // The sender sequence numbers of a session's analysed packets, in order.
    static SeqNos analysed(const ObservedSession& session) {
        SeqNos seqNos;
        for (const twamp_test::AnalyzeCall& call : session.calls) {
            seqNos.push_back(call.senderSeqNo);
        }
        return seqNos;
    }

    static ReceiverKey reflectorKey() {
        struct sockaddr_in address {};
        address.sin_family = AF_INET;
        address.sin_port = htons(862);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return ReceiverKey(reinterpret_cast<const struct sockaddr*>(&address), sizeof(address));
    }

    // The bytes and control data of a built message.
    static twamp_test::ScriptedMessage scripted(KernelMessage& built) {
        const struct msghdr* msg = built.get();
        const auto* bytes = static_cast<const uint8_t*>(msg->msg_iov[0].iov_base);
        const auto* control = static_cast<const uint8_t*>(msg->msg_control);
        twamp_test::ScriptedMessage message;
        message.bytes.assign(bytes, bytes + msg->msg_iov[0].iov_len);
        if (control != nullptr) {
            message.control.assign(control, control + msg->msg_controllen);
        }
        return message;
    }

    ::testing::NiceMock<twamp_test::MockSystemCalls> socketCalls;
    twamp_test::ScriptedReceiveQueues kernelQueues;
    std::unique_ptr<UdpSocket> udpSocket;
};

// Two sessions to one reflector with interleaved timestamps and replies:
// each packet is matched to the session that sent it, with its own reply.
TEST_F(SharedReflectorTest, InterleavedRepliesEachMatched) {
    auto first = startSessionWithDscp(0);
    auto second = startSessionWithDscp(46);
    uint64_t firstT1[3];
    uint64_t secondT1[3];
    for (int seqNo = 0; seqNo < 3; ++seqNo) {
        firstT1[seqNo] = sendAt(*first, 8, 0, 2 * seqNo);
        secondT1[seqNo] = sendAt(*second, 8, 0, 2 * seqNo + 1);
    }
    TraceRecorder::reset();
    for (uint32_t seqNo = 0; seqNo < 3; ++seqNo) {
        queueTimestamp(seqNo, firstT1[seqNo]);
        queueTimestamp(seqNo, secondT1[seqNo]);
    }
    for (uint32_t seqNo = 0; seqNo < 3; ++seqNo) {
        queueReply(seqNo, secondT1[seqNo], 100 + seqNo, 4, 4);
        queueReply(seqNo, firstT1[seqNo], seqNo, 2, 2);
    }
    serve();
    EXPECT_EQ((SeqNos{0, 1, 2}), analysed(*first));
    EXPECT_EQ((SeqNos{0, 1, 2}), analysed(*second));
    for (uint32_t seqNo = 0; seqNo < 3; ++seqNo) {
        EXPECT_EQ(1u,
                  TwampTestSessionPeer::getOutstandingPacket(*first, 0, seqNo)->getReplyCount());
        EXPECT_EQ(firstT1[seqNo] + kNtpUnit,
                  TwampTestSessionPeer::getOutstandingPacket(*first, 0, seqNo)->getT1Prime());
        EXPECT_EQ(1u,
                  TwampTestSessionPeer::getOutstandingPacket(*second, 0, seqNo)->getReplyCount());
        EXPECT_EQ(secondT1[seqNo] + kNtpUnit,
                  TwampTestSessionPeer::getOutstandingPacket(*second, 0, seqNo)->getT1Prime());
    }
    EXPECT_EQ(3, TwampTestSessionPeer::getRecord(*first, 0).at(PmCounter::receivedPkts, 8));
    EXPECT_EQ(3, TwampTestSessionPeer::getRecord(*second, 0).at(PmCounter::receivedPkts, 8));
    EXPECT_EQ(Messages{}, labTraces());
}

// After one of two sessions is deleted the other still gets its replies.
TEST_F(SharedReflectorTest, DeletingOneLeavesTheOtherMatching) {
    auto first = startSessionWithDscp(0);
    auto second = startSessionWithDscp(46);
    sendAt(*first, 8, 0, 0);
    const uint64_t t1 = sendAt(*second, 8, 0, 1);
    first.reset();
    TraceRecorder::reset();
    queueTimestamp(0, t1);
    queueReply(0, t1, 7, 2, 2);
    serve();
    EXPECT_EQ((SeqNos{0}), analysed(*second));
    EXPECT_EQ(1u, TwampTestSessionPeer::getOutstandingPacket(*second, 0, 0)->getReplyCount());
    EXPECT_EQ(Messages{}, labTraces());
}

// With both sessions deleted nothing is registered for the address any more.
TEST_F(SharedReflectorTest, DeletingBothLeavesNoReceiver) {
    auto first = startSessionWithDscp(0);
    auto second = startSessionWithDscp(46);
    const uint64_t t1 = sendAt(*second, 8, 0, 1);
    second.reset();
    first.reset();
    TraceRecorder::reset();
    queueReply(0, t1, 7, 2, 2);
    serve();
    EXPECT_EQ(Messages{"handleInput(): Failed to find message receiver"}, labTraces());
}

// A reply that neither session owns goes to the first, which traces it once.
TEST_F(SharedReflectorTest, ReplyNeitherOwnsTracedOnce) {
    auto first = startSessionWithDscp(0);
    auto second = startSessionWithDscp(46);
    const uint64_t t1 = sendAt(*first, 8, 0, 0);
    sendAt(*second, 8, 0, 1);
    TraceRecorder::reset();
    queueReply(7, t1, 0, 2, 2);
    serve();
    EXPECT_EQ(Messages{"receiveMessage(): No outstanding packet found for seqNum: 7 "},
              labTraces());
    EXPECT_TRUE(first->calls.empty());
    EXPECT_TRUE(second->calls.empty());
}

// A looped-back frame that neither session owns is traced once, too.
TEST_F(SharedReflectorTest, LoopedFrameNeitherOwnsTracedOnce) {
    auto first = startSessionWithDscp(0);
    auto second = startSessionWithDscp(46);
    const uint64_t t1 = sendAt(*first, 8, 0, 0);
    sendAt(*second, 8, 0, 1);
    TraceRecorder::reset();
    queueTimestamp(7, t1);
    serve();
    EXPECT_EQ(Messages{"receiveErrQueueMessage(): No outstanding packet found for seqNum: 7 "},
              labTraces());
}

// ---- A reflector numbering the replies of both sessions with one counter ----

// Two sessions towards one reflector port whose replies the reflector numbers
// with one counter, as a reflector keyed by the sender's address and port does.
class SharedNumberingTest : public SharedReflectorTest {
  protected:
    // Sends packet seqNo of each session in minute 8, the first session's
    // before the second's; returns their T1.
    std::pair<uint64_t, uint64_t> sendBoth(ObservedSession& first, ObservedSession& second,
                                           int seqNo) {
        return {sendAt(first, 8, 0, 2 * seqNo), sendAt(second, 8, 0, 2 * seqNo + 1)};
    }
    // The timestamp of packet seqNo sent at t1 and, when the reflector got
    // it, its reply with the reflector's next number.
    void answerShared(uint32_t seqNo, uint64_t t1, bool reachedReflector) {
        queueTimestamp(seqNo, t1);
        if (reachedReflector) {
            queueReply(seqNo, t1, reflectorNumber++, 2, 2);
        }
        serve();
    }
    // The 38 counters of minute 8 of a session.
    static std::vector<int64_t> binEight(const TwampTestSession& session) {
        std::vector<int64_t> values;
        for (int counter = 0; counter < PmPeriodRecord::kCounterCount; ++counter) {
            values.push_back(TwampTestSessionPeer::getRecord(session, 0).at(counter, 8));
        }
        return values;
    }

    const std::vector<int64_t> notAvailable =
        std::vector<int64_t>(PmPeriodRecord::kCounterCount, PmPeriodRecord::kNotAvailable);
    uint32_t reflectorNumber = 1000;
};

// Sessions at the same rate, every packet answered: each sees the numbers
// the other's replies took as replies lost on the way back, more than it
// has packets missing, and its minute cannot be accounted.
TEST_F(SharedNumberingTest, SessionsAtOneRateAreNotAvailable) {
    auto first = startSessionWithDscp(0);
    auto second = startSessionWithDscp(46);
    for (int seqNo = 0; seqNo < 5; ++seqNo) {
        const auto t1 = sendBoth(*first, *second, seqNo);
        answerShared(seqNo, t1.first, true);
        answerShared(seqNo, t1.second, true);
    }
    TraceRecorder::reset();
    sendAt(*first, 9, 4);
    sendAt(*second, 9, 4);
    EXPECT_EQ(notAvailable, binEight(*first));
    EXPECT_EQ(notAvailable, binEight(*second));
    const std::string unaccountable =
        "finalizePmMember(): Minute 28333328 cannot be accounted (counts out of range) for "
        "dstIpAddress 127.0.0.1, dstUdpPort 862 so all counters of period 8 are reset to -2";
    EXPECT_EQ(
        (Messages{"finalizePmMember(): lostPktsFwd statistic has negative number", unaccountable,
                  "finalizePmMember(): lostPktsFwd statistic has negative number", unaccountable}),
        labTraces());
}

}  // namespace
