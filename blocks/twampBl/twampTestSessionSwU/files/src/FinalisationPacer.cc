#include "FinalisationPacer.h"

bool FinalisationPacer::mayFinalise(int64_t nowNs, int64_t dueSinceNs) const {
    return nowNs >= quietUntilNs || nowNs - dueSinceNs >= kLongestWaitNs;
}

void FinalisationPacer::finalised(int64_t startNs, int64_t endNs) {
    const int64_t duration = endNs - startNs;
    if (duration < kNegligibleNs) {
        return;
    }
    quietUntilNs = endNs + kSpacingFactor * duration;
}
