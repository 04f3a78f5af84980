// The ring of outstanding packets, and a randomized comparison with the
// straightforward keeping: one ordered map per minute parity.
#include "OutstandingPacketStore.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <random>
#include <vector>

namespace {

// The straightforward reference: a map of packets per minute parity, each
// minute emptied when it is dropped.
class ReferenceStore {
  public:
    struct Packet {
        uint64_t t1;
        uint64_t t1Prime;
        uint32_t replyCount;
        uint32_t minute;
    };

    void add(uint32_t seqNo, uint64_t t1, uint32_t minute) {
        packets[minute & 1].emplace(seqNo, Packet{t1, 0, 0, minute});
    }
    Packet* find(uint32_t seqNo) {
        for (auto& parity : packets) {
            const auto entry = parity.find(seqNo);
            if (entry != parity.end()) {
                return &entry->second;
            }
        }
        return nullptr;
    }
    uint64_t extraRepliesOf(uint32_t minute) const {
        uint64_t extra = 0;
        for (const auto& entry : packets[minute & 1]) {
            if (entry.second.minute == minute && entry.second.replyCount > 1) {
                extra += entry.second.replyCount - 1;
            }
        }
        return extra;
    }
    std::size_t countOf(uint32_t minute) const {
        std::size_t count = 0;
        for (const auto& entry : packets[minute & 1]) {
            count += entry.second.minute == minute ? 1 : 0;
        }
        return count;
    }
    void dropMinute(uint32_t minute) {
        for (auto& parity : packets) {
            for (auto entry = parity.begin(); entry != parity.end();) {
                entry = entry->second.minute <= minute ? parity.erase(entry) : std::next(entry);
            }
        }
    }

  private:
    std::map<uint32_t, Packet> packets[2];
};

uint64_t seedFromEnvironment() {
    const char* text = std::getenv("TWAMP_TEST_SEED");
    return text != nullptr ? std::strtoull(text, nullptr, 10) : std::random_device()();
}

// Two minutes of packets: each is found by its number until its minute is dropped.
TEST(OutstandingPacketStoreTest, FindsPacketsUntilTheirMinuteIsDropped) {
    OutstandingPacketStore store(4);
    for (uint32_t seqNo = 0; seqNo < 10; ++seqNo) {
        ASSERT_TRUE(store.add(seqNo, 1000 + seqNo, seqNo < 6 ? 100 : 101));
    }
    EXPECT_EQ(6u, store.countOf(100));
    EXPECT_EQ(4u, store.countOf(101));
    EXPECT_EQ(1003u, store.find(3)->t1);
    store.dropMinute(100);
    EXPECT_EQ(nullptr, store.find(3));
    EXPECT_EQ(1007u, store.find(7)->t1);
    EXPECT_EQ(9u, store.lastSeqNoOf(101));
    EXPECT_EQ(4u, store.size());
}

// A number that does not follow the last one stored is refused.
TEST(OutstandingPacketStoreTest, RefusesANumberOutOfSequence) {
    OutstandingPacketStore store;
    ASSERT_TRUE(store.add(7, 1, 100));
    EXPECT_FALSE(store.add(7, 2, 100));
    EXPECT_FALSE(store.add(9, 2, 100));
    EXPECT_TRUE(store.add(8, 2, 100));
}

// Sequence numbers wrapping from 2^32 - 1 to 0 stay one stretch.
TEST(OutstandingPacketStoreTest, KeepsNumbersAcrossTheWrap) {
    OutstandingPacketStore store;
    ASSERT_TRUE(store.add(0xFFFFFFFEu, 1, 100));
    ASSERT_TRUE(store.add(0xFFFFFFFFu, 2, 100));
    ASSERT_TRUE(store.add(0, 3, 100));
    EXPECT_EQ(3u, store.find(0)->t1);
    EXPECT_EQ(0u, store.lastSeqNoOf(100));
}

// Replies beyond the first are counted per minute.
TEST(OutstandingPacketStoreTest, CountsExtraRepliesPerMinute) {
    OutstandingPacketStore store;
    store.add(0, 1, 100);
    store.add(1, 2, 101);
    EXPECT_EQ(1u, store.countReply(0));
    EXPECT_EQ(2u, store.countReply(0));
    EXPECT_EQ(3u, store.countReply(0));
    EXPECT_EQ(1u, store.countReply(1));
    EXPECT_EQ(2u, store.extraRepliesOf(100));
    EXPECT_EQ(0u, store.extraRepliesOf(101));
}

// A held reply goes with its minute.
TEST(OutstandingPacketStoreTest, DropsHeldRepliesWithTheirMinute) {
    OutstandingPacketStore store;
    store.add(0, 1, 100);
    store.add(1, 2, 101);
    store.holdReply(std::make_unique<OutstandingPacket>(0, 1));
    store.holdReply(std::make_unique<OutstandingPacket>(1, 2));
    store.dropMinute(100);
    EXPECT_TRUE(store.heldReplies(0).empty());
    EXPECT_EQ(1u, store.heldReplies(1).size());
}

// Every copy of a reply held is kept, in the order the copies came.
TEST(OutstandingPacketStoreTest, HoldsEveryCopyInOrder) {
    OutstandingPacketStore store;
    store.add(0, 1, 100);
    auto first = std::make_unique<OutstandingPacket>(0, 1);
    auto second = std::make_unique<OutstandingPacket>(0, 1);
    OutstandingPacket* firstCopy = first.get();
    OutstandingPacket* secondCopy = second.get();
    store.holdReply(std::move(first));
    store.holdReply(std::move(second));
    EXPECT_EQ((std::vector<OutstandingPacket*>{firstCopy, secondCopy}), store.heldReplies(0));
    store.releaseReplies(0);
    EXPECT_TRUE(store.heldReplies(0).empty());
}

// The ring grows when more is outstanding than it was made for.
TEST(OutstandingPacketStoreTest, GrowsWhenFull) {
    OutstandingPacketStore store(16);
    for (uint32_t seqNo = 0; seqNo < 100; ++seqNo) {
        ASSERT_TRUE(store.add(seqNo, seqNo, 100 + seqNo / 40));
    }
    store.dropMinute(100);
    for (uint32_t seqNo = 100; seqNo < 140; ++seqNo) {
        ASSERT_TRUE(store.add(seqNo, seqNo, 103));
    }
    EXPECT_LE(64u, store.capacity());
    EXPECT_EQ(100u, store.size());
    EXPECT_EQ(55u, store.find(55)->t1);
    EXPECT_EQ(139u, store.find(139)->t1);
}

// Randomized: minutes of packets with replies, repeated replies and
// transmit timestamps, dropped at their finalisation, give the same answers
// as a map per parity.
TEST(OutstandingPacketStoreTest, AnswersLikeAMapPerParity) {
    const uint64_t seed = seedFromEnvironment();
    std::cout << "OutstandingPacketStoreTest seed " << seed << " (TWAMP_TEST_SEED)" << std::endl;
    std::mt19937_64 random(seed);
    OutstandingPacketStore store(32);
    ReferenceStore reference;
    uint32_t nextSeqNo = static_cast<uint32_t>(random());
    for (uint32_t minute = 1000; minute < 1400; ++minute) {
        const uint32_t packets = static_cast<uint32_t>(random() % 120);
        for (uint32_t i = 0; i < packets; ++i) {
            const uint64_t t1 = random();
            ASSERT_TRUE(store.add(nextSeqNo, t1, minute));
            reference.add(nextSeqNo, t1, minute);
            ++nextSeqNo;
        }
        // Replies and timestamps to numbers around the last two minutes.
        for (int event = 0; event < 200; ++event) {
            const uint32_t seqNo = nextSeqNo - 1 - static_cast<uint32_t>(random() % 300);
            ReferenceStore::Packet* expected = reference.find(seqNo);
            SentPacket* actual = store.find(seqNo);
            ASSERT_EQ(expected == nullptr, actual == nullptr) << "seqNo " << seqNo;
            if (expected == nullptr) {
                continue;
            }
            ASSERT_EQ(expected->t1, actual->t1);
            ASSERT_EQ(expected->minute, actual->minute);
            if (random() % 2 == 0) {
                expected->replyCount += 1;
                ASSERT_EQ(expected->replyCount, store.countReply(seqNo));
            } else {
                expected->t1Prime = random();
                actual->t1Prime = expected->t1Prime;
            }
        }
        // The minute before is finalised 4 s into this one.
        ASSERT_EQ(reference.countOf(minute - 1), store.countOf(minute - 1));
        ASSERT_EQ(reference.extraRepliesOf(minute - 1), store.extraRepliesOf(minute - 1));
        reference.dropMinute(minute - 1);
        store.dropMinute(minute - 1);
    }
}

}  // namespace
