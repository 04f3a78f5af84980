// A fake of the epoll system calls: records every epoll_ctl, fails calls on
// request and hands out scripted readiness in the order the test chooses,
// without any real descriptor.
#ifndef TWAMP_TESTS_FAKE_EPOLL_SYSTEM_CALLS_H
#define TWAMP_TESTS_FAKE_EPOLL_SYSTEM_CALLS_H

#include <sys/epoll.h>

#include <cerrno>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "EpollSystemCalls.h"

namespace twamp_test {

class FakeEpollSystemCalls : public EpollSystemCalls {
  public:
    static constexpr int kEpollFd = 900;

    // One epoll_ctl as "ADD 7 IN", "MOD 7 IN OUT", "DEL 7".
    static std::string describe(int operation, int fd, const struct epoll_event* event) {
        std::string text = operation == EPOLL_CTL_ADD   ? "ADD "
                           : operation == EPOLL_CTL_MOD ? "MOD "
                                                        : "DEL ";
        text += std::to_string(fd);
        if (operation != EPOLL_CTL_DEL) {
            text += (event->events & EPOLLIN) != 0 ? " IN" : "";
            text += (event->events & EPOLLOUT) != 0 ? " OUT" : "";
        }
        return text;
    }

    // EpollSystemCalls
    int epollCreate1(int flags) override {
        createFlags = flags;
        if (createErrno != 0) {
            errno = createErrno;
            return -1;
        }
        return kEpollFd;
    }
    int epollCtl(int epollFd, int operation, int fd, struct epoll_event* event) override {
        ctlEpollFds.push_back(epollFd);
        ctlCalls.push_back(describe(operation, fd, event));
        auto failure = ctlErrnos.find(fd);
        if (failure != ctlErrnos.end()) {
            errno = failure->second;
            return -1;
        }
        return 0;
    }
    int epollWait(int epollFd, struct epoll_event* events, int maxEvents, int timeout) override {
        waitEpollFd = epollFd;
        waitMaxEvents = maxEvents;
        waitTimeout = timeout;
        if (waitErrno != 0) {
            errno = waitErrno;
            return -1;
        }
        int count = 0;
        for (const auto& readiness : readyEvents) {
            if (count == maxEvents) {
                break;
            }
            events[count].events = readiness.second;
            events[count].data.fd = readiness.first;
            ++count;
        }
        return count;
    }
    int close(int fd) override {
        closedFds.push_back(fd);
        return 0;
    }

    int createFlags = -1;
    int createErrno = 0;
    // epoll_ctl for these descriptors fails with the errno given.
    std::map<int, int> ctlErrnos;
    std::vector<int> ctlEpollFds;
    std::vector<std::string> ctlCalls;
    // What every wait reports, in this order: descriptor and epoll events.
    std::vector<std::pair<int, uint32_t>> readyEvents;
    int waitErrno = 0;
    int waitEpollFd = -1;
    int waitMaxEvents = -1;
    int waitTimeout = 0;
    std::vector<int> closedFds;
};

}  // namespace twamp_test

#endif  // TWAMP_TESTS_FAKE_EPOLL_SYSTEM_CALLS_H
