// The side of a test session through which the UDP socket hands it what
// arrives for its reflector address. When several sessions share one
// reflector address, the socket asks each whether a message is its own.
#ifndef TWAMP_MESSAGE_RECEIVER_H
#define TWAMP_MESSAGE_RECEIVER_H

#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>

class MessageReceiver {
  public:
    virtual ~MessageReceiver() = default;

    // A reflected test packet: source address in msg_name, data in the single
    // I/O vector, ancillary data in the control buffer (no byte count).
    virtual void receiveMessage(struct msghdr* msg) = 0;
    // A message of the error queue (looped-back frame with its transmit
    // timestamp) with the number of bytes received.
    virtual void receiveErrQueueMessage(struct msghdr* msg, ssize_t length) = 0;
    // True when the reflected test packet answers one of the receiver's
    // outstanding packets; changes nothing.
    virtual bool ownsMessage(const struct msghdr* msg) const = 0;
    // True when the looped-back frame of length bytes carries one of the
    // receiver's outstanding packets; changes nothing.
    virtual bool ownsErrQueueMessage(const struct msghdr* msg, ssize_t length) const = 0;
    // The socket's receive queue was full and dropped datagrams: a reply to
    // any of the receiver's outstanding packets may have been among them.
    virtual void receiveQueueOverflowed() = 0;
};

#endif  // TWAMP_MESSAGE_RECEIVER_H
