#include "LoadManager.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

constexpr char kLabelPrefix[] = "load";
constexpr std::size_t kLabelPrefixLength = sizeof(kLabelPrefix) - 1;
constexpr int64_t kNanosecondsPerMillisecond = 1000000;

twtsiCreateTwampTestSession createSignal(const SessionBlock& block, uint32_t index) {
    twtsiCreateTwampTestSession create{};
    create.sigNo = TWTSI_CREATE_TWAMP_TEST_SESSION;
    std::snprintf(create.dstIpAddress, sizeof(create.dstIpAddress), "%s",
                  block.destination.c_str());
    create.dstUdpPort =
        static_cast<uint16_t>(block.onePort ? block.basePort : block.basePort + index);
    const LoadManager::SessionId id = LoadManager::sessionId(index);
    std::memcpy(create.sessionId, id.data(), id.size());
    create.packetsPerSecond = block.packetsPerSecond;
    create.dscp = block.dscp;
    create.packetSize = block.packetSize;
    create.startOffset = index;
    create.spreadingBase = block.spreadingBase;
    return create;
}

}  // namespace

bool LoadManager::checkBlock(const SessionBlock& block, std::string& error) {
    const uint64_t last = static_cast<uint64_t>(block.first) + block.count - 1;
    const uint32_t maxSlot = block.spreadingBase == TWTSI_DENSE_SPREADING_BASE
                                 ? TWTSI_MAX_START_OFFSET_DENSE
                                 : TWTSI_MAX_START_OFFSET;
    if (block.count == 0) {
        error = "no sessions";
    } else if (block.destination.empty() || block.destination.size() >= TWTSI_DST_IP_ADDRESS_SIZE) {
        error = "destination must be 1 to 45 characters";
    } else if (last > maxSlot) {
        error = "session " + std::to_string(last) + " would get start slot " +
                std::to_string(last) + "; the daemon accepts up to " + std::to_string(maxSlot);
    } else if (block.basePort == 0 || (!block.onePort && block.basePort + last > 65535)) {
        error = "ports must lie in 1 to 65535";
    } else if (block.packetsPerSecond > TWTSI_MAX_PACKETS_PER_SECOND) {
        error = "rate above " + std::to_string(TWTSI_MAX_PACKETS_PER_SECOND) + " packets/s";
    } else if (block.packetSize < TWTSI_MIN_PACKET_SIZE ||
               block.packetSize > TWTSI_MAX_PACKET_SIZE) {
        error = "size must lie in " + std::to_string(TWTSI_MIN_PACKET_SIZE) + " to " +
                std::to_string(TWTSI_MAX_PACKET_SIZE);
    } else if (block.dscp > TWTSI_MAX_DSCP) {
        error = "DSCP above " + std::to_string(TWTSI_MAX_DSCP);
    } else {
        return true;
    }
    return false;
}

LoadManager::SessionId LoadManager::sessionId(uint32_t index) {
    SessionId id{};
    const std::string label = kLabelPrefix + std::to_string(index);
    std::memcpy(id.data(), label.data(), label.size());
    return id;
}

bool LoadManager::indexOf(const uint8_t* sessionId, uint32_t& index) {
    if (std::memcmp(sessionId, kLabelPrefix, kLabelPrefixLength) != 0) {
        return false;
    }
    uint64_t value = 0;
    std::size_t position = kLabelPrefixLength;
    while (position < TWTSI_SESSION_ID_SIZE && sessionId[position] >= '0' &&
           sessionId[position] <= '9') {
        value = value * 10 + (sessionId[position] - '0');
        ++position;
    }
    if (position == kLabelPrefixLength || value > UINT32_MAX) {
        return false;
    }
    index = static_cast<uint32_t>(value);
    // Only the form sessionId writes is a key of ours: "load01" is not session 1.
    const SessionId canonical = LoadManager::sessionId(index);
    return std::memcmp(sessionId, canonical.data(), canonical.size()) == 0;
}

SendTally LoadManager::createSessions(const SessionBlock& block) {
    SendTally tally;
    const int64_t start = clock.monotonicNs();
    for (uint32_t index = block.first; index < block.first + block.count; ++index) {
        const twtsiCreateTwampTestSession create = createSignal(block, index);
        sendPatiently(&create, sizeof(create), tally);
    }
    tally.elapsedNs = clock.monotonicNs() - start;
    return tally;
}

SendTally LoadManager::deleteSessions(const SessionBlock& block) {
    SendTally tally;
    const int64_t start = clock.monotonicNs();
    for (uint32_t index = block.first; index < block.first + block.count; ++index) {
        twtsiDeleteTwampTestSession remove{};
        remove.sigNo = TWTSI_DELETE_TWAMP_TEST_SESSION;
        const SessionId id = sessionId(index);
        std::memcpy(remove.sessionId, id.data(), id.size());
        sendPatiently(&remove, sizeof(remove), tally);
    }
    tally.elapsedNs = clock.monotonicNs() - start;
    return tally;
}

bool LoadManager::sendPatiently(const void* signal, std::size_t size, SendTally& tally) {
    int64_t refusedSince = -1;
    for (;;) {
        const int result = channel.send(signal, size);
        if (result == 0) {
            ++tally.sent;
            return true;
        }
        if (result != EAGAIN) {
            ++tally.failed;
            tally.lastErrno = result;
            return false;
        }
        ++tally.refusals;
        const int64_t now = clock.monotonicNs();
        if (refusedSince < 0) {
            refusedSince = now;
        } else if (now - refusedSince >= kRefusalLimitNs) {
            ++tally.failed;
            tally.lastErrno = EAGAIN;
            return false;
        }
        clock.sleepNs(kRefusalPauseNs);
    }
}

CountersTally LoadManager::readCounters(const SessionBlock& block, const ReadSettings& settings,
                                        std::vector<SessionCounters>& out) {
    CountersTally tally;
    const int64_t start = clock.monotonicNs();
    out.assign(block.count, SessionCounters{});
    queue.clear();
    for (uint32_t offset = 0; offset < block.count; ++offset) {
        out[offset].index = block.first + offset;
        queue.push_back(block.first + offset);
    }
    queueHead = 0;
    inFlight.clear();
    attemptsMade.assign(block.count, 0);
    completedIntervalOnly = settings.completedIntervalOnly;
    blockFirst = block.first;
    int64_t refusedSince = -1;
    while (queueHead < queue.size() || !inFlight.empty()) {
        const bool refused = !fillWindow(settings, tally, out);
        if (inFlight.empty()) {
            if (!refused) {
                continue;  // every send failed for good; the queue is used up
            }
            // Refused with nothing of ours in the daemon's mailbox: it is busy with others.
            const int64_t now = clock.monotonicNs();
            refusedSince = refusedSince < 0 ? now : refusedSince;
            if (now - refusedSince >= kRefusalLimitNs) {
                tally.lastErrno = EAGAIN;
                break;
            }
            clock.sleepNs(kRefusalPauseNs);
            continue;
        }
        refusedSince = -1;
        awaitReply(block, tally, out);
        expire(settings, tally, out);
    }
    tally.missing = static_cast<uint64_t>(std::count_if(
        out.begin(), out.end(), [](const SessionCounters& c) { return !c.received; }));
    tally.elapsedNs = clock.monotonicNs() - start;
    return tally;
}

bool LoadManager::fillWindow(const ReadSettings& settings, CountersTally& tally,
                             const std::vector<SessionCounters>& out) {
    while (inFlight.size() < settings.window && queueHead < queue.size()) {
        const uint32_t index = queue[queueHead];
        if (out[index - blockFirst].received) {
            ++queueHead;  // a late reply came after all
            continue;
        }
        twtsiGetTwampTestSessionPmCountersReq request{};
        request.sigNo = TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_REQ;
        const SessionId id = sessionId(index);
        std::memcpy(request.sessionId, id.data(), id.size());
        request.completedIntervalOnly = completedIntervalOnly ? 1 : 0;
        const int result = channel.send(&request, sizeof(request));
        if (result == EAGAIN) {
            ++tally.refusals;
            return false;
        }
        ++queueHead;
        ++attemptsMade[index - blockFirst];
        if (result != 0) {
            // Not EAGAIN: the mailbox is gone or unusable, a retry would fail alike.
            tally.lastErrno = result;
            continue;
        }
        ++tally.requests;
        inFlight.push_back(InFlight{index, clock.monotonicNs() + settings.replyTimeoutNs});
    }
    return true;
}

void LoadManager::awaitReply(const SessionBlock& block, CountersTally& tally,
                             std::vector<SessionCounters>& out) {
    int64_t deadline = inFlight.front().deadlineNs;
    for (const InFlight& request : inFlight) {
        deadline = std::min(deadline, request.deadlineNs);
    }
    const int64_t leftNs = std::max<int64_t>(0, deadline - clock.monotonicNs());
    const auto waitMs = static_cast<int32_t>((leftNs + kNanosecondsPerMillisecond - 1) /
                                             kNanosecondsPerMillisecond);
    twtsiGetTwampTestSessionPmCountersRsp reply{};
    if (!channel.receiveCounters(waitMs, reply)) {
        return;
    }
    uint32_t index = 0;
    if (!indexOf(reply.sessionId, index) || index < block.first ||
        index - block.first >= block.count || out[index - block.first].received) {
        ++tally.strays;
        return;
    }
    // A reply to a request already given up on as late is still the session's counters.
    inFlight.erase(
        std::remove_if(inFlight.begin(), inFlight.end(),
                       [index](const InFlight& request) { return request.index == index; }),
        inFlight.end());
    ++tally.replies;
    out[index - block.first].received = true;
    out[index - block.first].reply = reply;
}

void LoadManager::expire(const ReadSettings& settings, CountersTally& tally,
                         const std::vector<SessionCounters>& out) {
    const int64_t now = clock.monotonicNs();
    auto late = [now](const InFlight& request) { return request.deadlineNs <= now; };
    for (const InFlight& request : inFlight) {
        if (!late(request)) {
            continue;
        }
        ++tally.timeouts;
        const uint32_t offset = request.index - blockFirst;
        if (!out[offset].received && attemptsMade[offset] < settings.attempts) {
            queue.push_back(request.index);
        }
    }
    inFlight.erase(std::remove_if(inFlight.begin(), inFlight.end(), late), inFlight.end());
}
