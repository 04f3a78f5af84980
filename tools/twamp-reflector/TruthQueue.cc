#include "TruthQueue.h"

#include <algorithm>
#include <cstring>

#include "ReplyBuilder.h"

void TruthQueue::write(const std::string& line) {
    if (entries_.empty()) {
        writer_.write(line);
        return;
    }
    Entry entry;
    entry.line = line;
    entries_.push_back(std::move(entry));
}

void TruthQueue::awaitTransmit(const ReplyTruth& truth, const uint8_t* reply, std::size_t length,
                               int64_t deadlineNs) {
    Entry entry;
    entry.waiting = true;
    entry.truth = truth;
    // The reflector's sequence number, T3, T2 and the echoed sender fields:
    // with T3 in nanoseconds they tell one reply from another, and copies of
    // one reply are matched in the order they were sent.
    const std::size_t fixed = std::min(length, ReplyBuilder::kMinimumReplyLength);
    entry.fixedFields.assign(reply, reply + fixed);
    entry.deadlineNs = deadlineNs;
    entries_.push_back(std::move(entry));
    ++waitingCount_;
}

bool TruthQueue::holds(const uint8_t* looped, std::size_t length,
                       const std::vector<uint8_t>& fixedFields) {
    const std::size_t size = fixedFields.size();
    for (std::size_t offset = 0; offset <= kMaxHeaderBytes && offset + size <= length; ++offset) {
        if (std::memcmp(looped + offset, fixedFields.data(), size) == 0) {
            return true;
        }
    }
    return false;
}

bool TruthQueue::transmitted(const uint8_t* looped, std::size_t length, int64_t transmitNs) {
    for (Entry& entry : entries_) {
        if (entry.waiting && holds(looped, length, entry.fixedFields)) {
            entry.truth.hasTransmitTime = true;
            entry.truth.transmitNs = transmitNs;
            resolve(entry);
            writeReady();
            return true;
        }
    }
    return false;
}

void TruthQueue::expire(int64_t nowNs) {
    for (Entry& entry : entries_) {
        if (entry.waiting && entry.deadlineNs <= nowNs) {
            resolve(entry);
        }
    }
    writeReady();
}

void TruthQueue::flush() {
    for (Entry& entry : entries_) {
        if (entry.waiting) {
            resolve(entry);
        }
    }
    writeReady();
}

int64_t TruthQueue::nextDeadlineNs() const {
    int64_t earliest = 0;
    bool found = false;
    for (const Entry& entry : entries_) {
        if (entry.waiting && (!found || entry.deadlineNs < earliest)) {
            earliest = entry.deadlineNs;
            found = true;
        }
    }
    return earliest;
}

void TruthQueue::resolve(Entry& entry) {
    entry.line = TruthWriter::replyLine(entry.truth);
    entry.waiting = false;
    entry.fixedFields.clear();
    --waitingCount_;
}

void TruthQueue::writeReady() {
    while (!entries_.empty() && !entries_.front().waiting) {
        writer_.write(entries_.front().line);
        entries_.pop_front();
    }
}
