// Messages as the socket hands them to a session: reflected test packets
// with their receive timestamp, and looped-back frames of sent packets with
// their transmit timestamp, built from NTP timestamps.
//
// Times are given as NTP timestamps whose fraction is a multiple of 1/64 s
// (kNtpUnit): such a time converts to a timespec and back without rounding,
// and kNtpUnit is exactly 15625 microseconds.
#ifndef TWAMP_TESTS_KERNEL_MESSAGES_H
#define TWAMP_TESTS_KERNEL_MESSAGES_H

#include <linux/errqueue.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cstdint>
#include <cstring>
#include <ctime>
#include <vector>

#include "NtpTimestamp.h"
#include "OwampTestMessage.h"
#include "TwampTestMessage.h"

namespace control_test {

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
    explicit KernelMessage(std::size_t payloadLength) : payload(payloadLength, 0) {
        std::memset(control, 0, sizeof(control));
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
        const struct timespec times[3] = {time, time, time};
        appendControl(SOL_SOCKET, SCM_TIMESTAMPING, times, sizeof(times));
    }
    // The TOS byte of a received packet (IP_RECVTOS): DSCP and ECN bits.
    void addReceivedTos(uint8_t tos) { appendControl(IPPROTO_IP, IP_TOS, &tos, sizeof(tos)); }
    // The TTL of a received packet (IP_RECVTTL), an int as the kernel writes it.
    void addReceivedTtl(int ttl) { appendControl(IPPROTO_IP, IP_TTL, &ttl, sizeof(ttl)); }

    struct msghdr* get() {
        return &header;
    }
    ssize_t length() const { return static_cast<ssize_t>(payload.size()); }

    static constexpr std::size_t kPacketLength = 64;
    static constexpr std::size_t kLoopedHeaderLength = 28;

  private:
    // Appends one control item behind those already added; the padding up
    // to the next item stays zero, as in a zero-filled receive buffer.
    void appendControl(int level, int type, const void* data, std::size_t length) {
        header.msg_control = control;
        struct cmsghdr* item = reinterpret_cast<struct cmsghdr*>(control + controlUsed);
        item->cmsg_level = level;
        item->cmsg_type = type;
        item->cmsg_len = CMSG_LEN(length);
        std::memcpy(CMSG_DATA(item), data, length);
        controlUsed += CMSG_SPACE(length);
        header.msg_controllen = controlUsed;
    }

    std::vector<uint8_t> payload;
    alignas(struct cmsghdr) uint8_t control[128];
    std::size_t controlUsed = 0;
    struct iovec ioVector;
    struct msghdr header;
};

}  // namespace control_test

#endif  // TWAMP_TESTS_KERNEL_MESSAGES_H
