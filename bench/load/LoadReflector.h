// The bench's load peer: one process that answers TWAMP light test packets
// on a range of consecutive UDP ports, so that thousands of sessions need
// neither thousands of processes nor their memory. It has no impairments and
// writes no ground truth. The replies are built by the lab reflector's
// ReplyBuilder; T2 is the kernel's receive time, T3 the clock read just
// before the reply is sent, and each sender is numbered from 0 on each port
// (the daemon and the floor program use the same ports one after the other).
// IPv4 only: the load runs use IPv4.
#ifndef TWAMP_BENCH_LOAD_REFLECTOR_H
#define TWAMP_BENCH_LOAD_REFLECTOR_H

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <vector>

#include "LoadClock.h"
#include "FileDescriptor.h"

struct LoadReflectorCounts {
    uint64_t received = 0;
    uint64_t replied = 0;
    // Datagrams too short to hold a reply's fields; not answered.
    uint64_t tooShort = 0;
    // Replies the kernel refused (their errno is in lastSendErrno).
    uint64_t sendFailures = 0;
    int lastSendErrno = 0;
    // Returns from epoll_wait with at least one readable port.
    uint64_t wakeUps = 0;
};

class LoadReflector {
  public:
    // Replies up to this many datagrams from one port per wake-up, so that a
    // busy port cannot hold the others off.
    static constexpr int kDatagramsPerTurn = 64;
    // Each port's receive buffer, so that a short stall of the process loses nothing.
    static constexpr int kReceiveBufferBytes = 4 * 1024 * 1024;

    explicit LoadReflector(LoadClock& clock) : clock(clock) {}

    // Binds ports basePort .. basePort + ports - 1 of the IPv4 address; with
    // basePort 0 the kernel chooses each port (see port()). False with error set.
    bool open(const std::string& address, uint16_t basePort, uint32_t ports, std::string& error);
    // The port bound as the index-th.
    uint16_t port(uint32_t index) const { return boundPorts[index]; }
    // Waits up to timeoutMs for readable ports and answers what waits on them;
    // false when epoll_wait fails (other than by a signal).
    bool serve(int timeoutMs);
    const LoadReflectorCounts& counts() const { return totals; }

  private:
    // One sender's reply numbering on one port.
    struct SenderCount {
        sockaddr_in sender;
        uint32_t replies;
    };

    bool openPort(const sockaddr_in& address, std::string& error);
    void drain(uint32_t index);
    void answer(uint32_t index, std::size_t length, msghdr& message);
    uint32_t nextReflectorSequence(uint32_t index, const sockaddr_in& sender);

    LoadClock& clock;
    FileDescriptor epoll;
    std::vector<FileDescriptor> sockets;
    std::vector<uint16_t> boundPorts;
    std::vector<std::vector<SenderCount>> senders;
    LoadReflectorCounts totals;
    // One buffer for every datagram: each is answered before the next is read.
    std::vector<uint8_t> buffer = std::vector<uint8_t>(65536);
    alignas(cmsghdr) uint8_t control[256] = {};
};

#endif  // TWAMP_BENCH_LOAD_REFLECTOR_H
