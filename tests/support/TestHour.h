// The hour the tests' sessions live in, on the tests' clocks.
#ifndef TWAMP_TESTS_TEST_HOUR_H
#define TWAMP_TESTS_TEST_HOUR_H

#include <ctime>

namespace twamp_test {

// 2023-11-14 22:00:00 UTC: a whole hour, minute number 28333320, which is
// the first minute of an even 15-minute interval (record 0, parity 0).
constexpr time_t kHourStart = 1699999200;

// The first second of the given minute of that hour.
inline time_t minuteOfHour(int minute) {
    return kHourStart + minute * 60;
}

}  // namespace twamp_test

#endif  // TWAMP_TESTS_TEST_HOUR_H
