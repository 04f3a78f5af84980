// Messages as the socket hands them to a session: reflected test packets
// with their receive timestamp, and looped-back frames of sent packets with
// their transmit timestamp, built from NTP timestamps.
//
// Times are given as NTP timestamps whose fraction is a multiple of 1/64 s
// (kNtpUnit): such a time converts to a timespec and back without rounding,
// and kNtpUnit is exactly 15625 microseconds.
#ifndef TWAMP_TESTS_KERNEL_MESSAGE_H
#define TWAMP_TESTS_KERNEL_MESSAGE_H

#include <linux/errqueue.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cstdint>
#include <cstring>
#include <ctime>
#include <vector>

#include "ControlBuffer.h"
#include "NtpTimestamp.h"
#include "OwampTestMessage.h"
#include "TwampTestMessage.h"

namespace twamp_test {

// 1/64 s as an NTP difference: exactly 15625 microseconds.
constexpr uint64_t kNtpUnit = uint64_t{1} << 26;
constexpr int64_t kMicrosecondsPerUnit = 15625;

// The NTP timestamp of a wall-clock time.
inline uint64_t ntpOf(time_t seconds, long nanoseconds = 0) {
    return toNtpTimestamp(timespec{seconds, nanoseconds});
}

// The timespec of an NTP timestamp (exact for multiples of kNtpUnit).
inline struct timespec timespecOfNtp(uint64_t ntp) {
    struct timespec time;
    time.tv_sec = static_cast<time_t>((ntp >> 32) - kNtpUnixEpochOffset);
    time.tv_nsec = static_cast<long>(((ntp & 0xFFFFFFFFULL) * 1000000000ULL) >> 32);
    return time;
}

// One received message: a payload in its first I/O vector and, when the
// timestamp is not 0, an SCM_TIMESTAMPING item whose three timespecs all
// hold it (so it reads the same for hardware and software timestamps).
class KernelMessage {
  public:
    explicit KernelMessage(std::size_t payloadLength)
        : payload(payloadLength, 0), control(kControlLength) {
        std::memset(&header, 0, sizeof(header));
        ioVector.iov_base = payload.data();
        ioVector.iov_len = payload.size();
        header.msg_iov = &ioVector;
        header.msg_iovlen = 1;
    }
    KernelMessage(const KernelMessage&) = delete;
    KernelMessage& operator=(const KernelMessage&) = delete;

    // A reflected packet of 64 bytes answering senderSeqNo sent at t1.
    static void fillReply(KernelMessage& message, uint32_t senderSeqNo, uint64_t t1,
                          uint32_t responderSeqNo, uint64_t t2, uint64_t t3, uint8_t senderTtl) {
        TwampTestMessage reply(message.payload.data(), message.payload.size());
        reply.setSequenceNumber(responderSeqNo);
        reply.setTimestamp(t3);
        reply.setErrorEstimate();
        reply.setReceiveTimestamp(t2);
        reply.setSenderSequenceNumber(senderSeqNo);
        reply.setSenderTimestamp(t1);
        reply.setSenderTtl(senderTtl);
    }

    // A looped-back IPv4 frame (20-byte header, 8-byte UDP header) of the
    // 64-byte packet senderSeqNo sent at t1.
    static void fillLoopedFrame(KernelMessage& message, uint32_t senderSeqNo, uint64_t t1) {
        message.payload.at(0) = 0x45;
        message.payload.at(9) = 17;
        OwampTestMessage sent(message.payload.data() + kLoopedHeaderLength,
                              message.payload.size() - kLoopedHeaderLength);
        sent.setSequenceNumber(senderSeqNo);
        sent.setTimestamp(t1);
        sent.setErrorEstimate();
    }

    void setKernelTimestamp(uint64_t ntp) { setKernelTime(timespecOfNtp(ntp)); }
    // The kernel timestamp as the kernel hands it over, to the nanosecond.
    void setKernelTime(const struct timespec& time) {
        control.appendTimestamping(time, time, time);
        exposeControl();
    }
    // The TOS byte of a received packet (IP_RECVTOS): DSCP and ECN bits.
    void addReceivedTos(uint8_t tos) {
        control.append(IPPROTO_IP, IP_TOS, {tos});
        exposeControl();
    }
    // The TTL of a received packet (IP_RECVTTL), an int as the kernel writes it.
    void addReceivedTtl(int ttl) {
        control.append(IPPROTO_IP, IP_TTL, intBytes(ttl));
        exposeControl();
    }

    struct msghdr* get() {
        return &header;
    }
    ssize_t length() const { return static_cast<ssize_t>(payload.size()); }

    static constexpr std::size_t kPacketLength = 64;
    static constexpr std::size_t kLoopedHeaderLength = 28;

  private:
    static constexpr std::size_t kControlLength = 128;

    // Hands the items appended so far to the receiver; the padding up to the
    // next item stays zero, as in a zero-filled receive buffer.
    void exposeControl() {
        header.msg_control = control.bytes.data();
        header.msg_controllen = control.appendedLength();
    }

    std::vector<uint8_t> payload;
    ControlBuffer control;
    struct iovec ioVector;
    struct msghdr header;
};

}  // namespace twamp_test

#endif  // TWAMP_TESTS_KERNEL_MESSAGE_H
