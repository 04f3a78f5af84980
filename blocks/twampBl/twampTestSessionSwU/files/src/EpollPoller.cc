#include "EpollPoller.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "TraceFacade.h"

namespace {

uint32_t toEpollEvents(unsigned events) {
    uint32_t epollEvents = 0;
    if ((events & IoPoller::kRead) != 0) {
        epollEvents |= EPOLLIN;
    }
    if ((events & IoPoller::kWrite) != 0) {
        epollEvents |= EPOLLOUT;
    }
    return epollEvents;
}

// An error or hang-up is reported in both directions, as select() does: the
// handler finds out what happened from its own read or write.
unsigned fromEpollEvents(uint32_t epollEvents) {
    unsigned events = 0;
    if ((epollEvents & (EPOLLIN | EPOLLERR | EPOLLHUP)) != 0) {
        events |= IoPoller::kRead;
    }
    if ((epollEvents & (EPOLLOUT | EPOLLERR | EPOLLHUP)) != 0) {
        events |= IoPoller::kWrite;
    }
    return events;
}

const char* operationName(int operation) {
    switch (operation) {
        case EPOLL_CTL_ADD:
            return "EPOLL_CTL_ADD";
        case EPOLL_CTL_MOD:
            return "EPOLL_CTL_MOD";
        default:
            return "EPOLL_CTL_DEL";
    }
}

}  // namespace

EpollPoller::EpollPoller(EpollSystemCalls* systemCalls)
    : systemCalls(systemCalls != nullptr ? *systemCalls : EpollSystemCalls::real()),
      events(kMaxEventsPerWait) {
    epollFd = this->systemCalls.epollCreate1(EPOLL_CLOEXEC);
    if (epollFd == -1) {
        const int error = errno;
        TRACE_ERROR("Failed epoll_create1: errno %d - %s", error, strerror(error));
    }
}

EpollPoller::~EpollPoller() {
    if (epollFd != -1) {
        systemCalls.close(epollFd);
    }
}

bool EpollPoller::setEvents(int fd, unsigned previous, unsigned events) {
    int operation = EPOLL_CTL_MOD;
    if (previous == 0) {
        operation = EPOLL_CTL_ADD;
    } else if (events == 0) {
        operation = EPOLL_CTL_DEL;
    }
    struct epoll_event event;
    std::memset(&event, 0, sizeof(event));
    event.events = toEpollEvents(events);
    event.data.fd = fd;
    if (systemCalls.epollCtl(epollFd, operation, fd, &event) == 0) {
        return true;
    }
    const int error = errno;
    // A handler that closes its descriptor before it leaves the loop: the
    // kernel dropped the registration with the last reference to the file.
    if (operation == EPOLL_CTL_DEL && (error == EBADF || error == ENOENT)) {
        return true;
    }
    TRACE_ERROR("Failed epoll_ctl %s for descriptor %d: errno %d - %s", operationName(operation),
                fd, error, strerror(error));
    return false;
}

bool EpollPoller::wait(std::vector<IoReadiness>& ready) {
    ready.clear();
    // No time-out: all timing comes from timerfd descriptors.
    const int count = systemCalls.epollWait(epollFd, events.data(), kMaxEventsPerWait, -1);
    if (count < 0) {
        // A stop and continue (a debugger, a paused container) or a handled
        // signal interrupts the wait without anything being ready; the loop
        // goes on. Any other failure ends the loop of the process.
        return errno == EINTR;
    }
    for (int i = 0; i < count; ++i) {
        ready.push_back({events[i].data.fd, fromEpollEvents(events[i].events)});
    }
    return true;
}
