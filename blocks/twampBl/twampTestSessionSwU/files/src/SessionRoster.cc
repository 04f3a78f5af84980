#include "SessionRoster.h"

#include <cerrno>
#include <cstring>
#include <ctime>

#include "TraceFacade.h"
#include "TwtsiSignals.h"

namespace {

RosterEntry entryFor(const twtsiCreateTwampTestSession& create, const char* dstIpAddress,
                     int64_t createdMinute) {
    RosterEntry entry;
    entry.dstIpAddress = dstIpAddress;
    entry.dstUdpPort = create.dstUdpPort;
    entry.packetsPerSecond = create.packetsPerSecond;
    entry.dscp = create.dscp;
    entry.packetSize = create.packetSize;
    entry.createdMinute = createdMinute;
    return entry;
}

}  // namespace

SessionRoster::SessionRoster(Clock& clock) : clock(clock) {}

void SessionRoster::recordCreated(const SessionKey& key, const twtsiCreateTwampTestSession& create,
                                  const char* dstIpAddress) {
    remove(key);
    listed[key] = entryFor(create, dstIpAddress, currentMinute());
}

void SessionRoster::recordRefused(const SessionKey& key, const twtsiCreateTwampTestSession& create,
                                  const char* dstIpAddress) {
    remove(key);
    if (refusalOrder.size() >= kMaxRefused) {
        forgetOldestRefusal();
    }
    RosterEntry entry = entryFor(create, dstIpAddress, currentMinute());
    entry.refused = true;
    entry.refusalNumber = nextRefusalNumber++;
    listed[key] = entry;
    refusalOrder[entry.refusalNumber] = key;
}

void SessionRoster::remove(const SessionKey& key) {
    const auto found = listed.find(key);
    if (found == listed.end()) {
        return;
    }
    if (found->second.refused) {
        refusalOrder.erase(found->second.refusalNumber);
    }
    listed.erase(found);
}

const std::map<SessionKey, RosterEntry>& SessionRoster::entries() const {
    return listed;
}

void SessionRoster::forgetOldestRefusal() {
    if (!refusalOrder.empty()) {
        remove(refusalOrder.begin()->second);
    }
}

int64_t SessionRoster::currentMinute() {
    struct timespec now {};
    if (!clock.getRealtime(&now)) {
        const int error = errno;
        TRACE_ERROR("Failed clock_gettime: errno %d - %s", error, strerror(error));
        return 0;
    }
    return static_cast<int64_t>(now.tv_sec / 60);
}
