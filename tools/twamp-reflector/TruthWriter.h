// The ground truth: one JSON line per action of the reflector, in the order
// the actions happen, each flushed at once so that a reader can follow the
// file while the reflector runs. Without a file every write does nothing.
#ifndef TWAMP_REFLECTOR_TRUTH_WRITER_H
#define TWAMP_REFLECTOR_TRUTH_WRITER_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "ReflectorOptions.h"

// The sender's packet that an action concerns.
struct TruthPacket {
    uint32_t senderSeq = 0;
    // NTP; gives the sender minute.
    uint64_t senderTimestamp = 0;
};

// One datagram sent.
struct ReplyTruth {
    TruthPacket packet;
    uint32_t reflectorSeq = 0;
    int copy = 1;
    // The holds drawn for the packet.
    int64_t forwardDelayNs = 0;
    int64_t reverseDelayNs = 0;
    int64_t skewNs = 0;
    // Added to the echoed sender timestamp (a corrupting reflector).
    int64_t t1OffsetNs = 0;
    // The Sender TTL written into the reply and the TOS byte it is sent with.
    uint8_t senderTtl = 0;
    uint8_t tos = 0;
    std::size_t length = 0;
    bool reordered = false;
    // What really happened, in nanoseconds since the POSIX epoch
    // (CLOCK_REALTIME): the kernel's receive time of the request, the times
    // written as T2 and T3 (the skew included) and the kernel's transmit time
    // of this datagram. The kernel's times may be missing.
    bool hasReceiveTime = false;
    int64_t receiveNs = 0;
    int64_t t2Ns = 0;
    int64_t t3Ns = 0;
    bool hasTransmitTime = false;
    int64_t transmitNs = 0;
};

// What the reflector did, in numbers, for the last line.
struct TruthTotals {
    uint64_t received = 0;
    uint64_t tooShort = 0;
    uint64_t forwardLost = 0;
    uint64_t accepted = 0;
    uint64_t reverseLost = 0;
    uint64_t sent = 0;
    uint64_t sendErrors = 0;
    uint64_t discarded = 0;
};

// Where a held packet was when the reflector stopped.
enum class HoldStage { ForwardDelay, ReverseDelay, Reorder };

class TruthWriter {
  public:
    // Writes nothing until open succeeds.
    TruthWriter();
    ~TruthWriter();

    // Creates or truncates the file; false with a message on failure.
    bool open(const std::string& path, std::string& error);
    bool enabled() const { return file_ != nullptr; }
    // Writes one line and flushes it.
    void write(const std::string& line);

    // The POSIX minute of an NTP timestamp, rounded towards minus infinity.
    static int64_t senderMinute(uint64_t ntpTimestamp);

    // The lines, without their line end.
    static std::string startLine(const ReflectorOptions& options, uint16_t boundPort);
    // A datagram too short to reflect; the sender fields when it holds them.
    static std::string shortLine(const TruthPacket* packet, std::size_t length);
    static std::string forwardLossLine(const TruthPacket& packet);
    // A request dropped on purpose rather than by the random forward loss:
    // the line names why ("restart_gap": the reflector was down).
    static std::string forwardLossLine(const TruthPacket& packet, const char* reason);
    static std::string restartLine(const TruthPacket& packet);
    // The socket closed (the kernel answers with port unreachable) and opened
    // again; timeNs is CLOCK_REALTIME in nanoseconds.
    static std::string closedLine(int64_t timeNs, int64_t reopenAfterNs);
    static std::string reopenedLine(int64_t timeNs);
    static std::string reopenErrorLine(int64_t timeNs, const std::string& error);
    static std::string reverseLossLine(const TruthPacket& packet, uint32_t reflectorSeq,
                                       int64_t forwardDelayNs);
    static std::string replyLine(const ReplyTruth& reply);
    static std::string sendErrorLine(const ReplyTruth& reply, int error);
    // A held packet dropped at stop; reflectorSeq only once one was given.
    static std::string discardedLine(const TruthPacket& packet, HoldStage stage,
                                     const uint32_t* reflectorSeq);
    static std::string stopLine(const TruthTotals& totals);

    TruthWriter(const TruthWriter&) = delete;
    TruthWriter& operator=(const TruthWriter&) = delete;

  private:
    struct FileCloser {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    std::unique_ptr<std::FILE, FileCloser> file_;
};

#endif  // TWAMP_REFLECTOR_TRUTH_WRITER_H
