#include "TwampTestMessage.h"

#include <cstring>

#include "NetworkByteOrder.h"

TwampTestMessage::TwampTestMessage(uint8_t* buffer, uint64_t length)
    : buffer_(buffer), length_(length) {}

TwampTestMessage::~TwampTestMessage() = default;

uint32_t TwampTestMessage::getSequenceNumber() const {
    return readBigEndian32(buffer_ + kSequenceNumberOffset);
}

uint64_t TwampTestMessage::getTimestamp() const {
    return readBigEndian64(buffer_ + kTimestampOffset);
}

uint16_t TwampTestMessage::getErrorEstimate() const {
    return readBigEndian16(buffer_ + kErrorEstimateOffset);
}

uint64_t TwampTestMessage::getReceiveTimestamp() const {
    return readBigEndian64(buffer_ + kReceiveTimestampOffset);
}

uint32_t TwampTestMessage::getSenderSequenceNumber() const {
    return readBigEndian32(buffer_ + kSenderSequenceNumberOffset);
}

uint64_t TwampTestMessage::getSenderTimestamp() const {
    return readBigEndian64(buffer_ + kSenderTimestampOffset);
}

uint16_t TwampTestMessage::getSenderErrorEstimate() const {
    return readBigEndian16(buffer_ + kSenderErrorEstimateOffset);
}

uint8_t TwampTestMessage::getSenderTtl() const {
    return buffer_[kSenderTtlOffset];
}

uint8_t* TwampTestMessage::getBuffer() const {
    return buffer_;
}

void TwampTestMessage::toReflectorLayout() {
    // The sender's padding starts at 14; the reflector's at 41. The regions
    // overlap for packets longer than 68 bytes, hence memmove.
    if (length_ != kPaddingOffset) {
        std::memmove(buffer_ + kPaddingOffset, buffer_ + kSenderPaddingOffset,
                     length_ - kPaddingOffset);
    }
    std::memset(buffer_ + kFirstMbzOffset, 0, kMbzSize);
    std::memset(buffer_ + kSecondMbzOffset, 0, kMbzSize);
}

void TwampTestMessage::setSequenceNumber(uint32_t sequenceNumber) {
    writeBigEndian32(buffer_ + kSequenceNumberOffset, sequenceNumber);
}

void TwampTestMessage::setSenderSequenceNumber(uint32_t sequenceNumber) {
    writeBigEndian32(buffer_ + kSenderSequenceNumberOffset, sequenceNumber);
}

void TwampTestMessage::setSenderTimestamp(uint64_t timestamp) {
    writeBigEndian64(buffer_ + kSenderTimestampOffset, timestamp);
}

void TwampTestMessage::setSenderErrorEstimate(uint16_t errorEstimate) {
    writeBigEndian16(buffer_ + kSenderErrorEstimateOffset, errorEstimate);
}

void TwampTestMessage::setErrorEstimate() {
    buffer_[kErrorEstimateOffset] = kErrorEstimateHigh;
    buffer_[kErrorEstimateOffset + 1] = kErrorEstimateLow;
}

void TwampTestMessage::setSenderTtl(uint8_t ttl) {
    buffer_[kSenderTtlOffset] = ttl;
}

void TwampTestMessage::setTimestamp(uint64_t timestamp) {
    writeBigEndian64(buffer_ + kTimestampOffset, timestamp);
}

void TwampTestMessage::setReceiveTimestamp(uint64_t timestamp) {
    writeBigEndian64(buffer_ + kReceiveTimestampOffset, timestamp);
}
