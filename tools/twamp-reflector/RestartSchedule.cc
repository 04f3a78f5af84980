#include "RestartSchedule.h"

RestartSchedule::RestartSchedule(const RestartSettings& settings)
    : settings_(settings), phase_(settings.after != 0 ? Phase::Waiting : Phase::Done) {}

bool RestartSchedule::dropInGap(int64_t nowNs) {
    if (phase_ != Phase::Gap) {
        return false;
    }
    if (settings_.gapNs != 0 && nowNs >= gapEndNs_) {
        phase_ = Phase::Due;
        return false;
    }
    if (settings_.gapNs == 0 && ++gapDropped_ == settings_.gapRequests) {
        phase_ = Phase::Due;
    }
    return true;
}

bool RestartSchedule::accept(int64_t nowNs) {
    bool restart = settings_.every != 0 && acceptedSinceRestart_ == settings_.every;
    if (phase_ == Phase::Due) {
        phase_ = Phase::Done;
        restart = true;
    }
    if (restart) {
        acceptedSinceRestart_ = 0;
    }
    ++acceptedSinceRestart_;
    if (phase_ == Phase::Waiting && ++accepted_ == settings_.after) {
        startGap(nowNs);
    }
    return restart;
}

void RestartSchedule::startGap(int64_t nowNs) {
    const bool gap = settings_.gapRequests != 0 || settings_.gapNs != 0;
    phase_ = gap ? Phase::Gap : Phase::Due;
    gapEndNs_ = nowNs + settings_.gapNs;
}
