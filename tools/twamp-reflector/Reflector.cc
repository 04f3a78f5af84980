#include "Reflector.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>

#include "NtpTimestamp.h"
#include "ReplyBuilder.h"

namespace {

constexpr int64_t kNanosecondsPerSecond = 1000000000LL;

// A sender's identity: family, address and port, as bytes.
std::string senderKey(const PeerAddress& sender) {
    std::string key(1, static_cast<char>(sender.address.ss_family));
    if (sender.address.ss_family == AF_INET) {
        const auto& address = reinterpret_cast<const sockaddr_in&>(sender.address);
        key.append(reinterpret_cast<const char*>(&address.sin_addr), sizeof(address.sin_addr));
        key.append(reinterpret_cast<const char*>(&address.sin_port), sizeof(address.sin_port));
    } else if (sender.address.ss_family == AF_INET6) {
        const auto& address = reinterpret_cast<const sockaddr_in6&>(sender.address);
        key.append(reinterpret_cast<const char*>(&address.sin6_addr), sizeof(address.sin6_addr));
        key.append(reinterpret_cast<const char*>(&address.sin6_port), sizeof(address.sin6_port));
    }
    return key;
}
// Datagrams read per turn, so that due holds are not starved by a flood.
constexpr int kMaxDatagramsPerTurn = 256;
// How long a reply's ground-truth line waits for the kernel's transmit time.
// Software transmit times come within microseconds; one that has not come in
// a second never will (the error queue was full).
constexpr int64_t kTransmitWaitNs = kNanosecondsPerSecond;
// The next try when the socket cannot be opened again (its port was taken meanwhile).
constexpr int64_t kReopenRetryNs = 100000000LL;
constexpr double kNtpUnitsPerMs = 4294967296.0 / 1000.0;

ImpairmentSettings impairmentSettings(const ReflectorOptions& options) {
    ImpairmentSettings settings;
    settings.forwardLossPercent = options.forwardLossPercent;
    settings.reverseLossPercent = options.reverseLossPercent;
    settings.duplicatePercent = options.duplicatePercent;
    settings.reorderPercent = options.reorderPercent;
    settings.forwardDelayMs = options.forwardDelayMs;
    settings.forwardJitterMs = options.forwardJitterMs;
    settings.reverseDelayMs = options.reverseDelayMs;
    settings.reverseJitterMs = options.reverseJitterMs;
    return settings;
}

timespec shifted(const timespec& time, int64_t offsetNs) {
    const int64_t total =
        static_cast<int64_t>(time.tv_sec) * kNanosecondsPerSecond + time.tv_nsec + offsetNs;
    int64_t seconds = total / kNanosecondsPerSecond;
    int64_t nanoseconds = total % kNanosecondsPerSecond;
    if (nanoseconds < 0) {
        nanoseconds += kNanosecondsPerSecond;
        --seconds;
    }
    timespec result{};
    result.tv_sec = static_cast<time_t>(seconds);
    result.tv_nsec = static_cast<long>(nanoseconds);
    return result;
}

int64_t nanoseconds(const timespec& time) {
    return static_cast<int64_t>(time.tv_sec) * kNanosecondsPerSecond + time.tv_nsec;
}

RestartSettings restartSettings(const ReflectorOptions& options) {
    RestartSettings settings;
    settings.every = options.restartEvery;
    settings.after = options.restartAfter;
    settings.gapRequests = options.restartGap;
    settings.gapNs = std::llround(options.restartGapMs * 1e6);
    return settings;
}

TruthPacket truthPacket(const SenderFields& sender) {
    TruthPacket packet;
    packet.senderSeq = sender.sequenceNumber;
    packet.senderTimestamp = sender.timestamp;
    return packet;
}

}  // namespace

Reflector::Reflector(const ReflectorOptions& options, ReflectorClock& clock, TruthWriter& truth)
    : options_(options),
      clock_(clock),
      truth_(truth),
      impairments_(impairmentSettings(options), options.seed),
      restarts_(restartSettings(options)),
      skewNs_(std::llround(options.skewMs * 1e6)),
      t1OffsetNtp_(std::llround(options.t1OffsetMs * kNtpUnitsPerMs)),
      t1OffsetNs_(std::llround(options.t1OffsetMs * 1e6)) {}

bool Reflector::open(std::string& error) {
    stopFd_.reset(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!stopFd_.valid()) {
        error = std::string("eventfd: ") + std::strerror(errno);
        return false;
    }
    if (!socket_.open(options_.listenAddress, options_.port, error)) {
        return false;
    }
    truth_.write(TruthWriter::startLine(options_, socket_.boundPort()));
    return true;
}

void Reflector::requestStop() {
    stopRequested_.store(true);
    const uint64_t one = 1;
    const ssize_t written = write(stopFd_.get(), &one, sizeof(one));
    static_cast<void>(written);  // a full counter already wakes the loop
}

void Reflector::run() {
    while (!stopRequested()) {
        runOnce(-1);
    }
    finish();
}

int64_t Reflector::waitNs(int64_t maxWaitNs) {
    int64_t wait = maxWaitNs;
    const int64_t now = clock_.monotonicNs();
    const auto consider = [&wait, now](int64_t dueNs) {
        const int64_t until = dueNs > now ? dueNs - now : 0;
        if (wait < 0 || until < wait) {
            wait = until;
        }
    };
    if (!requests_.empty()) {
        consider(requests_.nextDueNs());
    }
    if (!replies_.empty()) {
        consider(replies_.nextDueNs());
    }
    if (truth_.waiting()) {
        consider(truth_.nextDeadlineNs());
    }
    if (closed_) {
        consider(reopenAtNs_);
    }
    return wait;
}

void Reflector::runOnce(int64_t maxWaitNs) {
    // While the socket is closed its entry holds -1, which ppoll passes over.
    pollfd descriptors[2] = {{socket_.fd(), POLLIN, 0}, {stopFd_.get(), POLLIN, 0}};
    const int64_t wait = waitNs(maxWaitNs);
    timespec timeout{};
    timeout.tv_sec = static_cast<time_t>(wait / kNanosecondsPerSecond);
    timeout.tv_nsec = static_cast<long>(wait % kNanosecondsPerSecond);
    if (ppoll(descriptors, 2, wait < 0 ? nullptr : &timeout, nullptr) < 0) {
        return;  // a signal: the caller looks at the stop request
    }
    if ((descriptors[1].revents & POLLIN) != 0) {
        uint64_t count = 0;
        const ssize_t drained = read(stopFd_.get(), &count, sizeof(count));
        static_cast<void>(drained);
    }
    // Transmit times first: they belong to replies sent before anything read now.
    if ((descriptors[0].revents & POLLERR) != 0) {
        collectTransmitStamps();
    }
    truth_.expire(clock_.monotonicNs());
    releaseDue();
    if ((descriptors[0].revents & POLLIN) != 0) {
        drainSocket();
    }
    if (closeDue_) {
        closeSocket();
    }
    reopenSocketWhenDue();
}

void Reflector::releaseDue() {
    for (;;) {
        const int64_t now = clock_.monotonicNs();
        const bool requestFirst =
            !requests_.empty() && requests_.nextDueNs() <= now &&
            (replies_.empty() || requests_.nextDueNs() <= replies_.nextDueNs());
        if (requestFirst) {
            HeldRequest request;
            requests_.takeFirst(request);
            // T2 is the time processing happens after the hold.
            const timespec t2 = clock_.realtime();
            processRequest(request, t2);
            continue;
        }
        HeldReply reply;
        if (!replies_.takeDue(now, reply)) {
            return;
        }
        emitReply(std::move(reply));
    }
}

void Reflector::drainSocket() {
    for (int count = 0; count < kMaxDatagramsPerTurn && !closeDue_; ++count) {
        ReceivedDatagram datagram;
        if (!socket_.receive(datagram)) {
            return;
        }
        handleDatagram(datagram);
    }
}

void Reflector::handleDatagram(ReceivedDatagram& datagram) {
    ++totals_.received;
    if (!acceptLength(datagram)) {
        return;
    }
    HeldRequest request;
    request.packet =
        truthPacket(ReplyBuilder::readSender(datagram.payload.data(), datagram.payload.size()));
    // Drawn also for a request of the restart gap, so that the gap leaves the
    // other decisions alone.
    const RequestFate fate = impairments_.decideRequest();
    if (dropInRestartGap(request.packet)) {
        return;
    }
    if (fate.forwardLost) {
        ++totals_.forwardLost;
        truth_.write(TruthWriter::forwardLossLine(request.packet));
        return;
    }
    // Without the kernel's receive time T2 is the time of processing.
    const timespec t2 = datagram.hasReceiveTime ? datagram.receiveTime : clock_.realtime();
    request.datagram = std::move(datagram);
    request.forwardDelayNs = fate.forwardDelayNs;
    if (fate.forwardDelayNs > 0) {
        requests_.hold(clock_.monotonicNs() + fate.forwardDelayNs, std::move(request));
        return;
    }
    processRequest(request, t2);
}

// Shorter than a reply can be: ignored, with the sender fields when it holds them.
bool Reflector::acceptLength(ReceivedDatagram& datagram) {
    const std::size_t length = datagram.payload.size();
    if (length >= ReplyBuilder::kMinimumReplyLength) {
        return true;
    }
    ++totals_.tooShort;
    if (length < ReplyBuilder::kMinimumRequestLength) {
        truth_.write(TruthWriter::shortLine(nullptr, length));
        return false;
    }
    const TruthPacket packet =
        truthPacket(ReplyBuilder::readSender(datagram.payload.data(), length));
    truth_.write(TruthWriter::shortLine(&packet, length));
    return false;
}

// While the reflector is down for its restart, arriving requests are lost.
bool Reflector::dropInRestartGap(const TruthPacket& packet) {
    if (!restarts_.dropInGap(clock_.monotonicNs())) {
        return false;
    }
    ++totals_.forwardLost;
    truth_.write(TruthWriter::forwardLossLine(packet, "restart_gap"));
    return true;
}

uint32_t Reflector::nextReflectorSeq(const TruthPacket& packet, const PeerAddress& sender) {
    if (restarts_.accept(clock_.monotonicNs())) {
        senderSeqs_.clear();
        truth_.write(TruthWriter::restartLine(packet));
    }
    ++totals_.accepted;
    if (options_.unreachableAfter != 0 && totals_.accepted == options_.unreachableAfter) {
        closeDue_ = true;
    }
    if (options_.stateless) {
        return packet.senderSeq;
    }
    return senderSeqs_[senderKey(sender)]++;
}

void Reflector::processRequest(HeldRequest& request, const timespec& t2) {
    const uint32_t reflectorSeq = nextReflectorSeq(request.packet, request.datagram.peer);
    const ReplyFate fate = impairments_.decideReply();
    if (fate.reverseLost) {
        ++totals_.reverseLost;
        truth_.write(
            TruthWriter::reverseLossLine(request.packet, reflectorSeq, request.forwardDelayNs));
        return;
    }
    HeldReply reply = buildReply(request, t2, reflectorSeq, fate);
    if (fate.reverseDelayNs > 0) {
        replies_.hold(clock_.monotonicNs() + fate.reverseDelayNs, std::move(reply));
        return;
    }
    emitReply(std::move(reply));
}

HeldReply Reflector::buildReply(HeldRequest& request, const timespec& t2, uint32_t reflectorSeq,
                                const ReplyFate& fate) {
    const ReceivedDatagram& datagram = request.datagram;
    HeldReply reply;
    reply.peer = datagram.peer;
    reply.fate = fate;
    reply.truth.packet = request.packet;
    reply.truth.reflectorSeq = reflectorSeq;
    reply.truth.forwardDelayNs = request.forwardDelayNs;
    reply.truth.reverseDelayNs = fate.reverseDelayNs;
    reply.truth.skewNs = skewNs_;
    reply.truth.t1OffsetNs = t1OffsetNs_;
    const uint8_t arrivalTtl = static_cast<uint8_t>(datagram.ttl >= 0 ? datagram.ttl : 0);
    reply.truth.senderTtl = options_.senderTtlGiven ? options_.senderTtl : arrivalTtl;
    reply.truth.tos = static_cast<uint8_t>(datagram.tos >= 0 ? datagram.tos : 0);
    reply.truth.length = datagram.payload.size();
    reply.truth.hasReceiveTime = datagram.hasReceiveTime;
    reply.truth.receiveNs = nanoseconds(datagram.receiveTime);
    const timespec t3 = shifted(clock_.realtime(), skewNs_);
    reply.truth.t2Ns = nanoseconds(t2);
    reply.truth.t3Ns = nanoseconds(t3);
    reply.bytes = std::move(request.datagram.payload);

    ReplyStamp stamp;
    stamp.reflectorSequence = reflectorSeq;
    stamp.receiveTimestamp = toNtpTimestamp(t2);
    stamp.transmitTimestamp = toNtpTimestamp(t3);
    stamp.senderTtl = reply.truth.senderTtl;
    stamp.senderTimestampOffset = t1OffsetNtp_;
    ReplyBuilder::build(reply.bytes.data(), reply.bytes.size(), stamp);
    return reply;
}

// A reply held for reordering leaves right after the next one.
void Reflector::emitReply(HeldReply reply) {
    if (reorderHeld_) {
        HeldReply held = std::move(*reorderHeld_);
        reorderHeld_.reset();
        sendReply(reply, false);
        sendReply(held, true);
        return;
    }
    if (reply.fate.reorder) {
        reorderHeld_ = std::move(reply);
        return;
    }
    sendReply(reply, false);
}

void Reflector::sendReply(HeldReply& reply, bool reordered) {
    reply.truth.reordered = reordered;
    sendCopy(reply, 1);
    if (reply.fate.duplicate) {
        sendCopy(reply, 2);
    }
}

void Reflector::sendCopy(HeldReply& reply, int copy) {
    reply.truth.copy = copy;
    const int error = socket_.send(reply.bytes.data(), reply.bytes.size(), reply.peer,
                                   options_.replyTtl, reply.truth.tos);
    if (error == 0) {
        ++totals_.sent;
        truth_.awaitTransmit(reply.truth, reply.bytes.data(), reply.bytes.size(),
                             clock_.monotonicNs() + kTransmitWaitNs);
        // On veth and loopback the time is queued by now: reading it at once
        // keeps the error queue short, whose frames count against the receive buffer.
        collectTransmitStamps();
        return;
    }
    ++totals_.sendErrors;
    truth_.write(TruthWriter::sendErrorLine(reply.truth, error));
    // A failure that repeats the previous one is not printed again.
    if (!options_.quiet && error != lastSendError_) {
        std::fprintf(stderr, "twamp-reflector: cannot send to %s: %s\n",
                     ReflectorSocket::describe(reply.peer).c_str(), std::strerror(error));
    }
    lastSendError_ = error;
}

void Reflector::collectTransmitStamps() {
    TransmitStamp stamp;
    while (socket_.receiveTransmitStamp(stamp)) {
        truth_.transmitted(stamp.looped.data(), stamp.looped.size(),
                           nanoseconds(stamp.transmitTime));
    }
}

void Reflector::discardHeld() {
    HeldRequest request;
    while (requests_.takeFirst(request)) {
        ++totals_.discarded;
        truth_.write(TruthWriter::discardedLine(request.packet, HoldStage::ForwardDelay, nullptr));
    }
    HeldReply reply;
    while (replies_.takeFirst(reply)) {
        ++totals_.discarded;
        truth_.write(TruthWriter::discardedLine(reply.truth.packet, HoldStage::ReverseDelay,
                                                &reply.truth.reflectorSeq));
    }
    if (reorderHeld_) {
        ++totals_.discarded;
        truth_.write(TruthWriter::discardedLine(reorderHeld_->truth.packet, HoldStage::Reorder,
                                                &reorderHeld_->truth.reflectorSeq));
        reorderHeld_.reset();
    }
}

// The reflector goes away for a while as a process that ends would: what it
// holds is lost, and the kernel answers requests with port unreachable.
void Reflector::closeSocket() {
    closeDue_ = false;
    collectTransmitStamps();
    discardWaitingRequests();
    discardHeld();
    truth_.flush();
    socket_.close();
    closed_ = true;
    const int64_t closedNs = std::llround(options_.unreachableMs * 1e6);
    reopenAtNs_ = clock_.monotonicNs() + closedNs;
    truth_.write(TruthWriter::closedLine(nanoseconds(clock_.realtime()), closedNs));
}

// Requests already queued on the socket are lost with it.
void Reflector::discardWaitingRequests() {
    ReceivedDatagram datagram;
    while (socket_.receive(datagram)) {
        ++totals_.received;
        if (!acceptLength(datagram)) {
            continue;
        }
        ++totals_.forwardLost;
        const TruthPacket packet =
            truthPacket(ReplyBuilder::readSender(datagram.payload.data(), datagram.payload.size()));
        truth_.write(TruthWriter::forwardLossLine(packet, "closed"));
    }
}

void Reflector::reopenSocketWhenDue() {
    if (!closed_ || clock_.monotonicNs() < reopenAtNs_) {
        return;
    }
    std::string error;
    if (!socket_.reopen(error)) {
        truth_.write(TruthWriter::reopenErrorLine(nanoseconds(clock_.realtime()), error));
        if (!options_.quiet) {
            std::fprintf(stderr, "twamp-reflector: %s\n", error.c_str());
        }
        reopenAtNs_ = clock_.monotonicNs() + kReopenRetryNs;
        return;
    }
    closed_ = false;
    truth_.write(TruthWriter::reopenedLine(nanoseconds(clock_.realtime())));
}

void Reflector::finish() {
    collectTransmitStamps();
    discardHeld();
    truth_.flush();
    truth_.write(TruthWriter::stopLine(totals_));
}
