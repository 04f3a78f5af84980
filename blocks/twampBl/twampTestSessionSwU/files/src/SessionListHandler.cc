#include "SessionListHandler.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <iterator>

#include "PmPeriodRecord.h"
#include "TraceFacade.h"
#include "TwampTestSession.h"
#include "TwampTestSessionController.h"
#include "TwtsiSignals.h"
#include "itc.h"

namespace {

constexpr time_t kMinuteSeconds = 60;
constexpr time_t kIntervalSeconds = 15 * kMinuteSeconds;

// Where the bins of the record a counters request reports begin: the
// interval in progress, or its predecessor while the running minute is the
// interval's first (bin 0).
time_t reportedIntervalStart(time_t now, int activeBin) {
    const time_t running = now - now % kIntervalSeconds;
    return activeBin == 0 ? running - kIntervalSeconds : running;
}

// Seconds from the start of the latest minute of the record with a reply up
// to now; -2 when the record holds no reply.
int64_t lastReplyAge(const PmPeriodRecord& record, int activeBin, time_t now) {
    const time_t intervalStart = reportedIntervalStart(now, activeBin);
    const int latestBin = activeBin == 0 ? PmPeriodRecord::kBinCount - 1 : activeBin;
    for (int bin = latestBin; bin >= 0; --bin) {
        if (record.at(PmCounter::receivedPkts, bin) > 0) {
            return static_cast<int64_t>(now - (intervalStart + bin * kMinuteSeconds));
        }
    }
    return TWTSI_PM_NOT_AVAILABLE;
}

uint32_t stateOf(const RosterEntry& listed, TwampTestSession& session, time_t now) {
    if (session.getDstAddress().ss_family == AF_UNSPEC) {
        return TWTSI_SESSION_STATE_UNRESOLVED;
    }
    return now / kMinuteSeconds == listed.createdMinute ? TWTSI_SESSION_STATE_WAITING
                                                        : TWTSI_SESSION_STATE_SENDING;
}

void copyKey(twtsiTwampTestSessionEntry& entry, const SessionKey& key) {
    static_assert(sizeof(entry.sessionId) == SessionKey::kSize, "16-byte keys");
    std::memcpy(entry.sessionId, key.bytes, sizeof(entry.sessionId));
}

void copySettings(twtsiTwampTestSessionEntry& entry, const RosterEntry& listed) {
    const std::size_t length = std::min(listed.dstIpAddress.size(), sizeof(entry.dstIpAddress) - 1);
    std::memcpy(entry.dstIpAddress, listed.dstIpAddress.data(), length);
    entry.dstIpAddress[length] = '\0';
    entry.dstUdpPort = listed.dstUdpPort;
    entry.packetsPerSecond = listed.packetsPerSecond;
    entry.dscp = listed.dscp;
    entry.packetSize = listed.packetSize;
}

}  // namespace

SessionListHandler::SessionListHandler(const SessionRoster& roster, Clock& clock)
    : roster(roster), clock(clock) {}

void SessionListHandler::handleListRequest(union itc_msg* request) {
    TRACE_LAB("Received twtsiListTwampTestSessionsReq ");
    struct timespec now {};
    if (!clock.getRealtime(&now)) {
        const int error = errno;
        TRACE_ERROR("Failed clock_gettime: errno %d - %s", error, strerror(error));
        now = {};
    }
    union itc_msg* reply = buildPage(request->twtsiListTwampTestSessionsReq.startIndex, now);
    if (reply == nullptr) {
        return;
    }
    if (itc_send(&reply, itc_sender(request), itc_current_mbox()) != 0) {
        const int error = errno;
        TRACE_ERROR("Failed itc_send: errno %d - %s", error, strerror(error));
    }
}

union itc_msg* SessionListHandler::buildPage(uint32_t startIndex, const struct timespec& now) {
    const auto& listed = roster.entries();
    const std::size_t total = listed.size();
    const std::size_t first = std::min<std::size_t>(startIndex, total);
    const std::size_t count =
        std::min<std::size_t>(total - first, static_cast<std::size_t>(TWTSI_LIST_PAGE_ENTRIES));
    union itc_msg* reply = itc_alloc(TWTSI_LIST_TWAMP_TEST_SESSIONS_RSP_SIZE(count),
                                     TWTSI_LIST_TWAMP_TEST_SESSIONS_RSP);
    if (reply == nullptr) {
        const int error = errno;
        TRACE_ERROR("Failed itc_alloc: errno %d - %s", error, strerror(error));
        return nullptr;
    }
    // The page is larger than union itc_msg; itc_alloc gave room for it.
    auto& page = *reinterpret_cast<twtsiListTwampTestSessionsRsp*>(reply);
    page.startIndex = startIndex;
    page.totalCount = static_cast<uint32_t>(total);
    page.count = static_cast<uint32_t>(count);
    page.more = first + count < total ? 1 : 0;
    std::memset(page.padding, 0, sizeof(page.padding));
    auto position = listed.begin();
    std::advance(position, static_cast<std::ptrdiff_t>(first));
    for (std::size_t index = 0; index < count; ++index, ++position) {
        twtsiTwampTestSessionEntry& entry = page.entries[index];
        std::memset(&entry, 0, sizeof(entry));
        fillEntry(entry, position->first, position->second, now.tv_sec);
    }
    return reply;
}

void SessionListHandler::fillEntry(twtsiTwampTestSessionEntry& entry, const SessionKey& key,
                                   const RosterEntry& listed, time_t now) {
    copyKey(entry, key);
    copySettings(entry, listed);
    entry.lastReplyAgeSeconds = TWTSI_PM_NOT_AVAILABLE;
    entry.minuteSentPkts = TWTSI_PM_NOT_AVAILABLE;
    entry.minuteReceivedPkts = TWTSI_PM_NOT_AVAILABLE;
    TwampTestSession* session =
        listed.refused ? nullptr
                       : TwampTestSessionController::getInstance()->getTwampTestSession(key);
    if (session == nullptr) {
        entry.state = TWTSI_SESSION_STATE_REFUSED;
        return;
    }
    entry.state = stateOf(listed, *session, now);
    const PmPeriodRecord* record = session->getPmCounters(false);
    if (record == nullptr) {
        return;
    }
    const int activeBin = session->getActivePeriod();
    entry.lastReplyAgeSeconds = lastReplyAge(*record, activeBin, now);
    if (activeBin > 0 && activeBin < PmPeriodRecord::kBinCount) {
        entry.minuteSentPkts = record->at(PmCounter::sentPkts, activeBin);
        entry.minuteReceivedPkts = record->at(PmCounter::receivedPkts, activeBin);
    }
}
