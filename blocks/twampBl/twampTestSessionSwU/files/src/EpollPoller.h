// The epoll poller, the daemon's: no ceiling on descriptor numbers, and a wait
// whose cost follows the number of ready descriptors, not of watched ones.
//
// Level-triggered: a descriptor left unread is reported again by the next
// wait. One wait takes at most kMaxEventsPerWait ready descriptors, so that
// one wake-up of the loop stays bounded; the rest wait for the next one.
#ifndef TWAMP_EPOLL_POLLER_H
#define TWAMP_EPOLL_POLLER_H

#include <sys/epoll.h>

#include <vector>

#include "EpollSystemCalls.h"
#include "IoPoller.h"

class EpollPoller : public IoPoller {
  public:
    static constexpr int kMaxEventsPerWait = 256;

    // Creates the epoll instance; a failure is traced, and then every
    // registration and every wait fails. systemCalls: null for the real
    // system calls; otherwise not owned and must outlive the poller.
    explicit EpollPoller(EpollSystemCalls* systemCalls = nullptr);
    EpollPoller(const EpollPoller&) = delete;
    EpollPoller& operator=(const EpollPoller&) = delete;
    // Closes the epoll instance.
    ~EpollPoller() override;

    // IoPoller
    // One epoll_ctl: ADD, MOD or DEL; a failure is traced at ERROR.
    bool setEvents(int fd, unsigned previous, unsigned events) override;
    // One epoll_wait without time-out for at most kMaxEventsPerWait descriptors.
    bool wait(std::vector<IoReadiness>& ready) override;

  private:
    EpollSystemCalls& systemCalls;
    int epollFd = -1;
    std::vector<struct epoll_event> events;
};

#endif  // TWAMP_EPOLL_POLLER_H
