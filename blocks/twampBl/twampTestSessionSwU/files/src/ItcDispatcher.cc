#include "ItcDispatcher.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>

#include "IoMultiplexer.h"
#include "PmPeriodRecord.h"
#include "SessionKey.h"
#include "TraceFacade.h"
#include "TwampTestSession.h"
#include "TwampTestSessionController.h"
#include "TwampTestSessionFactory.h"
#include "TwtsiSignals.h"
#include "tn_log_internal.h"

namespace {

// Refusals found in a helper are traced on behalf of the signal's handler.
constexpr const char* kCreateHandler = "handleTwtsiCreateTwampTestSession";
// Receives are traced on behalf of the loop's entry into the dispatcher, the
// opening of the mailbox on behalf of start-up's call.
constexpr const char* kHandleInput = "handleInput";
constexpr const char* kInit = "init";

// Operator-log records of a refused create: severity error, application log.
constexpr SaLogSeverityT kRefusalLogSeverity = SA_LOG_SEV_ERROR;
constexpr const char* kOperatorLogUser = "TWAMP";
// Room for the longest reason: two 10-digit numbers and the text around them.
constexpr std::size_t kReasonSize = 128;

static_assert(sizeof(PmPeriodRecord) == sizeof(twtsiGetTwampTestSessionPmCountersRsp{}.counters),
              "a reply carries one period record");
static_assert(PmPeriodRecord::kCounterCount == TWTSI_PM_COUNTER_ROWS, "counter rows");
static_assert(PmPeriodRecord::kBinCount == TWTSI_PM_COUNTER_BINS, "minute bins");

// Frees a received signal when it goes out of scope.
struct ItcSignalDeleter {
    void operator()(union itc_msg* signal) const { itc_free(&signal); }
};
using ReceivedSignal = std::unique_ptr<union itc_msg, ItcSignalDeleter>;

SessionKey toSessionKey(const uint8_t (&sessionId)[TWTSI_SESSION_ID_SIZE]) {
    static_assert(sizeof(SessionKey::bytes) == TWTSI_SESSION_ID_SIZE, "16-byte keys");
    SessionKey key;
    std::memcpy(key.bytes, sessionId, sizeof(key.bytes));
    return key;
}

void fillCounters(twtsiGetTwampTestSessionPmCountersRsp& reply, int64_t value) {
    for (auto& row : reply.counters) {
        for (int64_t& entry : row) {
            entry = value;
        }
    }
}

void copyCounters(twtsiGetTwampTestSessionPmCountersRsp& reply, const PmPeriodRecord& record) {
    std::memcpy(reply.counters, record.values, sizeof(reply.counters));
}

// The bin still being filled is never reported; bin 0 is left as it is.
void maskBin(twtsiGetTwampTestSessionPmCountersRsp& reply, int bin) {
    if (bin <= 0 || bin >= TWTSI_PM_COUNTER_BINS) {
        return;
    }
    for (auto& row : reply.counters) {
        row[bin] = TWTSI_PM_NOT_AVAILABLE;
    }
}

// The 16 key bytes as 32 lower-case hex digits, as managers write them.
std::string toHex(const uint8_t (&sessionId)[TWTSI_SESSION_ID_SIZE]) {
    static const char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const uint8_t byte : sessionId) {
        text.push_back(kDigits[byte >> 4]);
        text.push_back(kDigits[byte & 0x0F]);
    }
    return text;
}

std::string formatReason(const char* format, ...) __attribute__((format(printf, 1, 2)));

std::string formatReason(const char* format, ...) {
    char reason[kReasonSize];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(reason, sizeof(reason), format, arguments);
    va_end(arguments);
    return reason;
}

uint32_t maxStartOffsetFor(uint32_t spreadingBase) {
    return spreadingBase == TWTSI_DENSE_SPREADING_BASE ? TWTSI_MAX_START_OFFSET_DENSE
                                                       : TWTSI_MAX_START_OFFSET;
}

// The first field of a create signal outside what a session can keep, as
// "field value, allowed range"; empty when every field is inside. The start
// slot must fall inside the first second of the minute, or arming the timer
// fails; faster rates than one timer can keep would only count as overruns.
std::string findLimitViolation(const twtsiCreateTwampTestSession& create) {
    if (create.packetSize < TWTSI_MIN_PACKET_SIZE || create.packetSize > TWTSI_MAX_PACKET_SIZE) {
        return formatReason("packetSize %d, allowed %d to %d", create.packetSize,
                            TWTSI_MIN_PACKET_SIZE, TWTSI_MAX_PACKET_SIZE);
    }
    if (create.packetsPerSecond > TWTSI_MAX_PACKETS_PER_SECOND) {
        return formatReason("packetsPerSecond %u, allowed 0 to %u", create.packetsPerSecond,
                            TWTSI_MAX_PACKETS_PER_SECOND);
    }
    const uint32_t maxStartOffset = maxStartOffsetFor(create.spreadingBase);
    if (create.startOffset > maxStartOffset) {
        return formatReason("startOffset %u, allowed 0 to %u with spreadingBase %u",
                            create.startOffset, maxStartOffset, create.spreadingBase);
    }
    if (create.dscp > TWTSI_MAX_DSCP) {
        return formatReason("dscp %u, allowed 0 to %u", create.dscp, TWTSI_MAX_DSCP);
    }
    return std::string();
}

// A create signal with its address and port as text.
struct CreateRequest {
    const twtsiCreateTwampTestSession& create;
    const char* dstIpAddress;
    const char* dstUdpPort;
};

// Every refused create leaves this one record for the operator.
void logRefusedCreate(const CreateRequest& request, const std::string& reason) {
    tn_log_internal_log(
        kRefusalLogSeverity, kTnApplicationLogMask, kOperatorLogUser,
        tn_log_format("TwampTestSession: create of sessionId %s for dstIpAddress %s, "
                      "dstUdpPort %s refused: %s",
                      toHex(request.create.sessionId).c_str(), request.dstIpAddress,
                      request.dstUdpPort, reason.c_str()));
}

bool isCreateAllowed(const CreateRequest& request) {
    const std::string violation = findLimitViolation(request.create);
    if (!violation.empty()) {
        TRACE_ERROR_AS(kCreateHandler, "Invalid %s", violation.c_str());
        logRefusedCreate(request, violation);
        return false;
    }
    // The first session of a key stays; a second one would run unreachable.
    const SessionKey key = toSessionKey(request.create.sessionId);
    if (TwampTestSessionController::getInstance()->getTwampTestSession(key) != nullptr) {
        TRACE_ERROR_AS(kCreateHandler, "Session %s already exists",
                       toHex(request.create.sessionId).c_str());
        logRefusedCreate(request, "sessionId already in use");
        return false;
    }
    return true;
}

}  // namespace

ItcDispatcher::ItcDispatcher(TwampTestSessionFactory* factory, Clock& clock)
    : factory(factory), roster(clock), sessionList(roster, clock) {}

ItcDispatcher::~ItcDispatcher() {
    if (itcFd != -1) {
        TwampTestSessionController::getInstance()->getIoMultiplexer().removeReadHandler(this);
        itc_delete_mailbox(mailboxId);
    }
}

std::set<int> ItcDispatcher::getReadFds() const {
    return readFds;
}

bool ItcDispatcher::init(const std::string& serviceName) {
    if (itc_init(1, 0, nullptr, nullptr, 0) != 0) {
        const int error = errno;
        TRACE_ERROR("Failed to initialize ITC");
        errno = error;
        return false;
    }
    if (!openMailbox(serviceName)) {
        return false;
    }
    readFds.insert(itcFd);
    return TwampTestSessionController::getInstance()->getIoMultiplexer().registerReadHandler(this);
}

// A daemon without its mailbox would run deaf, looking alive: a name that a
// live daemon holds (EEXIST) or a run directory it may not write (EACCES)
// ends init here, and start-up treats it as fatal.
bool ItcDispatcher::openMailbox(const std::string& serviceName) {
    const itc_mbox_id_t id = itc_create_mailbox(serviceName.c_str(), 0);
    if (id == ITC_NO_ID) {
        const int error = errno;
        TRACE_ERROR_AS(kInit, "Failed itc_create_mailbox %s: errno %d - %s", serviceName.c_str(),
                       error, strerror(error));
        errno = error;
        return false;
    }
    const int fd = itc_get_fd();
    if (fd < 0) {
        const int error = errno;
        TRACE_ERROR_AS(kInit, "Failed itc_get_fd: errno %d - %s", error, strerror(error));
        itc_delete_mailbox(id);
        errno = error;
        return false;
    }
    mailboxId = id;
    itcFd = fd;
    return true;
}

bool ItcDispatcher::handleInput(int /*fd*/) {
    for (int taken = 0; taken < kMaxSignalsPerWakeUp; ++taken) {
        ReceivedSignal signal(itc_receive(ITC_NOFILTER, 0, ITC_FROM_ALL));
        const int receiveErrno = errno;
        if (!signal) {
            traceEmptyReceive(receiveErrno, taken == 0);
            return true;
        }
        dispatch(signal.get());
    }
    // Signals left over keep the descriptor readable: the loop comes back.
    return true;
}

void ItcDispatcher::traceEmptyReceive(int receiveErrno, bool firstOfWakeUp) {
    if (receiveErrno == ETIMEDOUT) {
        // An empty receive with ETIMEDOUT is how the mailbox reports a clock jump.
        TRACE_INFO_AS(kHandleInput, "ITC time travel detected");
    } else if (receiveErrno == EAGAIN) {
        // The normal end of a wake-up that took signals. As its first
        // receive, the descriptor was readable for a datagram that was no
        // ITC signal, which the receive has just discarded: the mailbox is
        // drained and nothing is wrong with the daemon.
        if (firstOfWakeUp) {
            TRACE_LAB_AS(kHandleInput, "No valid ITC message to receive, errno: %d(%s)",
                         receiveErrno, strerror(receiveErrno));
        }
    } else {
        TRACE_EXCEPTION_AS(kHandleInput, "Got NULL ITC message, errno: %d(%s)", receiveErrno,
                           strerror(receiveErrno));
    }
}

void ItcDispatcher::sendPmCountersReply(TwampTestSession* session, union itc_msg* reply) {
    const PmPeriodRecord* record = session->getPmCounters(true);
    if (record == nullptr) {
        // Still not finalised: the reply is dropped, and the session forgets it.
        return;
    }
    copyCounters(reply->twtsiGetTwampTestSessionPmCountersRsp, *record);
    sendReply(reply, pendingRequester);
}

// The signal is freed whatever the outcome. A manager that has gone
// (ENOENT, ECONNREFUSED) or does not read its mailbox (EAGAIN) loses the
// reply; the trace tells whoever looks for it, and the daemon goes on.
void ItcDispatcher::sendReply(union itc_msg* reply, itc_mbox_id_t requester) {
    const uint32_t sigNo = reply->sigNo;
    if (itc_send(&reply, requester, itc_current_mbox()) != 0) {
        const int error = errno;
        TRACE_INFO("Failed itc_send of signal 0x%x to mailbox 0x%x: errno %d - %s", sigNo,
                   static_cast<unsigned>(requester), error, strerror(error));
    }
}

void ItcDispatcher::dispatch(union itc_msg* signal) {
    switch (signal->sigNo) {
        case TWTSI_DELETE_TWAMP_TEST_SESSION:
            handleTwtsiDeleteTwampTestSession(signal);
            break;
        case TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_REQ:
            handleTwtsiGetPmCountersReq(signal);
            break;
        case TWTSI_CREATE_TWAMP_TEST_SESSION:
            handleTwtsiCreateTwampTestSession(signal);
            break;
        case TWTSI_LIST_TWAMP_TEST_SESSIONS_REQ:
            sessionList.handleListRequest(signal);
            break;
        default:
            // Not ours: freed by the caller without a trace.
            break;
    }
}

void ItcDispatcher::handleTwtsiCreateTwampTestSession(union itc_msg* signal) {
    TRACE_LAB("Received twtsiCreateTwampTestSession ");
    const twtsiCreateTwampTestSession& create = signal->twtsiCreateTwampTestSession;
    // The manager may have left out the terminator: read at most the field.
    char dstIpAddress[TWTSI_DST_IP_ADDRESS_SIZE + 1];
    std::memcpy(dstIpAddress, create.dstIpAddress, TWTSI_DST_IP_ADDRESS_SIZE);
    dstIpAddress[TWTSI_DST_IP_ADDRESS_SIZE] = '\0';
    const std::string dstUdpPort = std::to_string(create.dstUdpPort);
    const CreateRequest request{create, dstIpAddress, dstUdpPort.c_str()};
    const SessionKey key = toSessionKey(create.sessionId);
    if (!isCreateAllowed(request)) {
        // A refused second create of a running key leaves that session listed.
        if (TwampTestSessionController::getInstance()->getTwampTestSession(key) == nullptr) {
            roster.recordRefused(key, create, dstIpAddress);
        }
        return;
    }

    std::unique_ptr<TwampTestSession> session(factory->createTwampTestSession(
        dstIpAddress, dstUdpPort.c_str(), create.packetsPerSecond, create.spare1, create.spare2,
        create.packetSize, create.dscp, create.startOffset, create.spreadingBase));
    // A session whose address could not be resolved is registered all the
    // same; one without a descriptor could never send and is refused: its
    // destruction leaves the loop and closes what it opened.
    if (!session->init()) {
        const std::string descriptorFailure = session->getDescriptorFailure();
        if (!descriptorFailure.empty()) {
            TRACE_ERROR("Session %s for dstIpAddress %s, dstUdpPort %s refused: %s",
                        toHex(create.sessionId).c_str(), dstIpAddress, dstUdpPort.c_str(),
                        descriptorFailure.c_str());
            logRefusedCreate(request, descriptorFailure);
            roster.recordRefused(key, create, dstIpAddress);
            return;
        }
    }
    roster.recordCreated(key, create, dstIpAddress);
    TwampTestSessionController::getInstance()->addTwampTestSession(key, session.release());
}

void ItcDispatcher::handleTwtsiDeleteTwampTestSession(union itc_msg* signal) {
    TRACE_LAB("Received twtsiDeleteTwampTestSession ");
    const SessionKey key = toSessionKey(signal->twtsiDeleteTwampTestSession.sessionId);
    TwampTestSessionController::getInstance()->deleteTwampTestSession(key);
    roster.remove(key);
}

void ItcDispatcher::handleTwtsiGetPmCountersReq(union itc_msg* signal) {
    TRACE_LAB("Received twtsiGetTwampTestSessionPmCountersReq ");
    const twtsiGetTwampTestSessionPmCountersReq& request =
        signal->twtsiGetTwampTestSessionPmCountersReq;
    union itc_msg* reply = itc_alloc(sizeof(twtsiGetTwampTestSessionPmCountersRsp),
                                     TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_RSP);
    if (reply == nullptr) {
        const int error = errno;
        TRACE_ERROR("Failed itc_alloc: errno %d - %s", error, strerror(error));
        return;
    }
    twtsiGetTwampTestSessionPmCountersRsp& counters = reply->twtsiGetTwampTestSessionPmCountersRsp;
    std::memcpy(counters.sessionId, request.sessionId, sizeof(counters.sessionId));

    TwampTestSession* session = TwampTestSessionController::getInstance()->getTwampTestSession(
        toSessionKey(request.sessionId));
    if (session == nullptr) {
        fillCounters(counters, TWTSI_PM_NOT_AVAILABLE);
    } else {
        const bool completedIntervalOnly = request.completedIntervalOnly != 0;
        const PmPeriodRecord* record = session->getPmCounters(completedIntervalOnly);
        if (record == nullptr) {
            // Answered by sendPmCountersReply once the interval is finalised.
            pendingRequester = itc_sender(signal);
            session->setPendingPmReply(reply);
            return;
        }
        copyCounters(counters, *record);
        if (!completedIntervalOnly) {
            maskBin(counters, session->getActivePeriod());
        }
    }
    sendReply(reply, itc_sender(signal));
}
