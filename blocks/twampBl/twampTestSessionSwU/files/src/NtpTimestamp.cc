#include "NtpTimestamp.h"

namespace {

// 10^9 / 2^9: dividing (nanoseconds << 23) by it gives nanoseconds * 2^32 / 10^9.
constexpr uint64_t kNanosecondFractionDivisor = 1953125ULL;
constexpr unsigned kNanosecondFractionShift = 23;
constexpr unsigned kNtpSecondsShift = 32;

}  // namespace

uint64_t toNtpTimestamp(const timespec& time) {
    const uint64_t seconds = kNtpUnixEpochOffset + static_cast<uint64_t>(time.tv_sec);
    const uint64_t fraction = (static_cast<uint64_t>(time.tv_nsec) << kNanosecondFractionShift) /
                              kNanosecondFractionDivisor;
    return (seconds << kNtpSecondsShift) | fraction;
}
