// The shared socket as a session sees it, without binding anything: an IPv4
// socket whose descriptor is never used, because the sends are scripted.
#ifndef TWAMP_BENCH_BENCH_UDP_SOCKET_H
#define TWAMP_BENCH_BENCH_UDP_SOCKET_H

#include <sys/socket.h>

#include "UdpSocket.h"

class BenchUdpSocket : public UdpSocket {
  public:
    static constexpr int kSocketFd = 1002;

    // UdpSocket
    int getSocketFd() const override { return kSocketFd; }
    int getFamily() const override { return AF_INET; }
};

#endif  // TWAMP_BENCH_BENCH_UDP_SOCKET_H
