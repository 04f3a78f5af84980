#include "OutstandingPacket.h"

#include <sys/uio.h>

#include "SocketHelper.h"
#include "TwampTestMessage.h"
#include "TwampTestSessionController.h"
#include "UdpSocket.h"

OutstandingPacket::OutstandingPacket(uint32_t senderSeqNo, uint64_t t1)
    : senderSeqNo(senderSeqNo), t1(t1) {}

OutstandingPacket::~OutstandingPacket() = default;

void OutstandingPacket::setTxTimestamp(const struct msghdr* msg) {
    t1Prime = getTxTimestamp(msg);
}

void OutstandingPacket::setResponse(const struct msghdr* msg, SocketHelper& socketHelper) {
    const struct iovec& payload = msg->msg_iov[0];
    const TwampTestMessage reply(static_cast<uint8_t*>(payload.iov_base), payload.iov_len);
    const int family = TwampTestSessionController::getInstance()->getUdpSocket().getFamily();
    responderSeqNo = reply.getSequenceNumber();
    t3 = reply.getTimestamp();
    t2 = reply.getReceiveTimestamp();
    t4 = getTxTimestamp(msg);
    senderTtl = reply.getSenderTtl();
    replyTtl = socketHelper.getTtl(msg, family);
    replyDscp = socketHelper.getDscp(msg, family);
    replyCount += 1;
}

uint64_t OutstandingPacket::getT2() const {
    return t2;
}

uint64_t OutstandingPacket::getT3() const {
    return t3;
}

uint64_t OutstandingPacket::getT1Prime() const {
    return t1Prime;
}

uint64_t OutstandingPacket::getT1() const {
    return t1;
}

uint64_t OutstandingPacket::getT4() const {
    return t4;
}

uint32_t OutstandingPacket::getReplyDscp() const {
    return replyDscp;
}

uint32_t OutstandingPacket::getSenderSeqNo() const {
    return senderSeqNo;
}

uint32_t OutstandingPacket::getReplyCount() const {
    return replyCount;
}

uint8_t OutstandingPacket::getSenderTtl() const {
    return senderTtl;
}

uint8_t OutstandingPacket::getReplyTtl() const {
    return replyTtl;
}

uint32_t OutstandingPacket::getResponderSeqNo() const {
    return responderSeqNo;
}

void OutstandingPacket::restore(uint64_t t1PrimeSoFar, uint32_t replyCountSoFar) {
    t1Prime = t1PrimeSoFar;
    replyCount = replyCountSoFar;
}
