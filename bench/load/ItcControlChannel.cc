#include "ItcControlChannel.h"

#include <cerrno>
#include <cstring>

ItcControlChannel::~ItcControlChannel() {
    if (own != ITC_NO_ID) {
        itc_delete_mailbox(own);
    }
}

bool ItcControlChannel::open(const std::string& ownName, const std::string& service,
                             std::string& error) {
    if (itc_init(1, 0, nullptr, nullptr, 0) != 0) {
        error = std::string("itc_init: ") + std::strerror(errno);
        return false;
    }
    own = itc_create_mailbox(ownName.c_str(), 0);
    if (own == ITC_NO_ID) {
        error = "itc_create_mailbox " + ownName + ": " + std::strerror(errno);
        return false;
    }
    daemon = itc_locate(service.c_str());
    if (daemon == ITC_NO_ID) {
        error = "itc_locate " + service + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

int ItcControlChannel::send(const void* signal, std::size_t size) {
    uint32_t number = 0;
    std::memcpy(&number, signal, sizeof(number));
    union itc_msg* message = itc_alloc(size, number);
    if (message == nullptr) {
        return errno;
    }
    std::memcpy(message, signal, size);
    return itc_send(&message, daemon, own) == 0 ? 0 : errno;
}

bool ItcControlChannel::receiveCounters(int32_t timeoutMs,
                                        twtsiGetTwampTestSessionPmCountersRsp& reply) {
    static const uint32_t kReplyFilter[] = {1, TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_RSP};
    union itc_msg* message = itc_receive(kReplyFilter, timeoutMs, daemon);
    if (message == nullptr) {
        return false;
    }
    const bool wellFormed = itc_size(message) == sizeof(reply);
    if (wellFormed) {
        std::memcpy(&reply, message, sizeof(reply));
    } else {
        ++malformed;
    }
    itc_free(&message);
    return wellFormed;
}
