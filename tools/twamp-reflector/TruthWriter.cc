#include "TruthWriter.h"

#include <cerrno>
#include <cstring>

#include "JsonLine.h"

namespace {

constexpr int64_t kUnixEpochInNtpSeconds = 2208988800LL;
constexpr int64_t kSecondsPerMinute = 60;
constexpr unsigned kNtpSecondsShift = 32;

// Every line starts with the event and the sender packet it concerns.
JsonLine eventLine(const char* event, const TruthPacket& packet) {
    JsonLine line;
    line.add("event", event)
        .add("senderSeq", packet.senderSeq)
        .add("senderMinute", TruthWriter::senderMinute(packet.senderTimestamp));
    return line;
}

JsonLine eventLineWithoutPacket(const char* event) {
    JsonLine line;
    line.add("event", event).addNull("senderSeq").addNull("senderMinute");
    return line;
}

void addOptionalNs(JsonLine& line, const char* key, bool present, int64_t nanoseconds) {
    if (present) {
        line.add(key, nanoseconds);
    } else {
        line.addNull(key);
    }
}

void addOptionalMicroseconds(JsonLine& line, const char* key, bool present, int64_t nanoseconds) {
    if (present) {
        line.addMicroseconds(key, nanoseconds);
    } else {
        line.addNull(key);
    }
}

// The times of what really happened to a reply, and the holds they give: the
// request waited from its kernel receive time to T2, the reply from T3 (its
// real time, without the skew) to its kernel transmit time.
void addRealTimes(JsonLine& line, const ReplyTruth& reply) {
    addOptionalNs(line, "rxKernelNs", reply.hasReceiveTime, reply.receiveNs);
    line.add("t2Ns", reply.t2Ns).add("t3Ns", reply.t3Ns);
    addOptionalNs(line, "txKernelNs", reply.hasTransmitTime, reply.transmitNs);
    addOptionalMicroseconds(line, "fwdHeldUs", reply.hasReceiveTime, reply.t2Ns - reply.receiveNs);
    addOptionalMicroseconds(line, "revHeldUs", reply.hasTransmitTime,
                            reply.transmitNs - (reply.t3Ns - reply.skewNs));
}

const char* stageName(HoldStage stage) {
    switch (stage) {
        case HoldStage::ForwardDelay:
            return "fwd_delay";
        case HoldStage::ReverseDelay:
            return "rev_delay";
        case HoldStage::Reorder:
            return "reorder";
    }
    return "unknown";
}

}  // namespace

TruthWriter::TruthWriter() = default;

TruthWriter::~TruthWriter() = default;

bool TruthWriter::open(const std::string& path, std::string& error) {
    std::FILE* file = std::fopen(path.c_str(), "we");
    if (file == nullptr) {
        error = "cannot open '" + path + "': " + std::strerror(errno);
        return false;
    }
    file_.reset(file);
    return true;
}

void TruthWriter::write(const std::string& line) {
    if (!file_) {
        return;
    }
    std::fputs(line.c_str(), file_.get());
    std::fputc('\n', file_.get());
    std::fflush(file_.get());
}

int64_t TruthWriter::senderMinute(uint64_t ntpTimestamp) {
    const int64_t posixSeconds =
        static_cast<int64_t>(ntpTimestamp >> kNtpSecondsShift) - kUnixEpochInNtpSeconds;
    const int64_t minute = posixSeconds / kSecondsPerMinute;
    return posixSeconds % kSecondsPerMinute < 0 ? minute - 1 : minute;
}

std::string TruthWriter::startLine(const ReflectorOptions& options, uint16_t boundPort) {
    JsonLine line = eventLineWithoutPacket("start");
    line.add("listen", options.listenAddress)
        .add("port", static_cast<int>(boundPort))
        .add("replyTtl", static_cast<int>(options.replyTtl))
        .add("seed", options.seed)
        .addNumber("fwdLossPct", options.forwardLossPercent)
        .addNumber("revLossPct", options.reverseLossPercent)
        .addNumber("duplicatePct", options.duplicatePercent)
        .addNumber("reorderPct", options.reorderPercent)
        .addNumber("fwdDelayMs", options.forwardDelayMs)
        .addNumber("fwdJitterMs", options.forwardJitterMs)
        .addNumber("revDelayMs", options.reverseDelayMs)
        .addNumber("revJitterMs", options.reverseJitterMs)
        .add("restartEvery", options.restartEvery)
        .add("restartAfter", options.restartAfter)
        .add("restartGap", options.restartGap)
        .addNumber("restartGapMs", options.restartGapMs)
        .add("stateless", options.stateless)
        .addNumber("skewMs", options.skewMs);
    if (options.senderTtlGiven) {
        line.add("senderTtl", static_cast<int>(options.senderTtl));
    } else {
        line.addNull("senderTtl");
    }
    line.addNumber("corruptT1Ms", options.t1OffsetMs)
        .add("unreachableAfter", options.unreachableAfter)
        .addNumber("unreachableMs", options.unreachableMs)
        .add("truth", options.truthPath);
    return line.text();
}

std::string TruthWriter::shortLine(const TruthPacket* packet, std::size_t length) {
    JsonLine line =
        packet != nullptr ? eventLine("short", *packet) : eventLineWithoutPacket("short");
    line.add("length", static_cast<uint64_t>(length));
    return line.text();
}

std::string TruthWriter::forwardLossLine(const TruthPacket& packet) {
    return eventLine("fwd_loss", packet).text();
}

std::string TruthWriter::forwardLossLine(const TruthPacket& packet, const char* reason) {
    return eventLine("fwd_loss", packet).add("reason", reason).text();
}

std::string TruthWriter::restartLine(const TruthPacket& packet) {
    return eventLine("restart", packet).add("reflectorSeq", 0).text();
}

std::string TruthWriter::closedLine(int64_t timeNs, int64_t reopenAfterNs) {
    return eventLineWithoutPacket("closed")
        .add("timeNs", timeNs)
        .addMicroseconds("reopenAfterUs", reopenAfterNs)
        .text();
}

std::string TruthWriter::reopenedLine(int64_t timeNs) {
    return eventLineWithoutPacket("reopened").add("timeNs", timeNs).text();
}

std::string TruthWriter::reopenErrorLine(int64_t timeNs, const std::string& error) {
    return eventLineWithoutPacket("reopen_error").add("timeNs", timeNs).add("error", error).text();
}

std::string TruthWriter::reverseLossLine(const TruthPacket& packet, uint32_t reflectorSeq,
                                         int64_t forwardDelayNs) {
    return eventLine("rev_loss", packet)
        .add("reflectorSeq", reflectorSeq)
        .addMicroseconds("fwdDelayUs", forwardDelayNs)
        .text();
}

std::string TruthWriter::replyLine(const ReplyTruth& reply) {
    JsonLine line = eventLine("reply", reply.packet);
    line.add("reflectorSeq", reply.reflectorSeq)
        .add("copy", reply.copy)
        .addMicroseconds("fwdDelayUs", reply.forwardDelayNs)
        .addMicroseconds("revDelayUs", reply.reverseDelayNs)
        .addMicroseconds("skewUs", reply.skewNs)
        .add("ttl", static_cast<int>(reply.senderTtl))
        .add("tos", static_cast<int>(reply.tos))
        .add("length", static_cast<uint64_t>(reply.length))
        .add("reordered", reply.reordered)
        .addMicroseconds("t1OffsetUs", reply.t1OffsetNs);
    addRealTimes(line, reply);
    return line.text();
}

std::string TruthWriter::sendErrorLine(const ReplyTruth& reply, int error) {
    return eventLine("send_error", reply.packet)
        .add("reflectorSeq", reply.reflectorSeq)
        .add("copy", reply.copy)
        .add("errno", error)
        .add("error", std::strerror(error))
        .text();
}

std::string TruthWriter::discardedLine(const TruthPacket& packet, HoldStage stage,
                                       const uint32_t* reflectorSeq) {
    JsonLine line = eventLine("discarded", packet);
    if (reflectorSeq != nullptr) {
        line.add("reflectorSeq", *reflectorSeq);
    }
    return line.add("stage", stageName(stage)).text();
}

std::string TruthWriter::stopLine(const TruthTotals& totals) {
    return eventLineWithoutPacket("stop")
        .add("received", totals.received)
        .add("short", totals.tooShort)
        .add("fwdLost", totals.forwardLost)
        .add("accepted", totals.accepted)
        .add("revLost", totals.reverseLost)
        .add("sent", totals.sent)
        .add("sendErrors", totals.sendErrors)
        .add("discarded", totals.discarded)
        .text();
}
