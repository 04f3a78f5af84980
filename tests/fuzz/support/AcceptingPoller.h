// A poller that watches nothing: every descriptor is accepted and no wait
// ever returns one. The fuzz targets call the handlers themselves.
#ifndef TWAMP_FUZZ_ACCEPTING_POLLER_H
#define TWAMP_FUZZ_ACCEPTING_POLLER_H

#include <vector>

#include "IoPoller.h"

class AcceptingPoller : public IoPoller {
  public:
    // IoPoller
    bool setEvents(int /*fd*/, unsigned /*previous*/, unsigned /*events*/) override { return true; }
    bool wait(std::vector<IoReadiness>& ready) override {
        ready.clear();
        return false;
    }
};

#endif  // TWAMP_FUZZ_ACCEPTING_POLLER_H
