// The sessions a manager asked for, as the session list reports them: what
// each create signal asked for, when it came and whether it was refused.
//
// The controller's registry holds the running sessions but not what they were
// created with; the roster keeps that beside it. Refused creates are kept so
// that an operator can see them, at most kMaxRefused of them (the oldest go
// first), so a manager that keeps sending bad creates cannot grow the daemon.
#ifndef TWAMP_SESSION_ROSTER_H
#define TWAMP_SESSION_ROSTER_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "Clock.h"
#include "SessionKey.h"

struct twtsiCreateTwampTestSession;

// One listed session: the create signal's settings and its outcome.
struct RosterEntry {
    std::string dstIpAddress;
    uint16_t dstUdpPort = 0;
    uint32_t packetsPerSecond = 0;
    uint32_t dscp = 0;
    int32_t packetSize = 0;
    // Minute of the create signal (CLOCK_REALTIME seconds / 60): the session
    // sends from the next one. 0 when the clock could not be read.
    int64_t createdMinute = 0;
    bool refused = false;
    // Order of refusals, to forget the oldest first.
    uint64_t refusalNumber = 0;
};

class SessionRoster {
  public:
    static constexpr std::size_t kMaxRefused = 256;

    // clock dates the creates; not owned, must outlive the roster.
    explicit SessionRoster(Clock& clock);
    virtual ~SessionRoster() = default;

    // Records a started session of key, created now; dstIpAddress is the
    // create's address as the session got it.
    virtual void recordCreated(const SessionKey& key, const twtsiCreateTwampTestSession& create,
                               const char* dstIpAddress);
    // Records a refused create of key (replacing an earlier refusal of it).
    virtual void recordRefused(const SessionKey& key, const twtsiCreateTwampTestSession& create,
                               const char* dstIpAddress);
    // Forgets key; nothing when it is not listed.
    virtual void remove(const SessionKey& key);
    // The listed sessions in key order.
    virtual const std::map<SessionKey, RosterEntry>& entries() const;

  private:
    void forgetOldestRefusal();
    int64_t currentMinute();

    Clock& clock;
    std::map<SessionKey, RosterEntry> listed;
    // The listed refusals by refusal number, oldest first, so that a manager
    // flooding refused creates costs a logarithm per create, not a walk over
    // every listed session.
    std::map<uint64_t, SessionKey> refusalOrder;
    uint64_t nextRefusalNumber = 0;
};

#endif  // TWAMP_SESSION_ROSTER_H
