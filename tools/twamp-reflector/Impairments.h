// The lab impairments' decisions, drawn from one seeded std::mt19937_64.
//
// Every decision draws the same number of values whatever the settings, so a
// seed gives the same sequence of decisions on every run and every platform
// (the engine's output is fixed by the standard; the conversion to [0, 1) is
// done here, not by a standard distribution, whose results vary between
// libraries), and switching one impairment on does not change the others'.
#ifndef TWAMP_REFLECTOR_IMPAIRMENTS_H
#define TWAMP_REFLECTOR_IMPAIRMENTS_H

#include <cstdint>
#include <random>

struct ImpairmentSettings {
    double forwardLossPercent = 0.0;
    double reverseLossPercent = 0.0;
    double duplicatePercent = 0.0;
    double reorderPercent = 0.0;
    double forwardDelayMs = 0.0;
    double forwardJitterMs = 0.0;
    double reverseDelayMs = 0.0;
    double reverseJitterMs = 0.0;
};

// What happens to a request when it arrives.
struct RequestFate {
    bool forwardLost = false;
    // How long the request is held before T2 is taken.
    int64_t forwardDelayNs = 0;
};

// What happens to the reply of an accepted request.
struct ReplyFate {
    bool reverseLost = false;
    bool duplicate = false;
    bool reorder = false;
    // How long the reply is held after T3 is taken.
    int64_t reverseDelayNs = 0;
};

class Impairments {
  public:
    Impairments(const ImpairmentSettings& settings, uint64_t seed);

    // Draws the fate of an arriving request: two values.
    RequestFate decideRequest();
    // Draws the fate of an accepted request's reply: four values.
    ReplyFate decideReply();

  private:
    // A uniform value in [0, 1) from the top 53 bits of one engine output.
    double draw();
    bool hit(double percent);
    int64_t holdNs(double delayMs, double jitterMs);

    ImpairmentSettings settings_;
    std::mt19937_64 engine_;
};

#endif  // TWAMP_REFLECTOR_IMPAIRMENTS_H
