// The interface of every event source served by the IoMultiplexer.
//
// A handler owns one or more descriptors (sockets, timerfds, the mailbox) and
// tells the multiplexer which of them to watch. A timer is not a kind of its
// own: a handler that owns a timerfd lists it in getReadFds() and tells in
// handleInput(fd) by the descriptor which of its sources fired.
#ifndef TWAMP_IO_HANDLER_H
#define TWAMP_IO_HANDLER_H

#include <set>

class IoHandler {
  public:
    virtual ~IoHandler();

    // Descriptors to watch for reading; read once, when the handler registers.
    virtual std::set<int> getReadFds() const;
    // Descriptors to watch for writing; read once, when the handler registers.
    virtual std::set<int> getWriteFds() const;
    // Called when fd is readable; the multiplexer ignores the result.
    virtual bool handleInput(int fd);
    // Called when fd is writable; the multiplexer ignores the result.
    virtual bool handleOutput(int fd);
};

#endif  // TWAMP_IO_HANDLER_H
