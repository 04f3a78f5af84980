// Time in the simulation: true time and the wall clocks of sender and
// reflector are nanoseconds since 1970 in signed 64 bits; timestamps in
// packets are NTP, converted the one way the daemon converts kernel times.
#ifndef TWAMP_TESTS_SIMULATION_TIME_H
#define TWAMP_TESTS_SIMULATION_TIME_H

#include <cstdint>
#include <ctime>

#include "NtpTimestamp.h"

namespace simulation_time {

constexpr int64_t kMicrosecond = 1000;
constexpr int64_t kMillisecond = 1000 * kMicrosecond;
constexpr int64_t kSecond = 1000 * kMillisecond;
constexpr int64_t kMinute = 60 * kSecond;
// The longest a reply may take: the daemon's 4 s, as microseconds in a bin.
constexpr int64_t kFourSecondsInMicroseconds = 4000000;

inline struct timespec toTimespec(int64_t ns) {
    struct timespec time;
    time.tv_sec = static_cast<time_t>(ns / kSecond);
    time.tv_nsec = static_cast<long>(ns % kSecond);
    return time;
}

inline int64_t toNs(const struct timespec& time) {
    return static_cast<int64_t>(time.tv_sec) * kSecond + time.tv_nsec;
}

inline uint64_t ntpOfNs(int64_t ns) {
    return toNtpTimestamp(toTimespec(ns));
}

// The minute number of a wall-clock time.
inline uint32_t minuteOfNs(int64_t ns) {
    return static_cast<uint32_t>(ns / kMinute);
}

// An NTP difference in microseconds as a bin reports it: 32.32 seconds
// times 10^6, truncated, in unsigned 64 bits (a negative difference wraps).
inline uint64_t ntpDifferenceToMicroseconds(uint64_t difference) {
    return (difference * 15625) >> 26;
}

// A one-way delay in microseconds: an NTP difference read as signed 32.32
// seconds (the clocks of sender and reflector need not agree), truncated
// toward minus infinity.
inline int64_t ntpDifferenceToSignedMicroseconds(uint64_t difference) {
    const auto signedDifference = static_cast<int64_t>(difference);
    const int64_t seconds =
        (signedDifference - static_cast<int64_t>(difference & 0xffffffffu)) / (int64_t{1} << 32);
    return seconds * 1000000 + static_cast<int64_t>(((difference & 0xffffffffu) * 15625) >> 26);
}

}  // namespace simulation_time

#endif  // TWAMP_TESTS_SIMULATION_TIME_H
