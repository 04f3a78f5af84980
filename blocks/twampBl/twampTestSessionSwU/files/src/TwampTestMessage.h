// View of the test packet that the reflector sends back (the unauthenticated
// reflector packet):
//
//   offset  size  field
//        0     4  Sequence Number            reflector's counter, u32 big-endian
//        4     8  Timestamp                  reflector transmit time T3, NTP
//       12     2  Error Estimate             big-endian
//       14     2  MBZ                        zero
//       16     8  Receive Timestamp          reflector receive time T2, NTP
//       24     4  Sender Sequence Number     copy of the sender's
//       28     8  Sender Timestamp           copy of the sender's T1
//       36     2  Sender Error Estimate      copy of the sender's
//       38     2  MBZ                        zero
//       40     1  Sender TTL                 TTL with which the sender's packet arrived
//       41   n-41 Packet Padding
//
// The view is built on the stack over a buffer that somebody else owns; it
// never owns or frees the buffer and checks no length. Every accessor works at
// its fixed offset, so the owner guarantees that the buffer holds the fields
// used: a reflected packet is read up to byte 40, so it is meaningful from 41
// bytes on. The buffer need not be aligned. Getters return host order;
// setters take host order and store big-endian.
#ifndef TWAMP_TWAMP_TEST_MESSAGE_H
#define TWAMP_TWAMP_TEST_MESSAGE_H

#include <cstdint>

class TwampTestMessage {
  public:
    static constexpr uint64_t kSequenceNumberOffset = 0;
    static constexpr uint64_t kTimestampOffset = 4;
    static constexpr uint64_t kErrorEstimateOffset = 12;
    static constexpr uint64_t kFirstMbzOffset = 14;
    static constexpr uint64_t kReceiveTimestampOffset = 16;
    static constexpr uint64_t kSenderSequenceNumberOffset = 24;
    static constexpr uint64_t kSenderTimestampOffset = 28;
    static constexpr uint64_t kSenderErrorEstimateOffset = 36;
    static constexpr uint64_t kSecondMbzOffset = 38;
    static constexpr uint64_t kSenderTtlOffset = 40;
    static constexpr uint64_t kPaddingOffset = 41;
    static constexpr uint64_t kMbzSize = 2;
    // Where the padding of a packet in the sender layout starts.
    static constexpr uint64_t kSenderPaddingOffset = 14;
    // S = 1 (synchronised to UTC), Z = 0, Scale = 32, Multiplier = 1: one second.
    static constexpr uint8_t kErrorEstimateHigh = 0xA0;
    static constexpr uint8_t kErrorEstimateLow = 0x01;

    // Views the packet of length bytes at buffer (length >= 41 assumed).
    TwampTestMessage(uint8_t* buffer, uint64_t length);

    // Leaves the buffer alone.
    virtual ~TwampTestMessage();
    // The reflector's Sequence Number (bytes 0-3).
    virtual uint32_t getSequenceNumber() const;
    // The reflector's transmit Timestamp T3 (bytes 4-11).
    virtual uint64_t getTimestamp() const;
    // The reflector's Error Estimate (bytes 12-13).
    virtual uint16_t getErrorEstimate() const;
    // The reflector's Receive Timestamp T2 (bytes 16-23).
    virtual uint64_t getReceiveTimestamp() const;
    // The echoed Sender Sequence Number (bytes 24-27).
    virtual uint32_t getSenderSequenceNumber() const;
    // The echoed Sender Timestamp T1 (bytes 28-35).
    virtual uint64_t getSenderTimestamp() const;
    // The echoed Sender Error Estimate (bytes 36-37).
    virtual uint16_t getSenderErrorEstimate() const;
    // The Sender TTL (byte 40).
    virtual uint8_t getSenderTtl() const;
    // The viewed buffer.
    virtual uint8_t* getBuffer() const;
    // Turns a packet in the sender layout into the reflector layout in place:
    // moves the padding from 14 to 41 and zeroes both MBZ fields. The length
    // stays, so the last 27 padding bytes are lost. Requires length >= 41.
    virtual void toReflectorLayout();
    // Stores the reflector's Sequence Number (bytes 0-3).
    virtual void setSequenceNumber(uint32_t sequenceNumber);
    // Stores the Sender Sequence Number (bytes 24-27).
    virtual void setSenderSequenceNumber(uint32_t sequenceNumber);
    // Stores the Sender Timestamp (bytes 28-35).
    virtual void setSenderTimestamp(uint64_t timestamp);
    // Stores the Sender Error Estimate (bytes 36-37).
    virtual void setSenderErrorEstimate(uint16_t errorEstimate);
    // Writes the fixed reflector Error Estimate 0xA001 (bytes 12-13).
    virtual void setErrorEstimate();
    // Stores the Sender TTL (byte 40).
    virtual void setSenderTtl(uint8_t ttl);
    // Stores the reflector's transmit Timestamp (bytes 4-11).
    virtual void setTimestamp(uint64_t timestamp);
    // Stores the reflector's Receive Timestamp (bytes 16-23).
    virtual void setReceiveTimestamp(uint64_t timestamp);

    TwampTestMessage(const TwampTestMessage&) = delete;
    TwampTestMessage& operator=(const TwampTestMessage&) = delete;

  private:
    uint8_t* buffer_;
    uint64_t length_;
};

#endif  // TWAMP_TWAMP_TEST_MESSAGE_H
