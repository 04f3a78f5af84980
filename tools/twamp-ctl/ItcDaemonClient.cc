#include "ItcDaemonClient.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "TwtsiSignals.h"

namespace {

struct SignalDeleter {
    void operator()(union itc_msg* msg) const { itc_free(&msg); }
};
using Signal = std::unique_ptr<union itc_msg, SignalDeleter>;

const char* runDirectory() {
    const char* directory = std::getenv("ITC_RUNDIR");
    return directory != nullptr && directory[0] != '\0' ? directory : "/run/itc";
}

SessionListing toListing(const twtsiTwampTestSessionEntry& entry) {
    SessionListing listing;
    std::memcpy(listing.sessionId, entry.sessionId, sizeof(listing.sessionId));
    // The daemon terminates the text; a foreign one may not.
    listing.dstIpAddress.assign(entry.dstIpAddress,
                                strnlen(entry.dstIpAddress, sizeof(entry.dstIpAddress)));
    listing.dstUdpPort = entry.dstUdpPort;
    listing.packetsPerSecond = entry.packetsPerSecond;
    listing.dscp = entry.dscp;
    listing.packetSize = entry.packetSize;
    listing.state = entry.state;
    listing.lastReplyAgeSeconds = entry.lastReplyAgeSeconds;
    listing.minuteSentPkts = entry.minuteSentPkts;
    listing.minuteReceivedPkts = entry.minuteReceivedPkts;
    return listing;
}

}  // namespace

ItcDaemonClient::ItcDaemonClient(const std::string& service, int32_t timeoutMs,
                                 const std::string& toolName)
    : service(service), timeoutMs(timeoutMs), toolName(toolName) {}

ItcDaemonClient::~ItcDaemonClient() {
    if (own != ITC_NO_ID) {
        itc_delete_mailbox(own);
    }
}

bool ItcDaemonClient::open(std::string& error) {
    if (itc_init(1, 0, nullptr, nullptr, 0) != 0) {
        error = std::string("itc_init failed: ") + std::strerror(errno);
        return false;
    }
    const std::string name = toolName + "-" + std::to_string(getpid());
    own = itc_create_mailbox(name.c_str(), 0);
    if (own == ITC_NO_ID) {
        error = "cannot create mailbox '" + name + "' in " + runDirectory() + ": " +
                std::strerror(errno);
        return false;
    }
    return true;
}

bool ItcDaemonClient::locateDaemon(itc_mbox_id_t& daemon, std::string& error) {
    daemon = itc_locate(service.c_str());
    daemonId = daemon;
    if (daemon == ITC_NO_ID) {
        error =
            "no mailbox named '" + service + "' in " + runDirectory() + " (is the daemon running?)";
        return false;
    }
    return true;
}

bool ItcDaemonClient::cachedDaemon(itc_mbox_id_t& daemon, std::string& error) {
    if (daemonId != ITC_NO_ID) {
        daemon = daemonId;
        return true;
    }
    return locateDaemon(daemon, error);
}

// Requests are answered one at a time, so whatever waits before a request
// is a late reply to an earlier one that timed out: it must not be taken as
// the answer to this one.
void ItcDaemonClient::discardStaleReplies() {
    for (;;) {
        union itc_msg* stale = itc_receive(ITC_NOFILTER, 0, ITC_FROM_ALL);
        if (stale == nullptr) {
            return;
        }
        itc_free(&stale);
    }
}

bool ItcDaemonClient::send(union itc_msg* msg, itc_mbox_id_t daemon, std::string& error) {
    discardStaleReplies();
    if (msg == nullptr) {
        error = std::string("itc_alloc failed: ") + std::strerror(errno);
        return false;
    }
    if (itc_send(&msg, daemon, own) != 0) {
        // A daemon that went away is looked up again next time.
        daemonId = ITC_NO_ID;
        error = "cannot send to '" + service + "': " + std::strerror(errno);
        return false;
    }
    return true;
}

bool ItcDaemonClient::listSessions(std::vector<SessionListing>& sessions, std::string& error) {
    sessions.clear();
    itc_mbox_id_t daemon = ITC_NO_ID;
    if (!locateDaemon(daemon, error)) {
        return false;
    }
    bool more = true;
    while (more) {
        if (!fetchPage(daemon, static_cast<uint32_t>(sessions.size()), sessions, more, error)) {
            return false;
        }
    }
    return true;
}

// A reply to an earlier request that timed out may still wait in the
// mailbox: replies for another start index are dropped.
bool ItcDaemonClient::fetchPage(itc_mbox_id_t daemon, uint32_t startIndex,
                                std::vector<SessionListing>& sessions, bool& more,
                                std::string& error) {
    union itc_msg* request =
        itc_alloc(sizeof(twtsiListTwampTestSessionsReq), TWTSI_LIST_TWAMP_TEST_SESSIONS_REQ);
    if (request != nullptr) {
        request->twtsiListTwampTestSessionsReq.startIndex = startIndex;
    }
    if (!send(request, daemon, error)) {
        return false;
    }
    static const uint32_t kFilter[] = {1, TWTSI_LIST_TWAMP_TEST_SESSIONS_RSP};
    for (;;) {
        Signal reply(itc_receive(kFilter, timeoutMs, daemon));
        if (!reply) {
            error = "no session list from '" + service + "' within " + std::to_string(timeoutMs) +
                    " ms (does the daemon list sessions?)";
            return false;
        }
        const std::size_t size = itc_size(reply.get());
        // Larger than union itc_msg; the size is checked before the entries are read.
        const auto& page = *reinterpret_cast<const twtsiListTwampTestSessionsRsp*>(reply.get());
        if (size < TWTSI_LIST_TWAMP_TEST_SESSIONS_RSP_HEADER_SIZE ||
            page.count > TWTSI_LIST_PAGE_ENTRIES ||
            size != TWTSI_LIST_TWAMP_TEST_SESSIONS_RSP_SIZE(page.count)) {
            error = "malformed session list page of " + std::to_string(size) + " bytes";
            return false;
        }
        if (page.startIndex != startIndex) {
            continue;
        }
        for (uint32_t index = 0; index < page.count; ++index) {
            sessions.push_back(toListing(page.entries[index]));
        }
        // A page without entries ends the list even if it claims more.
        more = page.more != 0 && page.count > 0;
        return true;
    }
}

bool ItcDaemonClient::fetchCounters(const uint8_t (&sessionId)[16], bool completedIntervalOnly,
                                    CounterGrid& counters, std::string& error) {
    itc_mbox_id_t daemon = ITC_NO_ID;
    if (!cachedDaemon(daemon, error)) {
        return false;
    }
    union itc_msg* request = itc_alloc(sizeof(twtsiGetTwampTestSessionPmCountersReq),
                                       TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_REQ);
    if (request != nullptr) {
        twtsiGetTwampTestSessionPmCountersReq& fields =
            request->twtsiGetTwampTestSessionPmCountersReq;
        std::memcpy(fields.sessionId, sessionId, sizeof(fields.sessionId));
        fields.completedIntervalOnly = completedIntervalOnly ? 1 : 0;
    }
    if (!send(request, daemon, error)) {
        return false;
    }
    static const uint32_t kFilter[] = {1, TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_RSP};
    for (;;) {
        Signal reply(itc_receive(kFilter, timeoutMs, daemon));
        if (!reply) {
            error = "no counters reply from '" + service + "' within " + std::to_string(timeoutMs) +
                    " ms";
            return false;
        }
        const twtsiGetTwampTestSessionPmCountersRsp& fields =
            reply->twtsiGetTwampTestSessionPmCountersRsp;
        if (itc_size(reply.get()) != TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_RSP_SIZE) {
            error =
                "malformed counters reply of " + std::to_string(itc_size(reply.get())) + " bytes";
            return false;
        }
        // A held reply of an earlier request for another session: not ours.
        if (std::memcmp(fields.sessionId, sessionId, sizeof(fields.sessionId)) != 0) {
            continue;
        }
        std::memcpy(counters, fields.counters, sizeof(counters));
        return true;
    }
}
