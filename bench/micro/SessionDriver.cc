#include "SessionDriver.h"

#include "NtpTimestamp.h"

namespace {

// 2023-11-14 22:00:00 UTC, the first minute of an even 15-minute interval.
constexpr time_t kFirstMinute = 1699999200;
constexpr time_t kArmedBefore = 47;
constexpr int64_t kNanosecondsPerSecond = 1000000000;
constexpr time_t kFinalisationDelaySeconds = 4;
constexpr time_t kSecondsPerMinute = 60;
constexpr uint8_t kSenderTtl = 64;
constexpr int kReplyTtl = 64;
constexpr uint32_t kDscp = 46;
constexpr uint8_t kReplyTos = kDscp << 2;
// Resolved once at init; nothing is ever sent there, the sends are scripted.
constexpr const char* kReflectorAddress = "198.18.1.2";
constexpr const char* kReflectorPort = "20000";

uint64_t ntpOfMicroseconds(uint64_t microseconds) {
    return (microseconds << 32) / 1000000;
}

time_t finalisationMinute(const struct timespec& time) {
    return (time.tv_sec - kFinalisationDelaySeconds) / kSecondsPerMinute;
}

}  // namespace

SessionDriver::SessionDriver(uint32_t packetsPerSecond, uint64_t seed)
    : intervalNs(kNanosecondsPerSecond / packetsPerSecond), randomState(seed | 1) {
    // Every timer read is one expiry, nothing is recorded, and the random
    // byte changes from read to read: what remains is the session's own work.
    systemCalls.expireWhenUnqueued = true;
    systemCalls.recordCalls = false;
    systemCalls.randomByteStep = 1;
    clock.set(kFirstMinute - kArmedBefore);
    session = std::make_unique<TwampTestSession>(
        kReflectorAddress, kReflectorPort, packetsPerSecond, 0, 0,
        static_cast<int32_t>(ReceivedMessage::kPacketLength), kDscp, 0, 0, clock, &systemCalls);
    session->init();
}

struct timespec SessionDriver::expiryTime(uint64_t index) const {
    const int64_t offset = static_cast<int64_t>(index) * intervalNs;
    return timespec{kFirstMinute + static_cast<time_t>(offset / kNanosecondsPerSecond),
                    static_cast<long>(offset % kNanosecondsPerSecond)};
}

bool SessionDriver::nextExpiryFinalisesMinute() const {
    if (expiryCount == 0) {
        return false;
    }
    return finalisationMinute(expiryTime(expiryCount)) !=
           finalisationMinute(expiryTime(expiryCount - 1));
}

void SessionDriver::fireNextExpiry() {
    const struct timespec now = expiryTime(expiryCount);
    clock.set(now.tv_sec, now.tv_nsec);
    session->handleInput(twamp_test::ScriptedSystemCalls::kTimerFd);
    lastSeqNo = static_cast<uint32_t>(expiryCount);
    lastT1 = toNtpTimestamp(now);
    ++expiryCount;
}

void SessionDriver::prepareAnswer() {
    // Transmitted 5 us after T1, 50-150 us each way, 10-30 us in the reflector.
    const uint64_t t1Prime = lastT1 + ntpOfMicroseconds(5);
    const uint64_t t2 = t1Prime + ntpOfMicroseconds(drawMicroseconds(50, 100));
    const uint64_t t3 = t2 + ntpOfMicroseconds(drawMicroseconds(10, 20));
    const uint64_t t4 = t3 + ntpOfMicroseconds(drawMicroseconds(50, 100));
    txTimestamp.makeLoopedFrame(lastSeqNo, lastT1, t1Prime);
    reply.makeReply(lastSeqNo, lastT1, responderSeqNo++, t2, t3, t4, kSenderTtl, kReplyTtl,
                    kReplyTos);
}

void SessionDriver::deliverAnswer() {
    session->receiveErrQueueMessage(txTimestamp.header(), txTimestamp.length());
    session->receiveMessage(reply.header());
}

void SessionDriver::sendAndAnswer() {
    fireNextExpiry();
    prepareAnswer();
    deliverAnswer();
}

uint64_t SessionDriver::drawMicroseconds(uint64_t low, uint64_t span) {
    // xorshift64: cheap, and the same delays on every run.
    randomState ^= randomState << 13;
    randomState ^= randomState >> 7;
    randomState ^= randomState << 17;
    return low + randomState % span;
}
