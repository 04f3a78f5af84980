// Smallest and largest value of a one-byte header field over a minute: the
// DSCP of the replies and the TTLs of both directions.
#ifndef TWAMP_MIN_MAX_TRACKER_H
#define TWAMP_MIN_MAX_TRACKER_H

#include <cstdint>

struct MinMaxTracker {
    uint64_t min = 0;
    uint64_t max = 0;
    uint64_t count = 0;

    // Forgets every value seen.
    void clear() { *this = MinMaxTracker(); }
    // Takes one more value into the range.
    void add(uint64_t value) {
        if (count == 0) {
            min = value;
            max = value;
        } else if (value < min) {
            min = value;
        } else if (value > max) {
            max = value;
        }
        ++count;
    }
};

#endif  // TWAMP_MIN_MAX_TRACKER_H
