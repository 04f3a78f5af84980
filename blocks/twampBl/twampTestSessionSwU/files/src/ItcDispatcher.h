// Connects the daemon's ITC mailbox to the event loop.
//
// init() opens the mailbox under the service name and registers its
// descriptor with the multiplexer; each readable event takes exactly one
// signal, turns it into calls on the controller and frees it. The dispatcher
// is the only sender of counters replies, also of a reply that a session
// holds until its last completed interval is finalised.
#ifndef TWAMP_ITC_DISPATCHER_H
#define TWAMP_ITC_DISPATCHER_H

#include <set>
#include <string>

#include "Clock.h"
#include "IoHandler.h"
#include "RealtimeClock.h"
#include "SessionListHandler.h"
#include "SessionRoster.h"
#include "itc.h"

class TwampTestSession;
class TwampTestSessionFactory;

class ItcDispatcher : public IoHandler {
  public:
    // factory builds the sessions of create signals; not owned. clock dates
    // the entries of the session list (an extension); not owned.
    explicit ItcDispatcher(TwampTestSessionFactory* factory,
                           Clock& clock = RealtimeClock::instance());
    ItcDispatcher(const ItcDispatcher&) = delete;
    ItcDispatcher& operator=(const ItcDispatcher&) = delete;
    // Leaves the multiplexer and deletes the mailbox if init opened one.
    ~ItcDispatcher() override;

    // IoHandler
    // The mailbox descriptor once init has run.
    std::set<int> getReadFds() const override;
    // Takes one signal from the mailbox and handles it; always true.
    bool handleInput(int fd) override;

    // Opens the mailbox serviceName and registers with the multiplexer;
    // false (traced) when ITC cannot be initialised.
    virtual bool init(const std::string& serviceName);
    // Fills a held counters reply from the session's last completed interval
    // and sends it to the requester stored last; nothing while it is not ready.
    virtual void sendPmCountersReply(TwampTestSession* session, union itc_msg* reply);

  private:
    void dispatch(union itc_msg* signal);
    void handleTwtsiCreateTwampTestSession(union itc_msg* signal);
    void handleTwtsiDeleteTwampTestSession(union itc_msg* signal);
    void handleTwtsiGetPmCountersReq(union itc_msg* signal);

    int itcFd = -1;
    std::set<int> readFds;
    itc_mbox_id_t mailboxId = ITC_NO_ID;
    // One requester for all deferred replies: a later deferral redirects earlier ones.
    itc_mbox_id_t pendingRequester = ITC_NO_ID;
    TwampTestSessionFactory* factory;
    // Extension: what the session list reports.
    SessionRoster roster;
    SessionListHandler sessionList;
};

#endif  // TWAMP_ITC_DISPATCHER_H
