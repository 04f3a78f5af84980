// The least a Session-Sender must do per packet in the kernel, without any
// measurement logic: per session a CLOCK_REALTIME timerfd at the session's
// rate, and per expiry one timer read, one clock_gettime and one sendmsg;
// per message on the shared socket one recvmsg, of the error queue (the
// transmit timestamp) or of the replies. Each readiness reads both queues
// until they are empty (at most 4096 messages each), so a wake-up also costs
// the final empty reads. The socket has the daemon's software timestamping,
// receive options and 4 MiB receive buffer, so the kernel does the same work
// for every packet. Waiting is one epoll_wait per wake-up.
//
// It also keeps the lateness of each send (T1 minus the timer expiry it
// serves), the same measure the load driver takes of the daemon: what the
// machine alone costs in lateness, beside what the daemon adds.
#ifndef TWAMP_BENCH_SYSCALL_FLOOR_H
#define TWAMP_BENCH_SYSCALL_FLOOR_H

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <vector>

#include "FileDescriptor.h"

struct FloorSettings {
    std::string sourceAddress;
    uint16_t sourcePort = 0;
    std::string reflectorAddress;
    uint16_t basePort = 0;  // session i sends to basePort + i
    uint32_t sessions = 0;
    uint32_t packetsPerSecond = 0;
    uint32_t seconds = 0;
    int64_t spreadingNs = 400000;  // start slot width, as in the daemon
};

struct FloorCounts {
    uint64_t sent = 0;
    uint64_t txTimestamps = 0;
    uint64_t replies = 0;
    uint64_t expiries = 0;
};

class SyscallFloor {
  public:
    explicit SyscallFloor(const FloorSettings& settings) : settings(settings) {}

    // Binds the socket and arms the timers for the next whole second; false
    // with error set.
    bool open(std::string& error);
    // Runs for the configured seconds from the first expiry on, plus one
    // second for the last replies.
    void run();
    const FloorCounts& counts() const { return totals; }
    // Send lateness in ns of every packet sent, in sending order.
    std::vector<int64_t>& latenessNs() { return lateness; }
    // Packets sent later than one interval after their expiry.
    uint64_t beyondInterval() const;

  private:
    bool openSocket(std::string& error);
    bool armTimers(std::string& error);
    void onTimer(uint32_t session);
    // Sends the packet of the expiry scheduled at scheduledNs (CLOCK_REALTIME).
    void sendPacket(uint32_t session, int64_t scheduledNs);
    void onSocket();
    // Reads one message of the error queue (MSG_ERRQUEUE) or of the replies (0).
    bool receiveOne(int flags);

    FloorSettings settings;
    FileDescriptor socket;
    FileDescriptor epoll;
    std::vector<FileDescriptor> timers;
    std::vector<uint32_t> sequenceNumbers;
    // Per session: its first expiry and the expiries read so far.
    std::vector<int64_t> firstExpiryNs;
    std::vector<uint64_t> expiriesRead;
    int64_t intervalNs = 0;
    std::vector<int64_t> lateness;
    std::vector<struct sockaddr_in> destinations;
    int64_t endNs = 0;
    FloorCounts totals;
    // Where every received datagram and its control messages land.
    std::vector<uint8_t> receiveBuffer = std::vector<uint8_t>(10000);
    alignas(struct cmsghdr) uint8_t control[256] = {};
};

#endif  // TWAMP_BENCH_SYSCALL_FLOOR_H
