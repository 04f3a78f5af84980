// The daemon asked through its ITC mailbox: the client opens a mailbox of its
// own (named after the tool and its process id) and deletes it again when it
// is destroyed. Mailboxes belong to a thread, so a client must be used by the
// thread that created it.
#ifndef TWAMP_CTL_ITC_DAEMON_CLIENT_H
#define TWAMP_CTL_ITC_DAEMON_CLIENT_H

#include <string>
#include <vector>

#include "DaemonClient.h"
#include "itc.h"

class ItcDaemonClient : public DaemonClient {
  public:
    // service names the daemon's mailbox; timeoutMs bounds each reply;
    // toolName prefixes the own mailbox's name.
    ItcDaemonClient(const std::string& service, int32_t timeoutMs, const std::string& toolName);
    ItcDaemonClient(const ItcDaemonClient&) = delete;
    ItcDaemonClient& operator=(const ItcDaemonClient&) = delete;
    // Deletes the own mailbox.
    ~ItcDaemonClient() override;

    // False with a message when the own mailbox could not be opened.
    bool open(std::string& error);

    // DaemonClient
    bool listSessions(std::vector<SessionListing>& sessions, std::string& error) override;
    bool fetchCounters(const uint8_t (&sessionId)[16], bool completedIntervalOnly,
                       CounterGrid& counters, std::string& error) override;

  private:
    // The daemon's mailbox: located by every session list, then reused by
    // the counters requests that follow (a scrape of 2000 sessions would
    // otherwise look the name up 2000 times).
    bool locateDaemon(itc_mbox_id_t& daemon, std::string& error);
    bool cachedDaemon(itc_mbox_id_t& daemon, std::string& error);
    void discardStaleReplies();
    bool send(union itc_msg* msg, itc_mbox_id_t daemon, std::string& error);
    bool fetchPage(itc_mbox_id_t daemon, uint32_t startIndex, std::vector<SessionListing>& sessions,
                   bool& more, std::string& error);

    std::string service;
    int32_t timeoutMs;
    std::string toolName;
    itc_mbox_id_t own = ITC_NO_ID;
    itc_mbox_id_t daemonId = ITC_NO_ID;
};

#endif  // TWAMP_CTL_ITC_DAEMON_CLIENT_H
