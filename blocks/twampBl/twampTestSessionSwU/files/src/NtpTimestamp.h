// NTP timestamps: the one time format of test packets and session records.
//
// An NTP timestamp is an unsigned 64-bit number: the upper 32 bits are whole
// seconds since 1900-01-01 00:00 UTC, the lower 32 bits the binary fraction of
// a second. The difference of two timestamps is a 32.32 fixed-point number of
// seconds. Everything here is integer arithmetic; no floating point is used.
#ifndef TWAMP_NTP_TIMESTAMP_H
#define TWAMP_NTP_TIMESTAMP_H

#include <cstdint>
#include <ctime>

// Seconds from 1900-01-01 to 1970-01-01 (0x83AA7E80). It is a multiple of 60
// and its minute count a multiple of 30, so minute parity, minute modulo 15
// and interval parity agree between NTP seconds and CLOCK_REALTIME seconds.
constexpr uint64_t kNtpUnixEpochOffset = 2208988800ULL;

// Four seconds as a 32.32 difference of two NTP timestamps.
constexpr uint64_t kNtpFourSeconds = 0x400000000ULL;

// Converts a CLOCK_REALTIME (or kernel) timespec to an NTP timestamp. The
// fraction is tv_nsec * 2^32 / 10^9, truncated; since 10^9 = 2^9 * 1953125 it
// is computed exactly as (tv_nsec << 23) / 1953125 and never reaches 2^32.
// Seconds beyond the NTP era wrap modulo 2^32.
uint64_t toNtpTimestamp(const timespec& time);

#endif  // TWAMP_NTP_TIMESTAMP_H
