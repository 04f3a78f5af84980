// The readiness wait behind the IoMultiplexer: descriptors only, no handlers.
//
// The multiplexer tells the poller which directions of a descriptor to watch
// whenever that changes, and asks it to wait. A poller knows nothing of what
// is served: the multiplexer turns the ready descriptors into handler calls.
// Two pollers exist: epoll (the daemon's) and select (kept for comparison;
// it cannot watch descriptors at or above FD_SETSIZE).
#ifndef TWAMP_IO_POLLER_H
#define TWAMP_IO_POLLER_H

#include <vector>

// One ready descriptor and the directions it is ready for (IoPoller::kRead, kWrite).
struct IoReadiness {
    int fd;
    unsigned events;
};

class IoPoller {
  public:
    static constexpr unsigned kRead = 1;
    static constexpr unsigned kWrite = 2;

    virtual ~IoPoller() = default;

    // Watches fd for the directions in events instead of those in previous
    // (previous 0: not watched so far; events 0: watched no longer); false,
    // traced, when the descriptor cannot be watched so.
    virtual bool setEvents(int fd, unsigned previous, unsigned events) = 0;
    // Waits without time-out until a watched descriptor is ready and replaces
    // the contents of ready with the ready ones; false when the wait fails.
    virtual bool wait(std::vector<IoReadiness>& ready) = 0;
};

#endif  // TWAMP_IO_POLLER_H
