// An event source over a real eventfd, for tests of the event loop on real
// descriptors: the test makes it readable with signal(), and every call of
// handleInput is recorded. By default each call drains the counter; a handler
// that does not drain stays readable (level-triggered) for the next wake-up.
#ifndef TWAMP_TESTS_EVENT_FD_HANDLER_H
#define TWAMP_TESTS_EVENT_FD_HANDLER_H

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <functional>
#include <set>
#include <vector>

#include "IoHandler.h"

namespace twamp_test {

class EventFdHandler : public IoHandler {
  public:
    EventFdHandler() : fd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}
    ~EventFdHandler() override { closeFd(); }
    EventFdHandler(const EventFdHandler&) = delete;
    EventFdHandler& operator=(const EventFdHandler&) = delete;

    // IoHandler
    std::set<int> getReadFds() const override { return {fd}; }
    bool handleInput(int readyFd) override {
        servedFds.push_back(readyFd);
        if (drain) {
            uint64_t count = 0;
            if (read(readyFd, &count, sizeof(count)) != static_cast<ssize_t>(sizeof(count))) {
                return false;
            }
        }
        if (onInput) {
            onInput(readyFd);
        }
        return true;
    }

    // Makes the descriptor readable.
    bool signal(uint64_t count = 1) {
        return write(fd, &count, sizeof(count)) == static_cast<ssize_t>(sizeof(count));
    }
    // Closes the descriptor now (the handler must have left the loop).
    void closeFd() {
        if (fd >= 0) {
            close(fd);
            fd = -1;
        }
    }

    int fd;
    bool drain = true;
    // Called after each recorded input, with the descriptor.
    std::function<void(int)> onInput;
    std::vector<int> servedFds;
};

}  // namespace twamp_test

#endif  // TWAMP_TESTS_EVENT_FD_HANDLER_H
