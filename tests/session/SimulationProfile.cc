#include "SimulationProfile.h"

#include <algorithm>
#include <sstream>

namespace {

constexpr int64_t kMillisecond = 1000000;
constexpr int64_t kMicrosecond = 1000;

int64_t uniform(std::mt19937_64& random, int64_t low, int64_t high) {
    return std::uniform_int_distribution<int64_t>(low, high)(random);
}

double uniformReal(std::mt19937_64& random, double low, double high) {
    return std::uniform_real_distribution<double>(low, high)(random);
}

bool chance(std::mt19937_64& random, double probability) {
    return std::bernoulli_distribution(probability)(random);
}

// The rates a session is created with. 100 packets per second costs the
// most simulated work, so it is drawn least and runs shortest.
uint32_t drawRate(std::mt19937_64& random) {
    static const uint32_t kRates[] = {0, 1, 3, 10, 100};
    static const double kWeights[] = {0.2, 0.25, 0.2, 0.25, 0.1};
    std::discrete_distribution<int> pick(std::begin(kWeights), std::end(kWeights));
    return kRates[pick(random)];
}

int drawMinutes(std::mt19937_64& random, uint32_t rate, int maxMinutes) {
    int minutes = 0;
    if (rate >= 100) {
        minutes = static_cast<int>(uniform(random, 2, 6));
    } else if (rate >= 10) {
        minutes = static_cast<int>(uniform(random, 10, 30));
    } else {
        minutes = static_cast<int>(uniform(random, 20, 80));
    }
    return std::max(1, std::min(minutes, maxMinutes));
}

// The packet interval in nanoseconds, for scaling the jitter to the rate.
int64_t intervalNs(uint32_t rate) {
    return rate <= 1 ? 1000 * kMillisecond : 1000 * kMillisecond / rate;
}

void drawPath(SimulationProfile& profile, std::mt19937_64& random) {
    const int64_t interval = intervalNs(profile.packetsPerSecond);
    profile.forwardBaseNs = uniform(random, 0, 150 * kMillisecond);
    profile.reverseBaseNs = uniform(random, 0, 150 * kMillisecond);
    const int kind = static_cast<int>(uniform(random, 0, 9));
    if (kind < 4) {
        // Calm: jitter well inside the packet interval, little loss.
        profile.forwardJitterNs = uniform(random, 0, std::min(interval / 4, 20 * kMillisecond));
        profile.reverseJitterNs = uniform(random, 0, std::min(interval / 4, 20 * kMillisecond));
        profile.forwardLoss = chance(random, 0.5) ? uniformReal(random, 0.0, 0.01) : 0.0;
        profile.reverseLoss = chance(random, 0.5) ? uniformReal(random, 0.0, 0.01) : 0.0;
        profile.duplicateChance = chance(random, 0.3) ? uniformReal(random, 0.0, 0.005) : 0.0;
    } else if (kind < 7) {
        // Lossy: losses and bursts in both directions, some duplicates.
        profile.forwardJitterNs = uniform(random, 0, std::min(interval / 2, 30 * kMillisecond));
        profile.reverseJitterNs = uniform(random, 0, std::min(interval / 2, 30 * kMillisecond));
        profile.forwardLoss = uniformReal(random, 0.0, 0.1);
        profile.reverseLoss = uniformReal(random, 0.0, 0.1);
        profile.burstChance = uniformReal(random, 0.0, 0.01);
        profile.duplicateChance = uniformReal(random, 0.0, 0.02);
    } else {
        // Rough: jitter beyond the packet interval (reordering), delay
        // spikes up to 5 s, duplicates and late transmit timestamps.
        profile.forwardJitterNs = uniform(random, 0, 3 * interval + 20 * kMillisecond);
        profile.reverseJitterNs = uniform(random, 0, 3 * interval + 20 * kMillisecond);
        profile.spikeChance = uniformReal(random, 0.0, 0.01);
        profile.forwardLoss = uniformReal(random, 0.0, 0.05);
        profile.reverseLoss = uniformReal(random, 0.0, 0.05);
        profile.burstChance = uniformReal(random, 0.0, 0.005);
        profile.duplicateChance = uniformReal(random, 0.0, 0.03);
    }
    profile.lateTimestampChance = chance(random, 0.5) ? uniformReal(random, 0.0, 0.02) : 0.0;
    profile.sendFailureChance = chance(random, 0.2) ? uniformReal(random, 0.0, 0.01) : 0.0;
}

void drawReflector(SimulationProfile& profile, std::mt19937_64& random) {
    profile.statelessReflector = chance(random, 0.15);
    // Usually from 0 or anywhere, now and then just before its number wraps.
    const int start = static_cast<int>(uniform(random, 0, 19));
    profile.firstResponderSeqNo =
        start < 10   ? 0
        : start < 19 ? static_cast<uint32_t>(uniform(random, 1, 2000000000))
                     : static_cast<uint32_t>(0xFFFFFFFFu - uniform(random, 0, 20000));
    profile.reflectorClockOffsetNs = uniform(random, -20000 * kMillisecond, 20000 * kMillisecond);
    profile.residenceMaxNs = chance(random, 0.9) ? uniform(random, 5 * kMicrosecond, kMillisecond)
                                                 : uniform(random, kMillisecond, 50 * kMillisecond);
    profile.replyDscp = static_cast<uint8_t>(uniform(random, 0, 63));
    profile.senderTtl = chance(random, 0.1) ? 0 : static_cast<uint8_t>(uniform(random, 1, 255));
    profile.replyTtl = static_cast<uint8_t>(uniform(random, 1, 255));
    profile.headerChangeChance = chance(random, 0.3) ? uniformReal(random, 0.0, 0.002) : 0.0;
}

void drawDisturbances(SimulationProfile& profile, std::mt19937_64& random) {
    profile.outageChance = chance(random, 0.3) ? uniformReal(random, 0.0, 0.05) : 0.0;
    profile.reflectorClockStepChance = chance(random, 0.2) ? uniformReal(random, 0.0, 0.03) : 0.0;
    if (chance(random, 0.5)) {
        return;
    }
    profile.restartChance = uniformReal(random, 0.0, 0.08);
    profile.clockStepChance = uniformReal(random, 0.0, 0.04);
    profile.stallChance = uniformReal(random, 0.0, 0.03);
}

}  // namespace

SimulationProfile SimulationProfile::draw(std::mt19937_64& random, int maxMinutes) {
    SimulationProfile profile;
    profile.packetsPerSecond = drawRate(random);
    profile.spreadingBase = chance(random, 0.3) ? 5000 : 0;
    profile.startOffset =
        static_cast<uint32_t>(uniform(random, 0, profile.spreadingBase == 5000 ? 5555 : 2499));
    // Now and then the sender's number wraps within the run.
    profile.firstSequenceNumber =
        chance(random, 0.1) ? static_cast<uint32_t>(0xFFFFFFFFu - uniform(random, 0, 20000)) : 0;
    profile.minutes = drawMinutes(random, profile.packetsPerSecond, maxMinutes);
    drawPath(profile, random);
    drawReflector(profile, random);
    drawDisturbances(profile, random);
    return profile;
}

std::string SimulationProfile::describe() const {
    std::ostringstream text;
    text << "rate " << packetsPerSecond << " pps, offset " << startOffset << " (base "
         << spreadingBase << "), first seq " << firstSequenceNumber << ", " << minutes
         << " minutes; reflector " << (statelessReflector ? "stateless" : "stateful") << " from "
         << firstResponderSeqNo << ", clock " << reflectorClockOffsetNs
         << " ns, residence <= " << residenceMaxNs << " ns; forward " << forwardBaseNs << "+"
         << forwardJitterNs << " ns loss " << forwardLoss << "; reverse " << reverseBaseNs << "+"
         << reverseJitterNs << " ns loss " << reverseLoss << "; burst " << burstChance << ", spike "
         << spikeChance << ", duplicate " << duplicateChance << ", late timestamp "
         << lateTimestampChance << ", send failure " << sendFailureChance << "; DSCP "
         << static_cast<int>(replyDscp) << ", sender TTL " << static_cast<int>(senderTtl)
         << ", reply TTL " << static_cast<int>(replyTtl) << ", header change " << headerChangeChance
         << "; per minute restart " << restartChance << ", clock step " << clockStepChance
         << ", stall " << stallChance;
    return text.str();
}
