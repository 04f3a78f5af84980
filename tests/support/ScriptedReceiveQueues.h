// The socket's two kernel queues as a test scripts them: recvmmsg hands out
// the queued messages batch by batch, as the kernel would, and every call is
// recorded with its flags and the number of headers it was given.
#ifndef TWAMP_TESTS_SCRIPTED_RECEIVE_QUEUES_H
#define TWAMP_TESTS_SCRIPTED_RECEIVE_QUEUES_H

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <deque>
#include <ostream>
#include <vector>

#include "ReceiverKey.h"

namespace twamp_test {

// One message of a queue: its source address, its bytes, its control data
// and the flags the kernel reports with it. reportedLength, when not 0,
// overrides the byte count the kernel reports for it.
struct ScriptedMessage {
    ReceiverKey source;
    std::vector<uint8_t> bytes;
    std::vector<uint8_t> control = {};
    int flags = 0;
    std::size_t reportedLength = 0;
};

// The flags and the header count of one recvmmsg call.
struct RecvmmsgCall {
    int flags;
    unsigned int length;
};

inline bool operator==(const RecvmmsgCall& a, const RecvmmsgCall& b) {
    return a.flags == b.flags && a.length == b.length;
}

inline std::ostream& operator<<(std::ostream& out, const RecvmmsgCall& call) {
    return out << "{flags " << call.flags << ", length " << call.length << "}";
}

class ScriptedReceiveQueues {
  public:
    // Adds a message to the open batch of the error queue or the receive queue.
    void queue(bool errQueue, const ScriptedMessage& message);
    // Closes the open batch: one recvmmsg never returns messages of two batches.
    void endBatch(bool errQueue);
    // Queues a failure with errorNumber as a batch of its own.
    void queueFailure(bool errQueue, int errorNumber);
    // Messages still queued on the error queue or the receive queue.
    std::size_t pending(bool errQueue) const;

    // recvmmsg: up to length messages of the first batch of the queue that
    // flags select; -1 with EAGAIN when the queue is empty.
    int recvmmsg(int fd, struct mmsghdr* messages, unsigned int length, int flags,
                 struct timespec* timeout);

    std::vector<RecvmmsgCall> calls;

  private:
    struct Batch {
        std::deque<ScriptedMessage> messages;
        int errorNumber = 0;  // a failure when not 0
        bool closed = false;
    };

    std::deque<Batch>& queueOf(bool errQueue);
    static void deliver(const ScriptedMessage& message, struct mmsghdr& header);

    std::deque<Batch> errQueueBatches;
    std::deque<Batch> packetBatches;
};

}  // namespace twamp_test

#endif  // TWAMP_TESTS_SCRIPTED_RECEIVE_QUEUES_H
