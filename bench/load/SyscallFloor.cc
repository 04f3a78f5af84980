#include "SyscallFloor.h"

#include <arpa/inet.h>
#include <linux/net_tstamp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

namespace {

constexpr int64_t kNanosecondsPerSecond = 1000000000;
constexpr uint64_t kNtpUnixEpochOffset = 2208988800ULL;
constexpr std::size_t kPacketLength = 64;
// The daemon's software timestamping: TX_SOFTWARE | RX_SOFTWARE | SOFTWARE.
constexpr int kSoftwareTimestamping =
    SOF_TIMESTAMPING_TX_SOFTWARE | SOF_TIMESTAMPING_RX_SOFTWARE | SOF_TIMESTAMPING_SOFTWARE;
constexpr int kMaxEvents = 64;
// The daemon's receive buffer: 4 MiB, forced past net.core.rmem_max when privileged.
constexpr int kReceiveBufferBytes = 4 * 1024 * 1024;
// Messages read from each queue per readiness at most. With thousands of
// timers the socket comes round only once in many epoll_wait calls (a
// level-triggered descriptor goes to the back of the ready list), so a turn
// must take far more than one wait's worth of sends; the bound only keeps a
// flood from holding the timers off for ever.
constexpr int kMessagesPerTurn = 4096;
// Sends whose lateness is reserved room for at start: 16 million, 128 MiB.
constexpr uint64_t kLatenessReserveMax = 16 * 1024 * 1024;
// The socket's epoll data; timers carry their session index.
constexpr uint64_t kSocketTag = UINT64_MAX;

int64_t realtimeNs() {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec * kNanosecondsPerSecond + now.tv_nsec;
}

uint64_t ntpOf(const struct timespec& time) {
    const uint64_t fraction = (static_cast<uint64_t>(time.tv_nsec) << 32) / kNanosecondsPerSecond;
    return ((kNtpUnixEpochOffset + static_cast<uint64_t>(time.tv_sec)) << 32) | fraction;
}

void writeBigEndian(uint8_t* bytes, uint64_t value, int length) {
    for (int i = length - 1; i >= 0; --i) {
        bytes[i] = static_cast<uint8_t>(value);
        value >>= 8;
    }
}

bool setIntOption(int fd, int level, int name, int value) {
    return setsockopt(fd, level, name, &value, sizeof(value)) == 0;
}

std::string failure(const char* what) {
    return std::string(what) + ": " + std::strerror(errno);
}

}  // namespace

bool SyscallFloor::open(std::string& error) {
    epoll.reset(epoll_create1(EPOLL_CLOEXEC));
    if (!epoll.valid()) {
        error = failure("epoll_create1");
        return false;
    }
    return openSocket(error) && armTimers(error);
}

bool SyscallFloor::openSocket(std::string& error) {
    socket.reset(::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    struct sockaddr_in source {};
    source.sin_family = AF_INET;
    source.sin_port = htons(settings.sourcePort);
    if (!socket.valid() ||
        inet_pton(AF_INET, settings.sourceAddress.c_str(), &source.sin_addr) != 1 ||
        bind(socket.get(), reinterpret_cast<struct sockaddr*>(&source), sizeof(source)) != 0) {
        error = failure("socket/bind");
        return false;
    }
    if (!setIntOption(socket.get(), SOL_SOCKET, SO_RCVBUFFORCE, kReceiveBufferBytes)) {
        setIntOption(socket.get(), SOL_SOCKET, SO_RCVBUF, kReceiveBufferBytes);
    }
    if (!setIntOption(socket.get(), SOL_SOCKET, SO_TIMESTAMPING, kSoftwareTimestamping) ||
        !setIntOption(socket.get(), IPPROTO_IP, IP_RECVTTL, 1) ||
        !setIntOption(socket.get(), IPPROTO_IP, IP_RECVTOS, 1)) {
        error = failure("setsockopt");
        return false;
    }
    struct epoll_event event {};
    event.events = EPOLLIN;
    event.data.u64 = kSocketTag;
    if (epoll_ctl(epoll.get(), EPOLL_CTL_ADD, socket.get(), &event) != 0) {
        error = failure("epoll_ctl");
        return false;
    }
    return true;
}

bool SyscallFloor::armTimers(std::string& error) {
    const int64_t firstSecond = realtimeNs() / kNanosecondsPerSecond + 1;
    endNs = (firstSecond + settings.seconds) * kNanosecondsPerSecond;
    intervalNs = kNanosecondsPerSecond / settings.packetsPerSecond;
    for (uint32_t session = 0; session < settings.sessions; ++session) {
        FileDescriptor timer(timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC));
        struct itimerspec value {};
        value.it_interval.tv_sec = intervalNs / kNanosecondsPerSecond;
        value.it_interval.tv_nsec = intervalNs % kNanosecondsPerSecond;
        value.it_value.tv_sec = firstSecond;
        value.it_value.tv_nsec = static_cast<long>(settings.spreadingNs * session);
        struct epoll_event event {};
        event.events = EPOLLIN;
        event.data.u64 = session;
        if (!timer.valid() ||
            timerfd_settime(timer.get(), TFD_TIMER_ABSTIME, &value, nullptr) != 0 ||
            epoll_ctl(epoll.get(), EPOLL_CTL_ADD, timer.get(), &event) != 0) {
            error = failure("timerfd");
            return false;
        }
        timers.push_back(std::move(timer));
        struct sockaddr_in destination {};
        destination.sin_family = AF_INET;
        destination.sin_port = htons(static_cast<uint16_t>(settings.basePort + session));
        inet_pton(AF_INET, settings.reflectorAddress.c_str(), &destination.sin_addr);
        destinations.push_back(destination);
        sequenceNumbers.push_back(0);
        firstExpiryNs.push_back(firstSecond * kNanosecondsPerSecond + value.it_value.tv_nsec);
        expiriesRead.push_back(0);
    }
    // Room for the whole run's sends up front, so that keeping them costs no
    // reallocation while sending; bounded, so that an absurd rate on the
    // command line cannot ask for it all at once.
    const uint64_t expected =
        static_cast<uint64_t>(settings.sessions) * settings.packetsPerSecond * settings.seconds;
    lateness.reserve(static_cast<std::size_t>(std::min<uint64_t>(expected, kLatenessReserveMax)));
    return true;
}

void SyscallFloor::run() {
    struct epoll_event events[kMaxEvents];
    const int64_t drainEndNs = endNs + kNanosecondsPerSecond;
    bool sending = true;
    while (realtimeNs() < drainEndNs) {
        if (sending && realtimeNs() >= endNs) {
            timers.clear();  // closing a timer removes it from the epoll set
            sending = false;
        }
        const int ready = epoll_wait(epoll.get(), events, kMaxEvents, 100);
        for (int i = 0; i < ready; ++i) {
            if (events[i].data.u64 == kSocketTag) {
                onSocket();
            } else if (sending) {
                onTimer(static_cast<uint32_t>(events[i].data.u64));
            }
        }
    }
}

void SyscallFloor::onTimer(uint32_t session) {
    uint64_t expiries = 0;
    if (read(timers[session].get(), &expiries, sizeof(expiries)) != sizeof(expiries)) {
        return;
    }
    totals.expiries += expiries;
    // A periodic timerfd expires exactly at its first expiry plus whole intervals.
    for (uint64_t expiry = 0; expiry < expiries; ++expiry) {
        const uint64_t index = expiriesRead[session] + expiry;
        sendPacket(session, firstExpiryNs[session] + static_cast<int64_t>(index) * intervalNs);
    }
    expiriesRead[session] += expiries;
}

uint64_t SyscallFloor::beyondInterval() const {
    uint64_t count = 0;
    for (const int64_t value : lateness) {
        count += value > intervalNs ? 1 : 0;
    }
    return count;
}

void SyscallFloor::sendPacket(uint32_t session, int64_t scheduledNs) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    lateness.push_back(now.tv_sec * kNanosecondsPerSecond + now.tv_nsec - scheduledNs);
    uint8_t packet[kPacketLength] = {};
    writeBigEndian(packet, sequenceNumbers[session]++, 4);
    writeBigEndian(packet + 4, ntpOf(now), 8);
    packet[12] = 0x05;  // the sender's error estimate
    packet[13] = 0x86;
    struct iovec vector = {packet, sizeof(packet)};
    struct msghdr header {};
    header.msg_name = &destinations[session];
    header.msg_namelen = sizeof(destinations[session]);
    header.msg_iov = &vector;
    header.msg_iovlen = 1;
    if (sendmsg(socket.get(), &header, 0) == static_cast<ssize_t>(sizeof(packet))) {
        ++totals.sent;
    }
}

void SyscallFloor::onSocket() {
    // Both queues are read until they are empty: with one message per
    // readiness, thousands of timers would outrun the replies.
    for (int turn = 0; turn < kMessagesPerTurn; ++turn) {
        const bool timestamp = receiveOne(MSG_ERRQUEUE);
        const bool reply = receiveOne(0);
        if (timestamp) {
            ++totals.txTimestamps;
        }
        if (reply) {
            ++totals.replies;
        }
        if (!timestamp && !reply) {
            return;
        }
    }
}

bool SyscallFloor::receiveOne(int flags) {
    struct sockaddr_storage source;
    struct iovec vector = {receiveBuffer.data(), receiveBuffer.size()};
    struct msghdr header {};
    header.msg_name = &source;
    header.msg_namelen = sizeof(source);
    header.msg_iov = &vector;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof(control);
    return recvmsg(socket.get(), &header, flags | MSG_DONTWAIT) > 0;
}
