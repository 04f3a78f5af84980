// The reflector: one thread, one event loop over the UDP socket, a stop
// descriptor and two time-ordered queues of held requests and replies.
//
// A request is first checked for length, then meets the forward impairments
// (loss, then delay). When it is processed it is counted: it gets the next
// reflector sequence number of its sender (each sender address and port is a
// session of its own, numbered from 0; or the sender's own number, when
// stateless) and T2 (the kernel's receive time, or the time of processing
// after a forward hold). Its reply may then be lost, or stamped with T3 (plus
// the skew) and, after the reverse hold, sent once or twice, possibly held
// back behind the next reply. Every action is written to the ground truth, a
// reply's line with the kernel's transmit time of the datagram. The socket
// may be closed for a while after a number of requests (port unreachable).
#ifndef TWAMP_REFLECTOR_REFLECTOR_H
#define TWAMP_REFLECTOR_REFLECTOR_H

#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "FileDescriptor.h"
#include "HeldPackets.h"
#include "HoldQueue.h"
#include "Impairments.h"
#include "ReflectorClock.h"
#include "ReflectorOptions.h"
#include "ReflectorSocket.h"
#include "RestartSchedule.h"
#include "TruthQueue.h"
#include "TruthWriter.h"

class Reflector {
  public:
    // options.seed must be final: an absent seed is drawn by the caller.
    Reflector(const ReflectorOptions& options, ReflectorClock& clock, TruthWriter& truth);

    // Opens the socket and the stop descriptor and writes the start line.
    bool open(std::string& error);
    uint16_t port() const { return socket_.boundPort(); }

    // Waits up to maxWaitNs (negative: without limit) for a datagram, a due
    // hold or a stop request, then handles everything that is ready.
    void runOnce(int64_t maxWaitNs);
    // Runs until a stop is requested, then finishes.
    void run();
    // Async-signal-safe: ends run() at its next turn.
    void requestStop();
    bool stopRequested() const { return stopRequested_.load(); }
    // Drops whatever is still held (each written as discarded) and writes the stop line.
    void finish();

    const TruthTotals& totals() const { return totals_; }

    Reflector(const Reflector&) = delete;
    Reflector& operator=(const Reflector&) = delete;

  private:
    int64_t waitNs(int64_t maxWaitNs);
    void drainSocket();
    void releaseDue();
    void handleDatagram(ReceivedDatagram& datagram);
    bool acceptLength(ReceivedDatagram& datagram);
    bool dropInRestartGap(const TruthPacket& packet);
    void processRequest(HeldRequest& request, const timespec& t2);
    uint32_t nextReflectorSeq(const TruthPacket& packet, const PeerAddress& sender);
    HeldReply buildReply(HeldRequest& request, const timespec& t2, uint32_t reflectorSeq,
                         const ReplyFate& fate);
    void emitReply(HeldReply reply);
    void sendReply(HeldReply& reply, bool reordered);
    void sendCopy(HeldReply& reply, int copy);
    void collectTransmitStamps();
    void discardHeld();
    void closeSocket();
    void discardWaitingRequests();
    void reopenSocketWhenDue();

    ReflectorOptions options_;
    ReflectorClock& clock_;
    TruthQueue truth_;
    Impairments impairments_;
    RestartSchedule restarts_;
    ReflectorSocket socket_;
    FileDescriptor stopFd_;
    std::atomic<bool> stopRequested_{false};
    HoldQueue<HeldRequest> requests_;
    HoldQueue<HeldReply> replies_;
    std::optional<HeldReply> reorderHeld_;
    int64_t skewNs_ = 0;
    // Added to the echoed sender timestamp: NTP units for the reply,
    // nanoseconds for the ground truth.
    int64_t t1OffsetNtp_ = 0;
    int64_t t1OffsetNs_ = 0;
    // The next reflector sequence number of every sender (address and port)
    // since the last restart, which starts them all again at 0.
    std::map<std::string, uint32_t> senderSeqs_;
    // The socket closes once, after --unreachable-after accepted requests,
    // and opens again at reopenAtNs_ (CLOCK_MONOTONIC).
    bool closeDue_ = false;
    bool closed_ = false;
    int64_t reopenAtNs_ = 0;
    int lastSendError_ = 0;
    TruthTotals totals_;
};

#endif  // TWAMP_REFLECTOR_REFLECTOR_H
