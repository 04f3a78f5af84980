// Answers the session list request: one page of the roster, each entry with
// the session's state, the running minute's sent and received packets and
// how long ago its latest minute with a reply began.
//
// The counts come from the same record a counters request reports, so the
// list needs nothing from the session that a manager could not ask for
// already. In the first minute of an interval that record is the previous
// interval, which does not hold the running minute: its counts are then -2.
#ifndef TWAMP_SESSION_LIST_HANDLER_H
#define TWAMP_SESSION_LIST_HANDLER_H

#include <cstdint>
#include <ctime>

#include "Clock.h"
#include "SessionRoster.h"

union itc_msg;
struct twtsiTwampTestSessionEntry;

class SessionListHandler {
  public:
    // roster and clock are not owned and must outlive the handler.
    SessionListHandler(const SessionRoster& roster, Clock& clock);
    virtual ~SessionListHandler() = default;

    // Builds the page the request asks for and sends it to the request's
    // sender, from the daemon's own mailbox.
    virtual void handleListRequest(union itc_msg* request);

  private:
    union itc_msg* buildPage(uint32_t startIndex, const struct timespec& now);
    void fillEntry(twtsiTwampTestSessionEntry& entry, const SessionKey& key,
                   const RosterEntry& listed, time_t now);

    const SessionRoster& roster;
    Clock& clock;
};

#endif  // TWAMP_SESSION_LIST_HANDLER_H
