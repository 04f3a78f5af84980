// Keeps the sessions' minute finalisations apart. Every session finalises
// its minute 4 s after the minute ends, in its own start slot; at high rates
// a finalisation takes a quarter of a millisecond and more, and back to back
// they hold the loop long enough to make the other sessions' sends late.
// A session whose finalisation comes too soon after another's waits for one
// of its next expiries instead, and never longer than a bounded delay.
#ifndef TWAMP_FINALISATION_PACER_H
#define TWAMP_FINALISATION_PACER_H

#include <cstdint>

class FinalisationPacer {
  public:
    // A finalisation shorter than this makes nobody wait.
    static constexpr int64_t kNegligibleNs = 50 * 1000;
    // After a finalisation of d, the next one waits until 8 d have passed,
    // so that the sends it delayed are caught up first.
    static constexpr int64_t kSpacingFactor = 8;
    // No finalisation waits longer than this after it was due.
    static constexpr int64_t kLongestWaitNs = 500 * 1000 * 1000;

    virtual ~FinalisationPacer() = default;

    // Whether a finalisation due since dueSinceNs may run at nowNs (both on
    // the monotonic clock).
    virtual bool mayFinalise(int64_t nowNs, int64_t dueSinceNs) const;
    // A finalisation ran from startNs to endNs on the monotonic clock.
    virtual void finalised(int64_t startNs, int64_t endNs);

  private:
    // Until when the next finalisation waits; 0 before the first long one.
    int64_t quietUntilNs = 0;
};

#endif  // TWAMP_FINALISATION_PACER_H
