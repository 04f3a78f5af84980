// The ground truth in the order of the reflector's actions, while the line of
// each reply sent waits for the kernel's transmit time of that datagram.
//
// The transmit time comes back on the socket's error queue with the start of
// the frame as the device saw it, usually at once (in the send call itself on
// veth and loopback), but a device may take longer. A reply's line therefore
// waits until its time is matched, or until its deadline passes (then it is
// written without one), and every line after it waits behind it, so that the
// file keeps the order of the actions.
#ifndef TWAMP_REFLECTOR_TRUTH_QUEUE_H
#define TWAMP_REFLECTOR_TRUTH_QUEUE_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "TruthWriter.h"

class TruthQueue {
  public:
    explicit TruthQueue(TruthWriter& writer) : writer_(writer) {}

    // A line that needs nothing more: written at once unless earlier lines wait.
    void write(const std::string& line);
    // A reply sent: its line waits for the kernel's transmit time until deadlineNs
    // (CLOCK_MONOTONIC). reply is the datagram sent, at least its first 41 bytes.
    void awaitTransmit(const ReplyTruth& truth, const uint8_t* reply, std::size_t length,
                       int64_t deadlineNs);
    // A transmit time from the error queue: it belongs to the oldest waiting
    // reply whose fixed fields the looped frame holds. False when none does.
    bool transmitted(const uint8_t* looped, std::size_t length, int64_t transmitNs);
    // Replies whose deadline has passed are written without a transmit time.
    void expire(int64_t nowNs);
    // Writes everything still waiting, without transmit times.
    void flush();

    bool waiting() const { return waitingCount_ != 0; }
    // The earliest deadline of a waiting reply; only when waiting().
    int64_t nextDeadlineNs() const;

    // Where in a looped frame the fixed fields of a reply are looked for: the
    // headers in front of them (link, IPv6 with a fragment header, UDP) are shorter.
    static constexpr std::size_t kMaxHeaderBytes = 128;

    TruthQueue(const TruthQueue&) = delete;
    TruthQueue& operator=(const TruthQueue&) = delete;

  private:
    struct Entry {
        std::string line;
        bool waiting = false;
        ReplyTruth truth;
        std::vector<uint8_t> fixedFields;
        int64_t deadlineNs = 0;
    };

    static bool holds(const uint8_t* looped, std::size_t length,
                      const std::vector<uint8_t>& fixedFields);
    void resolve(Entry& entry);
    void writeReady();

    TruthWriter& writer_;
    std::deque<Entry> entries_;
    std::size_t waitingCount_ = 0;
};

#endif  // TWAMP_REFLECTOR_TRUTH_QUEUE_H
