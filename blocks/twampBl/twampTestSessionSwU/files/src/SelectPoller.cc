#include "SelectPoller.h"

#include <utility>

#include "TraceFacade.h"

SelectPoller::SelectPoller(SelectFunction selectFunction)
    : selectFunction(std::move(selectFunction)) {
    FD_ZERO(&readSet);
    FD_ZERO(&writeSet);
    FD_ZERO(&exceptSet);
}

bool SelectPoller::setEvents(int fd, unsigned /*previous*/, unsigned events) {
    if (events == 0) {
        watched.erase(fd);
        return true;
    }
    if (fd < 0 || fd >= FD_SETSIZE) {
        TRACE_ERROR("Descriptor %d not watched: select() handles descriptors below %d", fd,
                    FD_SETSIZE);
        return false;
    }
    watched[fd] = events;
    return true;
}

bool SelectPoller::wait(std::vector<IoReadiness>& ready) {
    ready.clear();
    buildSets();
    // The highest watched descriptor plus one; 1 when nothing is watched.
    const int nfds = (watched.empty() ? 0 : watched.rbegin()->first) + 1;
    // No time-out: all timing comes from timerfd descriptors.
    if (selectFunction(nfds, &readSet, &writeSet, &exceptSet, nullptr) < 0) {
        // Any failure, EINTR included, ends the loop of the process.
        return false;
    }
    collectReady(ready);
    return true;
}

void SelectPoller::buildSets() {
    FD_ZERO(&readSet);
    FD_ZERO(&writeSet);
    FD_ZERO(&exceptSet);
    for (const auto& entry : watched) {
        if ((entry.second & kRead) != 0) {
            FD_SET(entry.first, &readSet);
        }
        if ((entry.second & kWrite) != 0) {
            FD_SET(entry.first, &writeSet);
        }
    }
}

void SelectPoller::collectReady(std::vector<IoReadiness>& ready) const {
    for (const auto& entry : watched) {
        unsigned events = 0;
        if ((entry.second & kRead) != 0 && FD_ISSET(entry.first, &readSet)) {
            events |= kRead;
        }
        if ((entry.second & kWrite) != 0 && FD_ISSET(entry.first, &writeSet)) {
            events |= kWrite;
        }
        if (events != 0) {
            ready.push_back({entry.first, events});
        }
    }
}
