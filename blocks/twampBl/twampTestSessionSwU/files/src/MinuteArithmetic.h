// The minute arithmetic of a session: which minute a time falls in, which of
// the two per-minute state sets it uses (its parity), which of the two period
// records holds it and which of the record's 15 bins is its own.
//
// Minutes are counted from 1970 in 32 bits. kNtpUnixEpochOffset is a whole
// number of 30-minute periods, so parity, record and bin agree whether the
// minute is taken from CLOCK_REALTIME or from an NTP timestamp.
#ifndef TWAMP_MINUTE_ARITHMETIC_H
#define TWAMP_MINUTE_ARITHMETIC_H

#include <cstdint>
#include <ctime>

#include "NtpTimestamp.h"

constexpr uint32_t kSecondsPerMinute = 60;
constexpr uint32_t kMinutesPerInterval = 15;

// The minute number of a wall-clock time, kept in 32 bits.
inline uint32_t minuteOf(const struct timespec& now) {
    return static_cast<uint32_t>(now.tv_sec / kSecondsPerMinute);
}

// Index of the period record of a minute: parity of its 15-minute interval.
inline int recordIndexOf(uint32_t minute) {
    return static_cast<int>((minute / kMinutesPerInterval) & 1);
}

// The bin of a minute in its period record: the minute of the hour mod 15.
inline int binOf(uint32_t minute) {
    return static_cast<int>(minute % kMinutesPerInterval);
}

// Parity of a minute number: selects the per-minute state and outstanding map.
inline int parityOf(uint32_t minute) {
    return static_cast<int>(minute & 1);
}

// The wall-clock minute number of a 64-bit NTP timestamp (32 bits of
// seconds). The seconds wrap on 2036-02-07 06:28:16 UTC; a clock that reads
// after 1970 then puts them in the next NTP era. 2^32 s is no whole number
// of minutes, so the minute is taken from POSIX seconds, not NTP ones.
inline uint32_t minuteOfNtp(uint64_t ntpTimestamp) {
    const uint64_t ntpSeconds = ntpTimestamp >> 32;
    const uint64_t posixSeconds = ntpSeconds >= kNtpUnixEpochOffset
                                      ? ntpSeconds - kNtpUnixEpochOffset
                                      : ntpSeconds + (uint64_t{1} << 32) - kNtpUnixEpochOffset;
    return static_cast<uint32_t>(posixSeconds / kSecondsPerMinute);
}

#endif  // TWAMP_MINUTE_ARITHMETIC_H
