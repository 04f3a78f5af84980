#include "OwampTestMessage.h"

#include "NetworkByteOrder.h"

OwampTestMessage::OwampTestMessage(uint8_t* buffer, uint64_t length)
    : buffer_(buffer), length_(length) {}

OwampTestMessage::~OwampTestMessage() = default;

void OwampTestMessage::setSequenceNumber(uint32_t sequenceNumber) {
    writeBigEndian32(buffer_ + kSequenceNumberOffset, sequenceNumber);
}

void OwampTestMessage::setTimestamp(uint64_t timestamp) {
    writeBigEndian64(buffer_ + kTimestampOffset, timestamp);
}

void OwampTestMessage::setErrorEstimate() {
    buffer_[kErrorEstimateOffset] = kErrorEstimateHigh;
    buffer_[kErrorEstimateOffset + 1] = kErrorEstimateLow;
}

uint64_t OwampTestMessage::getPadding(uint8_t** padding) const {
    *padding = buffer_ + kPaddingOffset;
    return length_ - kPaddingOffset;
}

uint8_t* OwampTestMessage::getBuffer() const {
    return buffer_;
}

uint64_t OwampTestMessage::getTimestamp() const {
    return readBigEndian64(buffer_ + kTimestampOffset);
}

uint32_t OwampTestMessage::getSequenceNumber() const {
    return readBigEndian32(buffer_ + kSequenceNumberOffset);
}

uint16_t OwampTestMessage::getErrorEstimate() const {
    return readBigEndian16(buffer_ + kErrorEstimateOffset);
}
