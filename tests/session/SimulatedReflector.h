// The reflector of the simulation: it numbers the packets it answers, reads
// its own clock for T2 and T3, and can restart.
//
// A stateful reflector numbers its replies with a counter of its own that
// advances for every packet it answers, also when the reply is then lost
// on the way back; a stateless one copies the sender's number. A restart
// sets the counter back to 0 and answers nothing while the reflector is
// down: packets arriving then are lost on the way out.
#ifndef TWAMP_TESTS_SIMULATED_REFLECTOR_H
#define TWAMP_TESTS_SIMULATED_REFLECTOR_H

#include <cstdint>
#include <ctime>

class SimulatedReflector {
  public:
    // What became of one packet at the reflector.
    struct Answer {
        bool answered = false;
        uint32_t responderSeqNo = 0;
        uint32_t incarnation = 0;  // restarts before the answer
    };

    // clockOffsetNs: the reflector's clock minus true time.
    SimulatedReflector(bool stateless, uint32_t firstSeqNo, int64_t clockOffsetNs);

    // Packet senderSeqNo arrives at true time nowNs.
    Answer receive(int64_t nowNs, uint32_t senderSeqNo);
    // Restarts at true time nowNs and stays down for downNs.
    void restart(int64_t nowNs, int64_t downNs);
    // Sets the reflector's clock by stepNs.
    void stepClock(int64_t stepNs);
    // The reflector's clock at true time nowNs.
    struct timespec clockAt(int64_t nowNs) const;

  private:
    bool stateless;
    uint32_t nextSeqNo;
    int64_t clockOffsetNs;
    int64_t downUntilNs = 0;
    uint32_t incarnation = 0;
};

#endif  // TWAMP_TESTS_SIMULATED_REFLECTOR_H
