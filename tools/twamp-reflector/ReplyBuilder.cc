#include "ReplyBuilder.h"

#include "OwampTestMessage.h"
#include "TwampTestMessage.h"

SenderFields ReplyBuilder::readSender(uint8_t* buffer, std::size_t length) {
    const OwampTestMessage request(buffer, length);
    SenderFields fields;
    fields.sequenceNumber = request.getSequenceNumber();
    fields.timestamp = request.getTimestamp();
    fields.errorEstimate = request.getErrorEstimate();
    return fields;
}

void ReplyBuilder::build(uint8_t* buffer, std::size_t length, const ReplyStamp& stamp) {
    // The sender fields live where the reflector's own go: read them first.
    const SenderFields sender = readSender(buffer, length);
    TwampTestMessage reply(buffer, length);
    reply.toReflectorLayout();
    reply.setSequenceNumber(stamp.reflectorSequence);
    reply.setTimestamp(stamp.transmitTimestamp);
    reply.setErrorEstimate();
    reply.setReceiveTimestamp(stamp.receiveTimestamp);
    reply.setSenderSequenceNumber(sender.sequenceNumber);
    // Modulo 2^64, as the timestamp's own arithmetic.
    reply.setSenderTimestamp(sender.timestamp + static_cast<uint64_t>(stamp.senderTimestampOffset));
    reply.setSenderErrorEstimate(sender.errorEstimate);
    reply.setSenderTtl(stamp.senderTtl);
}
