// Room for the messages of one recvmmsg call: each message has a data
// buffer, a source address, a control buffer and a message header of its
// own, so that every message can be handed on by itself, exactly as it came.
#ifndef TWAMP_RECEIVE_BATCH_H
#define TWAMP_RECEIVE_BATCH_H

#include <sys/socket.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <vector>

class ReceiveBatch {
  public:
    // capacity messages of at most bufferSize data bytes and controlSize
    // control bytes each; everything is allocated here, once.
    ReceiveBatch(std::size_t capacity, std::size_t bufferSize, std::size_t controlSize);
    ReceiveBatch(const ReceiveBatch&) = delete;
    ReceiveBatch& operator=(const ReceiveBatch&) = delete;
    virtual ~ReceiveBatch();

    // Clears what the last receive wrote and gives the first count headers
    // (at most the capacity) their full buffer lengths; the headers for recvmmsg.
    virtual struct mmsghdr* prepare(std::size_t count);
    // After a receive of received messages (-1 for a failure): cuts each I/O
    // vector to the bytes its message holds.
    virtual void settle(int received);
    // The header of message index of the last receive.
    virtual struct msghdr* message(std::size_t index);
    // The data bytes of message index of the last receive, at most the buffer size.
    virtual std::size_t length(std::size_t index) const;
    // How many messages one receive can take.
    virtual std::size_t capacity() const;

  private:
    void clearSlot(std::size_t index);

    std::size_t bufferSize;
    std::size_t controlStride;  // controlSize rounded up to keep every control buffer aligned
    std::size_t controlSize;
    std::size_t prepared = 0;  // headers given to the last receive
    std::size_t touched = 0;   // slots the last receive may have written
    std::vector<uint8_t> data;
    std::vector<struct cmsghdr> control;  // cmsghdr elements only for their alignment
    std::vector<struct sockaddr_storage> sources;
    std::vector<struct iovec> ioVectors;
    std::vector<struct mmsghdr> headers;
};

#endif  // TWAMP_RECEIVE_BATCH_H
