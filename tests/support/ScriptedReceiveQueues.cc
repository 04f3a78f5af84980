#include "ScriptedReceiveQueues.h"

#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace twamp_test {

void ScriptedReceiveQueues::queue(bool errQueue, const ScriptedMessage& message) {
    std::deque<Batch>& batches = queueOf(errQueue);
    if (batches.empty() || batches.back().closed) {
        batches.emplace_back();
    }
    batches.back().messages.push_back(message);
}

void ScriptedReceiveQueues::endBatch(bool errQueue) {
    std::deque<Batch>& batches = queueOf(errQueue);
    if (!batches.empty()) {
        batches.back().closed = true;
    }
}

void ScriptedReceiveQueues::queueFailure(bool errQueue, int errorNumber) {
    endBatch(errQueue);
    Batch failure;
    failure.errorNumber = errorNumber;
    failure.closed = true;
    queueOf(errQueue).push_back(failure);
}

std::size_t ScriptedReceiveQueues::pending(bool errQueue) const {
    const std::deque<Batch>& batches = errQueue ? errQueueBatches : packetBatches;
    std::size_t count = 0;
    for (const Batch& batch : batches) {
        count += batch.messages.size();
    }
    return count;
}

int ScriptedReceiveQueues::recvmmsg(int /*fd*/, struct mmsghdr* messages, unsigned int length,
                                    int flags, struct timespec* /*timeout*/) {
    calls.push_back({flags, length});
    std::deque<Batch>& batches = queueOf((flags & MSG_ERRQUEUE) != 0);
    if (batches.empty()) {
        errno = EAGAIN;
        return -1;
    }
    Batch& batch = batches.front();
    if (batch.errorNumber != 0) {
        errno = batch.errorNumber;
        batches.pop_front();
        return -1;
    }
    unsigned int count = 0;
    while (count < length && !batch.messages.empty()) {
        deliver(batch.messages.front(), messages[count]);
        batch.messages.pop_front();
        ++count;
    }
    if (batch.messages.empty()) {
        batches.pop_front();
    }
    return static_cast<int>(count);
}

std::deque<ScriptedReceiveQueues::Batch>& ScriptedReceiveQueues::queueOf(bool errQueue) {
    return errQueue ? errQueueBatches : packetBatches;
}

// What the kernel writes for one datagram: the source address, the bytes
// that fit (MSG_TRUNC when some did not), the control data that fits
// (MSG_CTRUNC when some did not) and the byte count.
void ScriptedReceiveQueues::deliver(const ScriptedMessage& message, struct mmsghdr& header) {
    struct msghdr& msg = header.msg_hdr;
    const struct sockaddr_storage& source = message.source.getAddress();
    const socklen_t nameLength =
        (source.ss_family == AF_INET6) ? sizeof(struct sockaddr_in6) : sizeof(struct sockaddr_in);
    std::memcpy(msg.msg_name, &source, std::min(nameLength, msg.msg_namelen));
    msg.msg_namelen = nameLength;
    msg.msg_flags = message.flags;
    const std::size_t copied = std::min(message.bytes.size(), msg.msg_iov[0].iov_len);
    if (copied != 0) {
        std::memcpy(msg.msg_iov[0].iov_base, message.bytes.data(), copied);
    }
    if (copied < message.bytes.size()) {
        msg.msg_flags |= MSG_TRUNC;
    }
    const std::size_t control = std::min(message.control.size(), msg.msg_controllen);
    if (control != 0) {
        std::memcpy(msg.msg_control, message.control.data(), control);
    }
    if (control < message.control.size()) {
        msg.msg_flags |= MSG_CTRUNC;
    }
    msg.msg_controllen = control;
    header.msg_len =
        static_cast<unsigned int>(message.reportedLength != 0 ? message.reportedLength : copied);
}

}  // namespace twamp_test
