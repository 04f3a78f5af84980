// Connects the daemon's ITC mailbox to the event loop.
//
// init() opens the mailbox under the service name and registers its
// descriptor with the multiplexer; each readable event takes the waiting
// signals, a bounded number of them, turns each into calls on the controller
// and frees it. The dispatcher is the only sender of counters replies, also
// of a reply that a session holds until its last completed interval is
// finalised.
#ifndef TWAMP_ITC_DISPATCHER_H
#define TWAMP_ITC_DISPATCHER_H

#include <set>
#include <string>

#include "Clock.h"
#include "IoHandler.h"
#include "SystemClock.h"
#include "SessionListHandler.h"
#include "SessionRoster.h"
#include "itc.h"

class TwampTestSession;
class TwampTestSessionFactory;

class ItcDispatcher : public IoHandler {
  public:
    // Signals taken per readable event at most. A manager in the mailbox's
    // group may send without pause, and the loop serves the session timers
    // only between two handleInput calls: without a bound a steady flood
    // would hold every session's packets back. 64 is several full kernel
    // queues of the mailbox (net.unix.max_dgram_qlen + 1 datagrams, 11 by
    // default), so a manager's burst of creates or requests is still taken
    // in one wake-up; the rest waits for the next one, since the descriptor
    // stays readable while signals wait.
    static constexpr int kMaxSignalsPerWakeUp = 64;

    // factory builds the sessions of create signals; not owned. clock dates
    // the entries of the session list (an extension); not owned.
    explicit ItcDispatcher(TwampTestSessionFactory* factory,
                           Clock& clock = SystemClock::instance());
    ItcDispatcher(const ItcDispatcher&) = delete;
    ItcDispatcher& operator=(const ItcDispatcher&) = delete;
    // Leaves the multiplexer and deletes the mailbox if init opened one.
    ~ItcDispatcher() override;

    // IoHandler
    // The mailbox descriptor once init has run.
    std::set<int> getReadFds() const override;
    // Takes and handles the waiting signals, at most kMaxSignalsPerWakeUp of
    // them; always true.
    bool handleInput(int fd) override;

    // Opens the mailbox serviceName and registers with the multiplexer;
    // false (traced, errno as the failing call left it) when ITC cannot be
    // initialised, the mailbox cannot be created (its name is taken, the run
    // directory is not writable) or its descriptor cannot be watched.
    virtual bool init(const std::string& serviceName);
    // Fills a held counters reply from the session's last completed interval
    // and sends it to the requester stored last; nothing while it is not ready.
    virtual void sendPmCountersReply(TwampTestSession* session, union itc_msg* reply);

  private:
    // Creates the mailbox and takes its descriptor; false, traced, errno kept.
    bool openMailbox(const std::string& serviceName);
    // Traces a receive that gave no signal, on behalf of handleInput; an
    // empty mailbox only when it was so at the first receive of a wake-up.
    static void traceEmptyReceive(int receiveErrno, bool firstOfWakeUp);
    // Sends a reply to requester, tracing a reply that cannot be delivered.
    static void sendReply(union itc_msg* reply, itc_mbox_id_t requester);
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
