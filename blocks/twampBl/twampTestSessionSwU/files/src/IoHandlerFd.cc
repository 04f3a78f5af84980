#include "IoHandlerFd.h"

IoHandlerFd::IoHandlerFd(IoHandler* handler, int fd) : handler(handler), fd(fd) {}

IoHandlerFd::~IoHandlerFd() = default;
