#include "IoMultiplexer.h"

#include <cstddef>
#include <utility>

#include "TraceFacade.h"

namespace {

// Finds the first entry in [begin, end) whose descriptor is ready.
bool findReady(const std::vector<IoHandlerFd>& list, const fd_set& readySet, std::size_t begin,
               std::size_t end, std::size_t& index) {
    for (std::size_t i = begin; i < end; ++i) {
        if (list[i].fd >= 0 && FD_ISSET(list[i].fd, &readySet)) {
            index = i;
            return true;
        }
    }
    return false;
}

void addToSet(const std::vector<IoHandlerFd>& list, fd_set& set) {
    for (const IoHandlerFd& entry : list) {
        if (entry.fd >= 0) {
            FD_SET(entry.fd, &set);
        }
    }
}

}  // namespace

IoMultiplexer::IoMultiplexer(SelectFunction selectFunction)
    : selectFunction(std::move(selectFunction)) {
    FD_ZERO(&readSet);
    FD_ZERO(&writeSet);
    FD_ZERO(&exceptSet);
}

IoMultiplexer::~IoMultiplexer() = default;

void IoMultiplexer::registerReadHandler(IoHandler* handler) {
    addEntries(readList, handler, handler->getReadFds());
}

void IoMultiplexer::removeReadHandler(IoHandler* handler) {
    removeEntries(readList, readCursor, handler);
}

void IoMultiplexer::registerWriteHandler(IoHandler* handler) {
    addEntries(writeList, handler, handler->getWriteFds());
}

void IoMultiplexer::removeWriteHandler(IoHandler* handler) {
    removeEntries(writeList, writeCursor, handler);
}

bool IoMultiplexer::handleEvents() {
    buildReadySets();
    // No time-out: all timing comes from timerfd descriptors in the read list.
    if (selectFunction(maxFd + 1, &readSet, &writeSet, &exceptSet, nullptr) < 0) {
        // Any failure, EINTR included, ends the loop of the process.
        return false;
    }
    const bool writeListFirst = (writeFirst != 0);
    if (!dispatchFirstReady(writeListFirst)) {
        dispatchFirstReady(!writeListFirst);
    }
    writeFirst = (writeFirst == 0) ? 1 : 0;
    return true;
}

int IoMultiplexer::getMaxFd() const {
    return maxFd;
}

void IoMultiplexer::addEntries(std::vector<IoHandlerFd>& list, IoHandler* handler,
                               const std::set<int>& fds) {
    for (const int fd : fds) {
        if (fd < 0) {
            continue;
        }
        // select() cannot watch a descriptor at or above FD_SETSIZE: putting
        // one into an fd_set would write past its end.
        if (fd >= FD_SETSIZE) {
            TRACE_ERROR("Descriptor %d not watched: select() handles descriptors below %d", fd,
                        FD_SETSIZE);
            continue;
        }
        list.emplace_back(handler, fd);
        if (fd > maxFd) {
            maxFd = fd;
        }
    }
}

void IoMultiplexer::removeEntries(std::vector<IoHandlerFd>& list, unsigned int& cursor,
                                  IoHandler* handler) {
    std::size_t i = 0;
    while (i < list.size()) {
        if (list[i].handler != handler) {
            ++i;
            continue;
        }
        // Keep the search resuming at the entry that followed the one served last.
        if (i < cursor) {
            --cursor;
        }
        const int erasedFd = list[i].fd;
        list.erase(list.begin() + static_cast<std::ptrdiff_t>(i));
        if (erasedFd == maxFd) {
            recomputeMaxFd();
        }
    }
}

void IoMultiplexer::recomputeMaxFd() {
    maxFd = 0;
    for (const std::vector<IoHandlerFd>* list : {&readList, &writeList}) {
        for (const IoHandlerFd& entry : *list) {
            if (entry.fd > maxFd) {
                maxFd = entry.fd;
            }
        }
    }
}

void IoMultiplexer::buildReadySets() {
    FD_ZERO(&readSet);
    FD_ZERO(&writeSet);
    FD_ZERO(&exceptSet);
    addToSet(writeList, writeSet);
    addToSet(readList, readSet);
}

bool IoMultiplexer::dispatchFirstReady(bool fromWriteList) {
    if (fromWriteList) {
        return dispatchFrom(writeList, writeSet, writeCursor, true);
    }
    return dispatchFrom(readList, readSet, readCursor, false);
}

bool IoMultiplexer::dispatchFrom(std::vector<IoHandlerFd>& list, const fd_set& readySet,
                                 unsigned int& cursor, bool isWriteList) {
    if (cursor >= list.size()) {
        cursor = 0;
    }
    if (list.empty()) {
        return false;
    }
    // Round robin: from the cursor to the end, then wrap round to the cursor.
    const std::size_t start = cursor;
    std::size_t found = 0;
    if (!findReady(list, readySet, start, list.size(), found) &&
        !(start != 0 && findReady(list, readySet, 0, start, found))) {
        return false;
    }
    cursor = static_cast<unsigned int>(found + 1);
    // The handler runs last: it may register or remove entries, even its own.
    const IoHandlerFd entry = list[found];
    if (isWriteList) {
        entry.handler->handleOutput(entry.fd);
    } else {
        entry.handler->handleInput(entry.fd);
    }
    return true;
}
