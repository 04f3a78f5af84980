#include "UdpSocket.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "IoMultiplexer.h"
#include "SocketHelper.h"
#include "TimestampSource.h"
#include "TraceFacade.h"
#include "TwampTestSessionController.h"

namespace {

constexpr int kTtl = 255;
constexpr int kOptionOn = 1;
// Room for several seconds of replies and timestamps of a fully loaded daemon.
constexpr int kReceiveQueueBytes = 4 * 1024 * 1024;

// Traces of the private steps below name the operation they belong to.
constexpr const char* kSocketConfiguration = "socketConfiguration";
constexpr const char* kHandleInput = "handleInput";

}  // namespace

// ---- Construction ----

UdpSocket::UdpSocket(SystemCalls* systemCalls, Clock& clock)
    : systemCalls((systemCalls != nullptr) ? systemCalls : &SystemCalls::real()),
      clock(clock),
      batch(kBatchSize, kReceiveBufferSize, kControlBufferSize) {}

UdpSocket::~UdpSocket() {
    // The multiplexer must not keep descriptors that are about to be closed.
    if (multiplexer != nullptr) {
        multiplexer->removeReadHandler(this);
    }
    if (bindTimerFd != -1) {
        stopBindTimer();
        closeBindTimer();
    }
    if (socketFd != -1) {
        systemCalls->close(socketFd);
        socketFd = -1;
    }
}

// ---- IoHandler ----

std::set<int> UdpSocket::getReadFds() const {
    return readFds;
}

bool UdpSocket::handleInput(int fd) {
    if (bindTimerFd != -1 && fd == bindTimerFd) {
        uint64_t expirations = 0;
        systemCalls->read(fd, &expirations, sizeof(expirations));
        retryBind();
        return true;
    }
    // Rounds of error queue first, then packets: a transmit timestamp is
    // usually read before its reply. Rounds go on while a batch comes back
    // full, so a busy socket is emptied without a select per message, and
    // stop at the bound of each queue, so a flood cannot hold the loop: what
    // remains keeps the descriptor readable for the next round of the loop.
    unsigned int errQueueLeft = kMaxMessagesPerReadiness;
    unsigned int packetsLeft = kMaxMessagesPerReadiness;
    bool more = true;
    while (more) {
        const bool moreErrQueue = drainBatch(MSG_ERRQUEUE, errQueueLeft);
        const bool morePackets = drainBatch(0, packetsLeft);
        more = moreErrQueue || morePackets;
    }
    return true;
}

// One batch of a queue within what is left of its bound; true when the
// batch came back full, so that more may be waiting.
bool UdpSocket::drainBatch(int flags, unsigned int& left) {
    if (left == 0) {
        return false;
    }
    const unsigned int limit = std::min(kBatchSize, left);
    const int received = receiveMessage(flags, limit);
    if (received < 1) {
        return false;
    }
    const auto count = static_cast<unsigned int>(received);
    left -= std::min(count, left);
    for (unsigned int index = 0; index < count; ++index) {
        if ((flags & MSG_ERRQUEUE) != 0) {
            handleErrQueueMessage(batch.message(index), batch.length(index));
        } else {
            handleMessage(batch.message(index), batch.length(index));
        }
    }
    return count >= limit;
}

// Control data cut short may have lost the timestamp or half of it: such a
// message cannot be measured. A datagram longer than the buffer (MSG_TRUNC)
// is handed on with the bytes that fit: the fields read from replies and
// looped-back frames lie at their start, and test packets larger than the
// buffer (up to 65507 bytes) are normal, so it is not traced either.
void UdpSocket::handleErrQueueMessage(struct msghdr* msg, std::size_t length) {
    if (length < 1) {
        return;
    }
    ++errQueueMessageCount;
    if ((msg->msg_flags & MSG_CTRUNC) != 0) {
        TRACE_LAB_AS(kHandleInput, "Error-queue message with truncated control data discarded");
        return;
    }
    const auto* frame = static_cast<const uint8_t*>(msg->msg_iov[0].iov_base);
    ReceiverKey key;
    // Anything but a looped-back UDP frame of our family is skipped silently.
    if (!isLoopedUdpFrame(frame, length, family) ||
        !getLoopedFrameDestination(key, frame, length, family)) {
        return;
    }
    MessageReceiver* receiver =
        receivers.findForErrQueueMessage(key, msg, static_cast<ssize_t>(length));
    if (receiver == nullptr) {
        TRACE_LAB_AS(kHandleInput, "Failed to find message receiver");
        return;
    }
    receiver->receiveErrQueueMessage(msg, static_cast<ssize_t>(length));
}

void UdpSocket::handleMessage(struct msghdr* msg, std::size_t length) {
    if (length < 1) {
        return;
    }
    ++messageCount;
    noteReceiveQueueDrops(msg);
    if ((msg->msg_flags & MSG_CTRUNC) != 0) {
        TRACE_LAB_AS(kHandleInput, "Received message with truncated control data discarded");
        return;
    }
    const auto* source = static_cast<const struct sockaddr_storage*>(msg->msg_name);
    MessageReceiver* receiver = receivers.findForMessage(ReceiverKey(*source), msg);
    if (receiver == nullptr) {
        TRACE_LAB_AS(kHandleInput, "Failed to find message receiver");
        return;
    }
    receiver->receiveMessage(msg);
}

// Every packet carries the socket's drop count. When it has grown, replies
// were lost inside this host while the loop was held up: every session may
// have lost one, and none may count it as lost by the network.
void UdpSocket::noteReceiveQueueDrops(const struct msghdr* msg) {
    for (const struct cmsghdr* cmsg = CMSG_FIRSTHDR(msg); cmsg != nullptr;
         cmsg = CMSG_NXTHDR(const_cast<struct msghdr*>(msg), const_cast<struct cmsghdr*>(cmsg))) {
        if (cmsg->cmsg_level != SOL_SOCKET || cmsg->cmsg_type != SO_RXQ_OVFL ||
            cmsg->cmsg_len < CMSG_LEN(sizeof(uint32_t))) {
            continue;
        }
        uint32_t drops = 0;
        std::memcpy(&drops, CMSG_DATA(cmsg), sizeof(drops));
        if (drops == receiveQueueDrops) {
            return;
        }
        TRACE_LAB_AS(kHandleInput, "Receive queue overflow: %u datagrams dropped",
                     static_cast<unsigned int>(drops - receiveQueueDrops));
        receiveQueueDrops = drops;
        for (MessageReceiver* receiver : receivers.all()) {
            receiver->receiveQueueOverflowed();
        }
        return;
    }
}

// ---- Binding ----

bool UdpSocket::init(const char* srcIpAddress, const char* srcUdpPort, bool isIpsecTunnel) {
    this->srcIpAddress = srcIpAddress;
    this->srcUdpPort = srcUdpPort;
    ipsecTunnel = isIpsecTunnel;
    return getBoundSocket(kStartUpBindAttempts);
}

bool UdpSocket::retryBind() {
    return getBoundSocket(1);
}

void UdpSocket::getHints(struct addrinfo* hints) const {
    std::memset(hints, 0, sizeof(*hints));
    hints->ai_flags = AI_PASSIVE;
    hints->ai_socktype = SOCK_DGRAM;
}

bool UdpSocket::getBoundSocket(int attempts) {
    struct addrinfo hints;
    getHints(&hints);
    struct addrinfo* addresses = nullptr;
    const int resolved = systemCalls->getaddrinfo(srcIpAddress, srcUdpPort, &hints, &addresses);
    if (resolved != 0) {
        // An address that cannot be resolved will not resolve later either.
        TRACE_ERROR("Failed getaddrinfo: %s", gai_strerror(resolved));
        return false;
    }
    int failedRounds = 0;
    int lastErrno = errno;
    const int boundFd = bindInRounds(addresses, attempts, failedRounds, lastErrno);
    if (boundFd == -1) {
        systemCalls->freeaddrinfo(addresses);
        if (bindTimerFd == -1) {
            TRACE_INFO("Failed IP %s port %s socket bind: errno %d - %s", srcIpAddress, srcUdpPort,
                       lastErrno, std::strerror(lastErrno));
        } else {
            TRACE_LAB("Failed IP %s port %s socket bind: errno %d - %s", srcIpAddress, srcUdpPort,
                      lastErrno, std::strerror(lastErrno));
        }
        scheduleNextBindAttempt();
        return false;
    }
    TRACE_INFO("Succeeded IP %s port %s socket bind after %d seconds", srcIpAddress, srcUdpPort,
               failedRounds);
    socketFd = boundFd;
    appliedTos = -1;  // a new socket carries the default TOS until a session sets one
    receiveQueueDrops = 0;
    readFds.insert(socketFd);
    family = addresses->ai_family;
    systemCalls->freeaddrinfo(addresses);
    socketConfiguration();
    return true;
}

// Up to attempts rounds, each failed one followed by a one-second sleep that
// blocks the whole process; the bound socket or -1.
int UdpSocket::bindInRounds(const struct addrinfo* addresses, int attempts, int& failedRounds,
                            int& lastErrno) {
    while (failedRounds < attempts) {
        const int fd = bindFirstAddress(addresses, lastErrno);
        if (fd != -1) {
            return fd;
        }
        ++failedRounds;
        systemCalls->sleep(1);
    }
    return -1;
}

// One round: the first resolved address that takes a socket and a bind wins.
int UdpSocket::bindFirstAddress(const struct addrinfo* addresses, int& lastErrno) {
    for (const struct addrinfo* entry = addresses; entry != nullptr; entry = entry->ai_next) {
        const int fd =
            systemCalls->socket(entry->ai_family, entry->ai_socktype, entry->ai_protocol);
        if (fd == -1) {
            lastErrno = errno;
            continue;
        }
        if (systemCalls->bind(fd, entry->ai_addr, entry->ai_addrlen) == 0) {
            return fd;
        }
        lastErrno = errno;
        systemCalls->close(fd);
    }
    return -1;
}

void UdpSocket::scheduleNextBindAttempt() {
    if (bindTimerFd == -1) {
        bindTimerFd = systemCalls->timerfdCreate(CLOCK_MONOTONIC, 0);
        if (bindTimerFd != -1) {
            readFds.insert(bindTimerFd);
        }
        registerWithMultiplexer();
    }
    struct timespec now {};
    if (!clock.getMonotonic(&now)) {
        const int error = errno;
        TRACE_ERROR("Failed clock_gettime: errno %d - %s", error, std::strerror(error));
        return;
    }
    // One shot at an absolute whole second: a late retry does not shift the next.
    struct itimerspec setting {};
    setting.it_value.tv_sec = now.tv_sec + kBindRetrySeconds;
    if (systemCalls->timerfdSettime(bindTimerFd, TFD_TIMER_ABSTIME, &setting, nullptr) != 0) {
        const int error = errno;
        TRACE_ERROR("Failed timerfd_settime: errno %d - %s", error, std::strerror(error));
    }
}

void UdpSocket::stopBindTimer() {
    if (bindTimerFd == -1) {
        const int error = errno;
        TRACE_ERROR("Bind timer is not running: errno %d - %s", error, std::strerror(error));
    }
    const struct itimerspec disarmed {};
    if (systemCalls->timerfdSettime(bindTimerFd, TFD_TIMER_ABSTIME, &disarmed, nullptr) != 0) {
        const int error = errno;
        TRACE_ERROR("Failed timerfd_settime: errno %d - %s", error, std::strerror(error));
    }
}

void UdpSocket::closeBindTimer() {
    readFds.erase(bindTimerFd);
    systemCalls->close(bindTimerFd);
    bindTimerFd = -1;
}

// ---- Configuration ----

bool UdpSocket::socketConfiguration() {
    // A failed step is traced and never stops the sequence.
    bool configured = makeNonBlocking();
    configured = enableTimestamping() && configured;
    enlargeReceiveBuffer();
    enableDropCounts();
    if (family == AF_INET) {
        configured = setIpv4Options() && configured;
    } else if (family == AF_INET6) {
        configured = setIpv6Options() && configured;
    }
    registerWithMultiplexer();
    return configured;
}

bool UdpSocket::makeNonBlocking() {
    const int flags = systemCalls->fcntl(socketFd, F_GETFL, 0);
    const int nonBlocking = (flags == -1) ? O_NONBLOCK : (flags | O_NONBLOCK);
    if (systemCalls->fcntl(socketFd, F_SETFL, nonBlocking) == -1) {
        const int error = errno;
        TRACE_ERROR_AS(kSocketConfiguration, "Failed fcntl: errno %d - %s", error,
                       std::strerror(error));
        return false;
    }
    return true;
}

bool UdpSocket::enableTimestamping() {
    const int value = TimestampSource::configureFromEnvironment().getOptionValue();
    if (!setIntOption(SOL_SOCKET, SO_TIMESTAMPING, value)) {
        const int error = errno;
        TRACE_ERROR_AS(kSocketConfiguration, "Failed setsockopt SO_TIMESTAMPING: errno %d - %s",
                       error, std::strerror(error));
        return false;
    }
    return true;
}

void UdpSocket::enlargeReceiveBuffer() {
    // Replies and transmit timestamps of every session queue here while the
    // loop is busy (all sessions finalise their minute in the same round); a
    // full queue drops replies, which would be counted as lost. The forced
    // size needs CAP_NET_ADMIN; otherwise the kernel caps it at rmem_max.
    if (setIntOption(SOL_SOCKET, SO_RCVBUFFORCE, kReceiveQueueBytes) ||
        setIntOption(SOL_SOCKET, SO_RCVBUF, kReceiveQueueBytes)) {
        return;
    }
    const int error = errno;
    TRACE_LAB_AS(kSocketConfiguration, "Failed to enlarge the socket receive buffer: errno %d - %s",
                 error, std::strerror(error));
}

// Without the drop count a reply lost in a full receive queue would be
// counted as lost by the network; the socket still works.
void UdpSocket::enableDropCounts() {
    if (setIntOption(SOL_SOCKET, SO_RXQ_OVFL, kOptionOn)) {
        return;
    }
    const int error = errno;
    TRACE_LAB_AS(kSocketConfiguration, "Failed setsockopt SO_RXQ_OVFL: errno %d - %s", error,
                 std::strerror(error));
}

bool UdpSocket::setIpv4Options() {
    bool configured = true;
    if (!setIntOption(IPPROTO_IP, IP_TTL, kTtl)) {
        const int error = errno;
        TRACE_ERROR_AS(kSocketConfiguration, "Failed to set socket option IP_TTL: errno %d - %s",
                       error, std::strerror(error));
        configured = false;
    }
    if (!setIntOption(IPPROTO_IP, IP_RECVTTL, kOptionOn)) {
        const int error = errno;
        TRACE_ERROR_AS(kSocketConfiguration,
                       "Failed to set socket option IP_RECVTTL: errno %d - %s", error,
                       std::strerror(error));
        configured = false;
    }
    if (!setIntOption(IPPROTO_IP, IP_RECVTOS, kOptionOn)) {
        const int error = errno;
        TRACE_ERROR_AS(kSocketConfiguration,
                       "Failed to set socket option IP_RECVTOS: errno %d - %s", error,
                       std::strerror(error));
        configured = false;
    }
    return configured;
}

// No hop limit is set here: IPv6 packets carry theirs as ancillary data.
bool UdpSocket::setIpv6Options() {
    bool configured = true;
    if (!setIntOption(IPPROTO_IPV6, IPV6_RECVHOPLIMIT, kOptionOn)) {
        const int error = errno;
        TRACE_ERROR_AS(kSocketConfiguration,
                       "Failed to set socket option IPV6_RECVHOPLIMIT: errno %d - %s", error,
                       std::strerror(error));
        configured = false;
    }
    if (!setIntOption(IPPROTO_IPV6, IPV6_RECVTCLASS, kOptionOn)) {
        const int error = errno;
        TRACE_ERROR_AS(kSocketConfiguration,
                       "Failed to set socket option IPV6_RECVTCLASS: errno %d - %s", error,
                       std::strerror(error));
        configured = false;
    }
    return configured;
}

bool UdpSocket::setIntOption(int level, int name, int value) {
    return systemCalls->setsockopt(socketFd, level, name, &value, sizeof(value)) == 0;
}

void UdpSocket::registerWithMultiplexer() {
    IoMultiplexer& ioMultiplexer = TwampTestSessionController::getInstance()->getIoMultiplexer();
    ioMultiplexer.registerReadHandler(this);
    multiplexer = &ioMultiplexer;
}

// ---- Receiving ----

void UdpSocket::addMessageReceiver(const ReceiverKey& key, MessageReceiver* receiver) {
    receivers.add(key, receiver);
}

void UdpSocket::removeMessageReceiver(const ReceiverKey& key, MessageReceiver* receiver) {
    receivers.remove(key, receiver);
}

int UdpSocket::receiveMessage(int flags, unsigned int limit) {
    struct mmsghdr* headers = batch.prepare(limit);
    const auto count = static_cast<unsigned int>(std::min<std::size_t>(limit, batch.capacity()));
    const int received =
        systemCalls->recvmmsg(socketFd, headers, count, flags | MSG_DONTWAIT, nullptr);
    batch.settle(received);
    if (received < 0 && errno != ENOMSG && errno != EAGAIN) {
        const int error = errno;
        TRACE_LAB("Failed recvmsg: errno %d - %s", error, std::strerror(error));
    }
    return received;
}

// ---- Accessors ----

int UdpSocket::getSocketFd() const {
    return socketFd;
}

int UdpSocket::getFamily() const {
    return family;
}

const char* UdpSocket::getSrcIpAddress() const {
    return srcIpAddress;
}

const char* UdpSocket::getSrcUdpPort() const {
    return srcUdpPort;
}

bool UdpSocket::isIpsecTunnel() const {
    return ipsecTunnel;
}

int UdpSocket::getAppliedTos() const {
    return appliedTos;
}

void UdpSocket::setAppliedTos(int tos) {
    appliedTos = tos;
}

int UdpSocket::getBindTimerFd() const {
    return bindTimerFd;
}

uint64_t UdpSocket::getMessageCount() const {
    return messageCount;
}

uint64_t UdpSocket::getErrQueueMessageCount() const {
    return errQueueMessageCount;
}
