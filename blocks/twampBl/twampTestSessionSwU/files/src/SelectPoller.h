// The select() poller: the sets are rebuilt from the watched descriptors on
// every wait, and descriptors at or above FD_SETSIZE cannot be watched at all
// (putting one into an fd_set would write past its end). Kept for comparison
// with the epoll poller and for the loop's historic one-per-call serving.
#ifndef TWAMP_SELECT_POLLER_H
#define TWAMP_SELECT_POLLER_H

#include <sys/select.h>

#include <functional>
#include <map>
#include <vector>

#include "IoPoller.h"

class SelectPoller : public IoPoller {
  public:
    // The readiness wait, with the signature of ::select; replaceable in tests.
    using SelectFunction = std::function<int(int nfds, fd_set* readFds, fd_set* writeFds,
                                             fd_set* exceptFds, struct timeval* timeout)>;

    explicit SelectPoller(SelectFunction selectFunction = ::select);

    // IoPoller
    // Refuses descriptors at or above FD_SETSIZE, with an ERROR trace.
    bool setEvents(int fd, unsigned previous, unsigned events) override;
    // One select over every watched descriptor, without time-out.
    bool wait(std::vector<IoReadiness>& ready) override;

  private:
    void buildSets();
    void collectReady(std::vector<IoReadiness>& ready) const;

    fd_set readSet;
    fd_set writeSet;
    fd_set exceptSet;                 // always passed empty
    std::map<int, unsigned> watched;  // descriptor -> directions, ascending
    SelectFunction selectFunction;
};

#endif  // TWAMP_SELECT_POLLER_H
