#include "SimulatedReflector.h"

#include "SimulationTime.h"

SimulatedReflector::SimulatedReflector(bool stateless, uint32_t firstSeqNo, int64_t clockOffsetNs)
    : stateless(stateless), nextSeqNo(firstSeqNo), clockOffsetNs(clockOffsetNs) {}

SimulatedReflector::Answer SimulatedReflector::receive(int64_t nowNs, uint32_t senderSeqNo) {
    Answer answer;
    if (nowNs < downUntilNs) {
        return answer;
    }
    answer.answered = true;
    answer.incarnation = incarnation;
    answer.responderSeqNo = stateless ? senderSeqNo : nextSeqNo++;
    return answer;
}

void SimulatedReflector::restart(int64_t nowNs, int64_t downNs) {
    nextSeqNo = 0;
    downUntilNs = nowNs + downNs;
    ++incarnation;
}

void SimulatedReflector::stepClock(int64_t stepNs) {
    clockOffsetNs += stepNs;
}

struct timespec SimulatedReflector::clockAt(int64_t nowNs) const {
    return simulation_time::toTimespec(nowNs + clockOffsetNs);
}
