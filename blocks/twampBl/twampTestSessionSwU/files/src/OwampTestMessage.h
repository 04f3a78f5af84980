// View of the test packet that the Session-Sender transmits (the
// unauthenticated sender packet):
//
//   offset  size  field
//        0     4  Sequence Number            u32, big-endian
//        4     8  Timestamp                  NTP, big-endian, seconds word first
//       12     2  Error Estimate             big-endian, always 0x0586
//       14   n-14 Packet Padding
//
// The view is built on the stack over a buffer that somebody else owns; it
// never owns or frees the buffer and checks no length. Every accessor works at
// its fixed offset, so the owner guarantees that the buffer holds the fields
// used: the sender layout needs at least 14 bytes. The buffer need not be
// aligned. Getters return host order; setters take host order and store
// big-endian.
#ifndef TWAMP_OWAMP_TEST_MESSAGE_H
#define TWAMP_OWAMP_TEST_MESSAGE_H

#include <cstdint>

class OwampTestMessage {
  public:
    static constexpr uint64_t kSequenceNumberOffset = 0;
    static constexpr uint64_t kTimestampOffset = 4;
    static constexpr uint64_t kErrorEstimateOffset = 12;
    static constexpr uint64_t kPaddingOffset = 14;
    // S = 0 (not synchronised to UTC), Z = 0, Scale = 5, Multiplier = 134:
    // 134 * 2^5 * 2^-32 s, about 1 microsecond. Written, never computed.
    static constexpr uint8_t kErrorEstimateHigh = 0x05;
    static constexpr uint8_t kErrorEstimateLow = 0x86;

    // Views the packet of length bytes at buffer (length >= 14 assumed).
    OwampTestMessage(uint8_t* buffer, uint64_t length);

    // Leaves the buffer alone.
    virtual ~OwampTestMessage();
    // Stores the Sequence Number (bytes 0-3).
    virtual void setSequenceNumber(uint32_t sequenceNumber);
    // Stores the NTP Timestamp (bytes 4-11).
    virtual void setTimestamp(uint64_t timestamp);
    // Writes the fixed Error Estimate 0x0586 (bytes 12-13).
    virtual void setErrorEstimate();
    // Stores buffer + 14 in *padding and returns the padding length, length - 14.
    virtual uint64_t getPadding(uint8_t** padding) const;
    // The viewed buffer.
    virtual uint8_t* getBuffer() const;
    // The NTP Timestamp (bytes 4-11).
    virtual uint64_t getTimestamp() const;
    // The Sequence Number (bytes 0-3).
    virtual uint32_t getSequenceNumber() const;
    // The Error Estimate (bytes 12-13).
    virtual uint16_t getErrorEstimate() const;

    OwampTestMessage(const OwampTestMessage&) = delete;
    OwampTestMessage& operator=(const OwampTestMessage&) = delete;

  private:
    uint8_t* buffer_;
    uint64_t length_;
};

#endif  // TWAMP_OWAMP_TEST_MESSAGE_H
