// One descriptor watched by the IoMultiplexer and the handler to call for it.
//
// Entries are copied by value into the multiplexer's lists. The handler is
// never owned: it removes itself from the multiplexer before it is destroyed.
#ifndef TWAMP_IO_HANDLER_FD_H
#define TWAMP_IO_HANDLER_FD_H

class IoHandler;

class IoHandlerFd {
  public:
    IoHandlerFd(IoHandler* handler, int fd);
    IoHandlerFd(const IoHandlerFd&) = default;
    IoHandlerFd& operator=(const IoHandlerFd&) = default;
    IoHandlerFd(IoHandlerFd&&) = default;
    IoHandlerFd& operator=(IoHandlerFd&&) = default;
    virtual ~IoHandlerFd();

    IoHandler* handler;  // not owned
    int fd;
};

#endif  // TWAMP_IO_HANDLER_FD_H
