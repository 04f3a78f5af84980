#include "ReceivedMessage.h"

#include <netinet/in.h>

#include <cstring>
#include <ctime>

#include "NtpTimestamp.h"
#include "OwampTestMessage.h"
#include "TwampTestMessage.h"

namespace {

constexpr uint8_t kIpv4VersionAndHeaderLength = 0x45;
constexpr std::size_t kIpv4ProtocolOffset = 9;
constexpr uint8_t kUdpProtocol = 17;

// The timespec of an NTP timestamp, truncated to the nanosecond.
struct timespec timespecOfNtp(uint64_t ntp) {
    struct timespec time;
    time.tv_sec = static_cast<time_t>((ntp >> 32) - kNtpUnixEpochOffset);
    time.tv_nsec = static_cast<long>(((ntp & 0xFFFFFFFFULL) * 1000000000ULL) >> 32);
    return time;
}

}  // namespace

ReceivedMessage::ReceivedMessage() {
    std::memset(payload, 0, sizeof(payload));
    std::memset(&ioVector, 0, sizeof(ioVector));
    std::memset(&messageHeader, 0, sizeof(messageHeader));
    ioVector.iov_base = payload;
    messageHeader.msg_iov = &ioVector;
    messageHeader.msg_iovlen = 1;
    resetControl();
}

void ReceivedMessage::makeLoopedFrame(uint32_t senderSeqNo, uint64_t t1, uint64_t t1Prime) {
    std::memset(payload, 0, sizeof(payload));
    payload[0] = kIpv4VersionAndHeaderLength;
    payload[kIpv4ProtocolOffset] = kUdpProtocol;
    OwampTestMessage sent(payload + kLoopedHeaderLength, kPacketLength);
    sent.setSequenceNumber(senderSeqNo);
    sent.setTimestamp(t1);
    sent.setErrorEstimate();
    ioVector.iov_len = kLoopedHeaderLength + kPacketLength;
    resetControl();
    appendTimestamp(t1Prime);
}

void ReceivedMessage::makeReply(uint32_t senderSeqNo, uint64_t t1, uint32_t responderSeqNo,
                                uint64_t t2, uint64_t t3, uint64_t t4, uint8_t senderTtl,
                                int replyTtl, uint8_t replyTos) {
    std::memset(payload, 0, sizeof(payload));
    TwampTestMessage reply(payload, kPacketLength);
    reply.setSequenceNumber(responderSeqNo);
    reply.setTimestamp(t3);
    reply.setErrorEstimate();
    reply.setReceiveTimestamp(t2);
    reply.setSenderSequenceNumber(senderSeqNo);
    reply.setSenderTimestamp(t1);
    reply.setSenderErrorEstimate(static_cast<uint16_t>((OwampTestMessage::kErrorEstimateHigh << 8) |
                                                       OwampTestMessage::kErrorEstimateLow));
    reply.setSenderTtl(senderTtl);
    ioVector.iov_len = kPacketLength;
    resetControl();
    appendTimestamp(t4);
    control.append(IPPROTO_IP, IP_TTL, &replyTtl, sizeof(replyTtl));
    control.append(IPPROTO_IP, IP_TOS, &replyTos, sizeof(replyTos));
    messageHeader.msg_controllen = control.appendedLength();
}

void ReceivedMessage::resetControl() {
    control.clear();
    messageHeader.msg_control = control.bytes.data();
    messageHeader.msg_controllen = 0;
}

void ReceivedMessage::appendTimestamp(uint64_t ntp) {
    // Software, (deprecated) and hardware slots all hold the time, so the
    // message reads the same whichever timestamp source is configured.
    const struct timespec time = timespecOfNtp(ntp);
    control.appendTimestamping(time, time, time);
    messageHeader.msg_controllen = control.appendedLength();
}
