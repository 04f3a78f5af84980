// The conditions of one simulated run: the session's create values, the
// reflector's numbering and clock, what the path does to packets and
// replies, and how often the reflector restarts, the wall clock is set or
// the event loop stands still. Drawn at random per run, so that one seed
// covers calm and rough networks alike.
#ifndef TWAMP_TESTS_SIMULATION_PROFILE_H
#define TWAMP_TESTS_SIMULATION_PROFILE_H

#include <cstdint>
#include <random>
#include <string>

struct SimulationProfile {
    // Session (create signal).
    uint32_t packetsPerSecond = 1;
    uint32_t startOffset = 0;
    uint32_t spreadingBase = 0;
    uint32_t firstSequenceNumber = 0;
    int minutes = 10;

    // Reflector.
    bool statelessReflector = false;
    uint32_t firstResponderSeqNo = 0;
    int64_t reflectorClockOffsetNs = 0;  // its clock minus the sender's at the start
    int64_t residenceMaxNs = 100000;     // time between T2 and T3

    // Path, each direction: base delay, uniform jitter on top, and a rare
    // spike of 0.5 s to 5 s (beyond the 4 s limit now and then).
    int64_t forwardBaseNs = 0;
    int64_t forwardJitterNs = 0;
    int64_t reverseBaseNs = 0;
    int64_t reverseJitterNs = 0;
    double spikeChance = 0.0;
    double forwardLoss = 0.0;
    double reverseLoss = 0.0;
    // Chance per packet that a burst of 2 to 30 losses starts, either way.
    double burstChance = 0.0;
    // Chance that a reply reaches the sender twice.
    double duplicateChance = 0.0;
    // Chance that the transmit timestamp comes after the reply.
    double lateTimestampChance = 0.0;
    // Chance that a send fails locally (no sequence number used up).
    double sendFailureChance = 0.0;

    // Header fields of the replies: DSCP (with random ECN bits), the Sender
    // TTL the reflector reports (0: it leaves the field empty) and the TTL
    // the replies arrive with; changed now and then (re-marking, re-routing).
    uint8_t replyDscp = 0;
    uint8_t senderTtl = 64;
    uint8_t replyTtl = 64;
    double headerChangeChance = 0.0;

    // Chance per simulated minute that the path goes down for 10 s to 150 s:
    // every packet sent meanwhile is lost, and minutes pass without replies.
    double outageChance = 0.0;

    // Chance per simulated minute that the reflector's clock is set by up to
    // a minute either way (its one-way delays jump, the round trip does not).
    double reflectorClockStepChance = 0.0;

    // Disturbances, chance per simulated minute of each.
    double restartChance = 0.0;
    double clockStepChance = 0.0;
    double stallChance = 0.0;

    // Draws a run of at most maxMinutes minutes.
    static SimulationProfile draw(std::mt19937_64& random, int maxMinutes);
    // One line for failure reports.
    std::string describe() const;
};

#endif  // TWAMP_TESTS_SIMULATION_PROFILE_H
