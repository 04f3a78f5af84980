// twamp-ctl: creates and deletes test sessions of the TWAMP test session
// daemon and reads their counters, through the daemon's ITC mailbox.
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "CounterPlot.h"
#include "CountersFormatter.h"
#include "CtlOptions.h"
#include "ItcDaemonClient.h"
#include "OptionValues.h"
#include "SessionListFormatter.h"
#include "TwampVersion.h"
#include "TwtsiSignals.h"
#include "itc.h"

namespace {

enum ExitStatus {
    kExitOk = 0,
    kExitFailure = 1,
    kExitBadArgument = 2,
    kExitNoMailbox = 3,
    kExitTimeout = 4,
};

const char* runDirectory() {
    const char* directory = std::getenv("ITC_RUNDIR");
    return directory != nullptr && directory[0] != '\0' ? directory : "/run/itc";
}

int fail(int status, const std::string& message) {
    std::fprintf(stderr, "twamp-ctl: %s\n", message.c_str());
    return status;
}

// Only the run directory's owner and group may talk to a daemon: a user
// outside them is told so, not that the daemon is missing.
std::string permissionDenied(const std::string& what) {
    return std::string("permission denied: ") + what + " in " + runDirectory() +
           " (EACCES); only members of the directory's group may talk to the daemon";
}

// The tool's own mailbox, deleted again on every way out.
class OwnMailbox {
  public:
    OwnMailbox() {
        if (itc_init(1, 0, nullptr, nullptr, 0) != 0) {
            error = std::string("itc_init failed: ") + std::strerror(errno);
            return;
        }
        const std::string name = "twamp-ctl-" + std::to_string(getpid());
        id = itc_create_mailbox(name.c_str(), 0);
        if (id == ITC_NO_ID && errno == EACCES) {
            error = permissionDenied("cannot create mailbox '" + name + "'");
        } else if (id == ITC_NO_ID) {
            error = "cannot create mailbox '" + name + "' in " + runDirectory() + ": " +
                    std::strerror(errno);
        }
    }
    ~OwnMailbox() {
        if (id != ITC_NO_ID) {
            itc_delete_mailbox(id);
        }
    }
    OwnMailbox(const OwnMailbox&) = delete;
    OwnMailbox& operator=(const OwnMailbox&) = delete;

    itc_mbox_id_t id = ITC_NO_ID;
    std::string error;
};

union itc_msg* buildCreate(const CtlOptions& options) {
    union itc_msg* msg =
        itc_alloc(sizeof(twtsiCreateTwampTestSession), TWTSI_CREATE_TWAMP_TEST_SESSION);
    if (msg == nullptr) {
        return nullptr;
    }
    twtsiCreateTwampTestSession& create = msg->twtsiCreateTwampTestSession;
    std::snprintf(create.dstIpAddress, sizeof(create.dstIpAddress), "%s",
                  options.dstIpAddress.c_str());
    create.dstUdpPort = options.dstUdpPort;
    std::memcpy(create.sessionId, options.sessionId, sizeof(create.sessionId));
    create.packetsPerSecond = options.packetsPerSecond;
    create.dscp = options.dscp;
    create.spare1 = options.spare1;
    create.spare2 = options.spare2;
    create.packetSize = options.packetSize;
    create.startOffset = options.startOffset;
    create.spreadingBase = options.spreadingBase;
    return msg;
}

union itc_msg* buildDelete(const CtlOptions& options) {
    union itc_msg* msg =
        itc_alloc(sizeof(twtsiDeleteTwampTestSession), TWTSI_DELETE_TWAMP_TEST_SESSION);
    if (msg != nullptr) {
        std::memcpy(msg->twtsiDeleteTwampTestSession.sessionId, options.sessionId,
                    sizeof(options.sessionId));
    }
    return msg;
}

union itc_msg* buildCountersRequest(const CtlOptions& options) {
    union itc_msg* msg = itc_alloc(sizeof(twtsiGetTwampTestSessionPmCountersReq),
                                   TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_REQ);
    if (msg != nullptr) {
        twtsiGetTwampTestSessionPmCountersReq& request = msg->twtsiGetTwampTestSessionPmCountersReq;
        std::memcpy(request.sessionId, options.sessionId, sizeof(request.sessionId));
        request.completedIntervalOnly = options.completedIntervalOnly ? 1 : 0;
    }
    return msg;
}

int printCounters(const CtlOptions& options, const twtsiGetTwampTestSessionPmCountersRsp& reply) {
    const time_t start = reportedIntervalStart(std::time(nullptr), options.completedIntervalOnly);
    std::string text;
    switch (options.output) {
        case CtlOutput::Json:
            text = formatCountersJson(reply.counters, sessionIdHex(options.sessionId),
                                      options.completedIntervalOnly);
            break;
        case CtlOutput::Csv:
            text = formatCountersCsv(reply.counters, start);
            break;
        case CtlOutput::Table:
            text = "session " + sessionIdHex(options.sessionId) +
                   (options.completedIntervalOnly ? ", last completed interval\n"
                                                  : ", interval in progress\n") +
                   formatCountersTable(reply.counters, start);
            break;
    }
    std::fputs(text.c_str(), stdout);
    return kExitOk;
}

int awaitCounters(const CtlOptions& options, itc_mbox_id_t daemon) {
    static const uint32_t kReplyFilter[] = {1, TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_RSP};
    const auto timeoutMs = static_cast<int32_t>(std::ceil(options.timeoutSeconds * 1000.0));
    union itc_msg* reply = itc_receive(kReplyFilter, timeoutMs, daemon);
    if (reply == nullptr) {
        return fail(kExitTimeout, "no counters reply from '" + options.service + "' within " +
                                      std::to_string(options.timeoutSeconds) + " s" +
                                      (options.completedIntervalOnly && !options.wait
                                           ? " (the completed interval may be held; try --wait)"
                                           : ""));
    }
    int status = kExitOk;
    const twtsiGetTwampTestSessionPmCountersRsp& counters =
        reply->twtsiGetTwampTestSessionPmCountersRsp;
    if (itc_size(reply) != TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_RSP_SIZE) {
        status = fail(kExitFailure,
                      "malformed counters reply of " + std::to_string(itc_size(reply)) + " bytes");
    } else if (std::memcmp(counters.sessionId, options.sessionId, sizeof(options.sessionId)) != 0) {
        status = fail(kExitFailure, "counters reply for another session");
    } else {
        status = printCounters(options, counters);
    }
    itc_free(&reply);
    return status;
}

int32_t timeoutMs(const CtlOptions& options) {
    return static_cast<int32_t>(std::ceil(options.timeoutSeconds * 1000.0));
}

// Opens the tool's mailbox for a client; the status of the failure otherwise.
int openClient(ItcDaemonClient& client) {
    std::string error;
    if (!client.open(error)) {
        return fail(kExitFailure, error);
    }
    return kExitOk;
}

// A client failure: no mailbox of that name, or no reply in time.
int clientFailure(const std::string& error) {
    if (error.rfind("no mailbox named", 0) == 0) {
        return fail(kExitNoMailbox, error);
    }
    if (error.rfind("no ", 0) == 0) {
        return fail(kExitTimeout, error);
    }
    return fail(kExitFailure, error);
}

int runList(const CtlOptions& options) {
    ItcDaemonClient client(options.service, timeoutMs(options), "twamp-ctl");
    const int opened = openClient(client);
    if (opened != kExitOk) {
        return opened;
    }
    std::vector<SessionListing> sessions;
    std::string error;
    if (!client.listSessions(sessions, error)) {
        return clientFailure(error);
    }
    const std::string text = options.output == CtlOutput::Json ? formatSessionJson(sessions)
                                                               : formatSessionTable(sessions);
    std::fputs(text.c_str(), stdout);
    return kExitOk;
}

int drawPlot(const CtlOptions& options, const CounterGrid& counters,
             const std::vector<std::string>& labels, const std::string& what) {
    const std::string title =
        (options.sessionIdGiven ? "session " + sessionIdHex(options.sessionId) + ", " : "") + what;
    std::string error;
    if (!renderPlot(counters, labels, title, options.plotOut, error)) {
        return fail(kExitFailure, error);
    }
    std::printf("%s\n", options.plotOut.c_str());
    return kExitOk;
}

int plotFromCsv(const CtlOptions& options) {
    std::ifstream file(options.fromCsv);
    if (!file) {
        return fail(kExitBadArgument,
                    "--from-csv: cannot read " + options.fromCsv + ": " + std::strerror(errno));
    }
    std::stringstream text;
    text << file.rdbuf();
    CounterGrid counters;
    std::vector<std::string> labels;
    std::string error;
    if (!parseCountersCsv(text.str(), counters, labels, error)) {
        return fail(kExitBadArgument, "--from-csv: " + options.fromCsv + ": " + error);
    }
    return drawPlot(options, counters, labels,
                    "minutes " + labels.front() + " to " + labels.back());
}

int runPlot(const CtlOptions& options) {
    if (!options.fromCsv.empty()) {
        return plotFromCsv(options);
    }
    ItcDaemonClient client(options.service, timeoutMs(options), "twamp-ctl");
    const int opened = openClient(client);
    if (opened != kExitOk) {
        return opened;
    }
    CounterGrid counters;
    std::string error;
    if (!client.fetchCounters(options.sessionId, options.completedIntervalOnly, counters, error)) {
        return clientFailure(error);
    }
    const std::vector<std::string> labels =
        minuteLabelsFrom(reportedIntervalStart(std::time(nullptr), options.completedIntervalOnly));
    return drawPlot(options, counters, labels,
                    std::string(options.completedIntervalOnly ? "last completed interval"
                                                              : "interval in progress") +
                        " from " + labels.front() + " UTC");
}

int run(const CtlOptions& options) {
    if (options.command == CtlCommand::List) {
        return runList(options);
    }
    if (options.command == CtlCommand::Plot) {
        return runPlot(options);
    }
    OwnMailbox own;
    if (!own.error.empty()) {
        return fail(kExitFailure, own.error);
    }
    const itc_mbox_id_t daemon = itc_locate(options.service.c_str());
    if (daemon == ITC_NO_ID && errno == EACCES) {
        return fail(kExitFailure, permissionDenied("cannot look up '" + options.service + "'"));
    }
    if (daemon == ITC_NO_ID) {
        return fail(kExitNoMailbox, "no mailbox named '" + options.service + "' in " +
                                        runDirectory() + " (is the daemon running?)");
    }
    union itc_msg* msg = nullptr;
    switch (options.command) {
        case CtlCommand::Create:
            msg = buildCreate(options);
            break;
        case CtlCommand::Delete:
            msg = buildDelete(options);
            break;
        case CtlCommand::Counters:
            msg = buildCountersRequest(options);
            break;
        case CtlCommand::List:
        case CtlCommand::Plot:
        case CtlCommand::Help:
            return kExitOk;
    }
    if (msg == nullptr) {
        return fail(kExitFailure, std::string("itc_alloc failed: ") + std::strerror(errno));
    }
    if (itc_send(&msg, daemon, own.id) != 0) {
        if (errno == EACCES) {
            return fail(kExitFailure, permissionDenied("cannot send to '" + options.service + "'"));
        }
        return fail(kExitFailure,
                    "cannot send to '" + options.service + "': " + std::strerror(errno));
    }
    if (options.command == CtlCommand::Counters) {
        return awaitCounters(options, daemon);
    }
    return kExitOk;
}

}  // namespace

int main(int argc, char* argv[]) {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    const std::string defaultService = defaultServiceName();
    CtlOptions options;
    std::string error;
    if (!parseCtlOptions(arguments, defaultService, options, error)) {
        std::fprintf(stderr, "twamp-ctl: %s\n%s", error.c_str(), ctlUsage().c_str());
        return kExitBadArgument;
    }
    if (options.version) {
        std::printf("twamp-ctl %s\n", TWAMP_VERSION);
        return kExitOk;
    }
    if (options.command == CtlCommand::Help) {
        std::fputs(ctlUsage().c_str(), stdout);
        return kExitOk;
    }
    return run(options);
}
