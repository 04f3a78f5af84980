#include "OutstandingPacketStore.h"

#include <new>
#include <type_traits>
#include <utility>

namespace {

// Packets leave their slots without a destructor call.
static_assert(std::is_trivially_destructible<SentPacket>::value,
              "a SentPacket must need no destructor");

// The ring starts with room for this many packets when no capacity is given.
constexpr std::size_t kMinimumCapacity = 16;

}  // namespace

OutstandingPacketStore::OutstandingPacketStore(std::size_t capacity)
    : slotCount(capacity < kMinimumCapacity ? kMinimumCapacity : capacity) {
    // Default-initialised: the slots stay unwritten.
    slots.reset(new Slot[slotCount]);
}

OutstandingPacketStore::~OutstandingPacketStore() = default;

bool OutstandingPacketStore::add(uint32_t seqNo, uint64_t t1, uint32_t minute) {
    if (count != 0 && seqNo != static_cast<uint32_t>(firstSeqNo + count)) {
        return false;
    }
    if (count == slotCount) {
        grow();
    }
    if (count == 0) {
        firstSeqNo = seqNo;
    }
    SentPacket* packet = new (&slots[(head + count) % slotCount]) SentPacket();
    packet->t1 = t1;
    packet->minute = minute;
    ++count;
    if (spans.empty() || spans.back().minute != minute) {
        spans.push_back({minute, seqNo, 0, 0});
    }
    ++spans.back().count;
    return true;
}

SentPacket* OutstandingPacketStore::find(uint32_t seqNo) {
    std::size_t index = 0;
    return indexOf(seqNo, index) ? &at(index) : nullptr;
}

const SentPacket* OutstandingPacketStore::find(uint32_t seqNo) const {
    std::size_t index = 0;
    return indexOf(seqNo, index) ? &at(index) : nullptr;
}

uint32_t OutstandingPacketStore::countReply(uint32_t seqNo) {
    SentPacket* packet = find(seqNo);
    if (packet == nullptr) {
        return 0;
    }
    packet->replyCount += 1;
    if (packet->replyCount > 1) {
        // Spans are few (two minutes, more only after a stall): a short walk.
        for (MinuteSpan& span : spans) {
            if (static_cast<uint32_t>(seqNo - span.firstSeqNo) < span.count) {
                span.extraReplies += 1;
                break;
            }
        }
    }
    return packet->replyCount;
}

uint64_t OutstandingPacketStore::extraRepliesOf(uint32_t minute) const {
    const MinuteSpan* span = spanOf(minute);
    return span == nullptr ? 0 : span->extraReplies;
}

std::size_t OutstandingPacketStore::countOf(uint32_t minute) const {
    const MinuteSpan* span = spanOf(minute);
    return span == nullptr ? 0 : span->count;
}

uint32_t OutstandingPacketStore::lastSeqNoOf(uint32_t minute) const {
    const MinuteSpan* span = spanOf(minute);
    return span == nullptr ? 0 : static_cast<uint32_t>(span->firstSeqNo + span->count - 1);
}

std::vector<uint32_t> OutstandingPacketStore::minutes() const {
    std::vector<uint32_t> result;
    for (const MinuteSpan& span : spans) {
        result.push_back(span.minute);
    }
    return result;
}

void OutstandingPacketStore::holdReply(std::unique_ptr<OutstandingPacket> packet) {
    const uint32_t seqNo = packet->getSenderSeqNo();
    held[seqNo].push_back(std::move(packet));
}

std::vector<OutstandingPacket*> OutstandingPacketStore::heldReplies(uint32_t seqNo) const {
    std::vector<OutstandingPacket*> replies;
    const auto entry = held.find(seqNo);
    if (entry != held.end()) {
        for (const std::unique_ptr<OutstandingPacket>& reply : entry->second) {
            replies.push_back(reply.get());
        }
    }
    return replies;
}

void OutstandingPacketStore::releaseReplies(uint32_t seqNo) {
    held.erase(seqNo);
}

bool OutstandingPacketStore::awaitsTimestamp(uint32_t minute) const {
    const MinuteSpan* span = spanOf(minute);
    if (span == nullptr) {
        return false;
    }
    // Held replies are few: normally none at all.
    for (const auto& entry : held) {
        const uint32_t seqNo = entry.first;
        if (static_cast<uint32_t>(seqNo - span->firstSeqNo) < span->count) {
            const SentPacket* packet = find(seqNo);
            if (packet != nullptr && packet->t1Prime == 0) {
                return true;
            }
        }
    }
    return false;
}

void OutstandingPacketStore::dropMinute(uint32_t minute) {
    if (spanOf(minute) == nullptr) {
        return;
    }
    // Minutes leave in the order they were sent; an older one still stored
    // was abandoned and goes with it.
    bool dropped = false;
    while (!dropped && !spans.empty()) {
        dropped = spans.front().minute == minute;
        dropFront();
    }
}

void OutstandingPacketStore::clear() {
    head = 0;
    count = 0;
    spans.clear();
    held.clear();
}

std::size_t OutstandingPacketStore::size() const {
    return count;
}

std::size_t OutstandingPacketStore::capacity() const {
    return slotCount;
}

// Only the count packets from head on live in their slots.
SentPacket& OutstandingPacketStore::at(std::size_t index) {
    return *std::launder(reinterpret_cast<SentPacket*>(&slots[(head + index) % slotCount]));
}

const SentPacket& OutstandingPacketStore::at(std::size_t index) const {
    return *std::launder(reinterpret_cast<const SentPacket*>(&slots[(head + index) % slotCount]));
}

bool OutstandingPacketStore::indexOf(uint32_t seqNo, std::size_t& index) const {
    // Sequence numbers wrap at 2^32 like the distance taken here.
    index = static_cast<uint32_t>(seqNo - firstSeqNo);
    return index < count;
}

void OutstandingPacketStore::grow() {
    std::unique_ptr<Slot[]> larger(new Slot[slotCount * 2]);
    for (std::size_t index = 0; index < count; ++index) {
        new (&larger[index]) SentPacket(at(index));
    }
    slots.swap(larger);
    slotCount *= 2;
    head = 0;
}

const OutstandingPacketStore::MinuteSpan* OutstandingPacketStore::spanOf(uint32_t minute) const {
    for (const MinuteSpan& span : spans) {
        if (span.minute == minute) {
            return &span;
        }
    }
    return nullptr;
}

OutstandingPacketStore::MinuteSpan* OutstandingPacketStore::spanOf(uint32_t minute) {
    for (MinuteSpan& span : spans) {
        if (span.minute == minute) {
            return &span;
        }
    }
    return nullptr;
}

void OutstandingPacketStore::dropFront() {
    const MinuteSpan span = spans.front();
    spans.pop_front();
    for (auto entry = held.begin(); entry != held.end();) {
        if (static_cast<uint32_t>(entry->first - span.firstSeqNo) < span.count) {
            entry = held.erase(entry);
        } else {
            ++entry;
        }
    }
    head = (head + span.count) % slotCount;
    count -= span.count;
    firstSeqNo = static_cast<uint32_t>(firstSeqNo + span.count);
}
