#include "ItcDispatcher.h"

#include <cerrno>
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

namespace {

// The smallest test packet that still holds a whole reflected packet, and
// the largest UDP payload of an IPv4 datagram.
constexpr int32_t kMinPacketSize = 41;
constexpr int32_t kMaxPacketSize = 65507;

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

bool isPacketSizeAllowed(int32_t packetSize) {
    return packetSize >= kMinPacketSize && packetSize <= kMaxPacketSize;
}

}  // namespace

ItcDispatcher::ItcDispatcher(TwampTestSessionFactory* factory) : factory(factory) {}

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
        TRACE_ERROR("Failed to initialize ITC");
        return false;
    }
    mailboxId = itc_create_mailbox(serviceName.c_str(), 0);
    itcFd = itc_get_fd();
    readFds.insert(itcFd);
    TwampTestSessionController::getInstance()->getIoMultiplexer().registerReadHandler(this);
    return true;
}

bool ItcDispatcher::handleInput(int /*fd*/) {
    ReceivedSignal signal(itc_receive(ITC_NOFILTER, 0, ITC_FROM_ALL));
    const int receiveErrno = errno;
    if (!signal) {
        // An empty receive with ETIMEDOUT is how the mailbox reports a clock jump.
        if (receiveErrno == ETIMEDOUT) {
            TRACE_INFO("ITC time travel detected");
        } else {
            TRACE_EXCEPTION("Got NULL ITC message, errno: %d(%s)", receiveErrno,
                            strerror(receiveErrno));
        }
        return true;
    }
    dispatch(signal.get());
    return true;
}

void ItcDispatcher::sendPmCountersReply(TwampTestSession* session, union itc_msg* reply) {
    const PmPeriodRecord* record = session->getPmCounters(true);
    if (record == nullptr) {
        // Still not finalised: the reply is dropped, and the session forgets it.
        return;
    }
    copyCounters(reply->twtsiGetTwampTestSessionPmCountersRsp, *record);
    itc_send(&reply, pendingRequester, itc_current_mbox());
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
        default:
            // Not ours: freed by the caller without a trace.
            break;
    }
}

void ItcDispatcher::handleTwtsiCreateTwampTestSession(union itc_msg* signal) {
    TRACE_LAB("Received twtsiCreateTwampTestSession ");
    const twtsiCreateTwampTestSession& create = signal->twtsiCreateTwampTestSession;
    if (!isPacketSizeAllowed(create.packetSize)) {
        TRACE_ERROR("Invalid packetSize %d, allowed %d to %d", create.packetSize, kMinPacketSize,
                    kMaxPacketSize);
        return;
    }
    // The manager may have left out the terminator: read at most the field.
    char dstIpAddress[TWTSI_DST_IP_ADDRESS_SIZE + 1];
    std::memcpy(dstIpAddress, create.dstIpAddress, TWTSI_DST_IP_ADDRESS_SIZE);
    dstIpAddress[TWTSI_DST_IP_ADDRESS_SIZE] = '\0';
    const std::string dstUdpPort = std::to_string(create.dstUdpPort);

    TwampTestSession* session = factory->createTwampTestSession(
        dstIpAddress, dstUdpPort.c_str(), create.packetsPerSecond, create.spare1, create.spare2,
        create.packetSize, create.dscp, create.startOffset, create.spreadingBase);
    // A session whose address could not be resolved is registered all the same.
    session->init();
    TwampTestSessionController::getInstance()->addTwampTestSession(toSessionKey(create.sessionId),
                                                                   session);
}

void ItcDispatcher::handleTwtsiDeleteTwampTestSession(union itc_msg* signal) {
    TRACE_LAB("Received twtsiDeleteTwampTestSession ");
    TwampTestSessionController::getInstance()->deleteTwampTestSession(
        toSessionKey(signal->twtsiDeleteTwampTestSession.sessionId));
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
    itc_send(&reply, itc_sender(signal), itc_current_mbox());
}
