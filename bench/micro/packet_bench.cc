// The per-packet conversions and packet views: the NTP conversion of every
// clock reading, writing the sender fields of each sent packet, reading the
// fields of each reply and finding the payload of each looped-back frame.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <ctime>

#include "NtpTimestamp.h"
#include "OwampTestMessage.h"
#include "ReceivedMessage.h"
#include "SocketHelper.h"
#include "TwampTestMessage.h"

namespace {

constexpr time_t kSomeSecond = 1699999200;
constexpr long kStepNs = 100000007;  // a prime step, so no two readings repeat a pattern

void BM_ToNtpTimestamp(benchmark::State& state) {
    struct timespec time = {kSomeSecond, 0};
    for (auto _ : state) {
        benchmark::DoNotOptimize(toNtpTimestamp(time));
        time.tv_nsec = (time.tv_nsec + kStepNs) % 1000000000L;
    }
}
BENCHMARK(BM_ToNtpTimestamp);

void BM_SenderFieldsWrite(benchmark::State& state) {
    uint8_t packet[ReceivedMessage::kPacketLength] = {};
    uint32_t seqNo = 0;
    uint64_t t1 = toNtpTimestamp(timespec{kSomeSecond, 0});
    for (auto _ : state) {
        OwampTestMessage message(packet, sizeof(packet));
        message.setSequenceNumber(seqNo++);
        message.setTimestamp(t1++);
        message.setErrorEstimate();
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_SenderFieldsWrite);

void BM_ReplyFieldsRead(benchmark::State& state) {
    ReceivedMessage reply;
    reply.makeReply(7, 0x1122334455667788ULL, 9, 1, 2, 3, 64, 64, 0xB8);
    auto* payload = static_cast<uint8_t*>(reply.header()->msg_iov[0].iov_base);
    for (auto _ : state) {
        TwampTestMessage message(payload, ReceivedMessage::kPacketLength);
        benchmark::DoNotOptimize(message.getSenderTimestamp());
        benchmark::DoNotOptimize(message.getSenderSequenceNumber());
        benchmark::DoNotOptimize(message.getSequenceNumber());
        benchmark::DoNotOptimize(message.getTimestamp());
        benchmark::DoNotOptimize(message.getReceiveTimestamp());
        benchmark::DoNotOptimize(message.getSenderTtl());
    }
}
BENCHMARK(BM_ReplyFieldsRead);

void BM_LoopedFrameFieldsRead(benchmark::State& state) {
    ReceivedMessage frame;
    frame.makeLoopedFrame(7, 0x1122334455667788ULL, 0x1122334455667799ULL);
    auto* bytes = static_cast<uint8_t*>(frame.header()->msg_iov[0].iov_base);
    const auto length = static_cast<std::size_t>(frame.length());
    for (auto _ : state) {
        const std::size_t offset = getLoopedFrameHeaderLength(bytes, length, AF_INET);
        OwampTestMessage message(bytes + offset, length - offset);
        benchmark::DoNotOptimize(message.getTimestamp());
        benchmark::DoNotOptimize(message.getSequenceNumber());
    }
}
BENCHMARK(BM_LoopedFrameFieldsRead);

void BM_KernelTimestampRead(benchmark::State& state) {
    ReceivedMessage reply;
    reply.makeReply(7, 0x1122334455667788ULL, 9, 1, 2, 0x1122334455667799ULL, 64, 64, 0xB8);
    for (auto _ : state) {
        benchmark::DoNotOptimize(getTxTimestamp(reply.header()));
    }
}
BENCHMARK(BM_KernelTimestampRead);

}  // namespace
