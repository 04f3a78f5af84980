#include "Impairments.h"

#include <cmath>

namespace {

constexpr double kNanosecondsPerMs = 1e6;
constexpr unsigned kMantissaBits = 53;
constexpr unsigned kDiscardedBits = 64 - kMantissaBits;
// 2^-53: scales a 53-bit integer into [0, 1).
const double kMantissaScale = std::ldexp(1.0, -static_cast<int>(kMantissaBits));

}  // namespace

Impairments::Impairments(const ImpairmentSettings& settings, uint64_t seed)
    : settings_(settings), engine_(seed) {}

double Impairments::draw() {
    return static_cast<double>(engine_() >> kDiscardedBits) * kMantissaScale;
}

// A draw below percent / 100: never for 0, always for 100.
bool Impairments::hit(double percent) {
    return draw() * 100.0 < percent;
}

int64_t Impairments::holdNs(double delayMs, double jitterMs) {
    const double holdMs = delayMs + draw() * jitterMs;
    return static_cast<int64_t>(std::llround(holdMs * kNanosecondsPerMs));
}

RequestFate Impairments::decideRequest() {
    RequestFate fate;
    fate.forwardLost = hit(settings_.forwardLossPercent);
    fate.forwardDelayNs = holdNs(settings_.forwardDelayMs, settings_.forwardJitterMs);
    return fate;
}

ReplyFate Impairments::decideReply() {
    ReplyFate fate;
    fate.reverseLost = hit(settings_.reverseLossPercent);
    fate.duplicate = hit(settings_.duplicatePercent);
    fate.reorder = hit(settings_.reorderPercent);
    fate.reverseDelayNs = holdNs(settings_.reverseDelayMs, settings_.reverseJitterMs);
    return fate;
}
