#include "SequenceTracker.h"

#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

namespace {

using SeqNos = std::vector<uint32_t>;

constexpr int kParity = 1;

class SequenceTrackerTest : public ::testing::Test {
  protected:
    // One packet a second: a jump limit of 4 and an overtaking window of 8.
    SequenceTrackerTest() : tracker(1) { tracker.startMinute(kParity, 0); }

    SequenceCounters counters() { return {lost, late, duplicate}; }

    // Books the reflector's number of a first reply.
    uint32_t reverse(uint32_t responderSeqNo, bool firstReply = true) {
        return tracker.trackReverse({0, responderSeqNo, firstReply}, kParity, counters(), counted);
    }

    SequenceTracker tracker;
    int64_t lost = 0;
    int64_t late = 0;
    int64_t duplicate = 0;
    bool counted = false;
};

// A new minute expects the given sender number, no reflector number and nothing missing.
TEST_F(SequenceTrackerTest, StartMinuteSetsTheFirstSenderNumber) {
    tracker.startMinute(kParity, 42);
    EXPECT_EQ(42u, tracker.getLastSenderSeqNo(kParity));
    EXPECT_EQ(0u, tracker.getExpectedResponderSeqNo(kParity));
    EXPECT_EQ(SeqNos{}, tracker.getMissingSenderSeqNos(kParity));
    EXPECT_EQ(SeqNos{}, tracker.getMissingResponderSeqNos(kParity));
}

// The minute's first reply only sets the pace of the reflector's numbers.
TEST_F(SequenceTrackerTest, FirstReplyOfTheMinuteSetsThePace) {
    EXPECT_EQ(0u, reverse(100));
    EXPECT_EQ(101u, tracker.getExpectedResponderSeqNo(kParity));
    EXPECT_EQ(0, lost);
}

// A gap in the reflector's numbers is counted lost and listed missing.
TEST_F(SequenceTrackerTest, ReverseGapIsCountedLost) {
    reverse(100);
    EXPECT_EQ(2u, reverse(103));
    EXPECT_EQ(2, lost);
    EXPECT_EQ((SeqNos{101, 102}), tracker.getMissingResponderSeqNos(kParity));
    EXPECT_EQ(104u, tracker.getExpectedResponderSeqNo(kParity));
}

// A missing number that comes after all is late, not lost.
TEST_F(SequenceTrackerTest, MissingNumberArrivingIsLate) {
    reverse(100);
    reverse(103);
    reverse(101);
    EXPECT_EQ(1, lost);
    EXPECT_EQ(1, late);
    EXPECT_TRUE(counted);
    EXPECT_EQ(SeqNos{102}, tracker.getMissingResponderSeqNos(kParity));
}

// A later reply repeating a number already seen is a duplicate.
TEST_F(SequenceTrackerTest, RepeatedNumberOfACopyIsDuplicate) {
    reverse(100);
    reverse(101);
    reverse(100, false);
    EXPECT_EQ(1, duplicate);
    EXPECT_TRUE(counted);
}

// A first reply whose number went back without being missing counts nothing.
TEST_F(SequenceTrackerTest, FirstReplyGoingBackCountsNothing) {
    reverse(100);
    reverse(101);
    reverse(99);
    EXPECT_EQ(0, duplicate);
    EXPECT_EQ(0, late);
    EXPECT_FALSE(counted);
}

// A forward gap beyond the allowance is counted lost from the expected number on.
TEST_F(SequenceTrackerTest, ForwardGapBeyondAllowanceIsLost) {
    tracker.trackForward({3, 0, true}, kParity, counters(), 1, counted);
    EXPECT_EQ(2, lost);
    EXPECT_EQ((SeqNos{0, 1}), tracker.getMissingSenderSeqNos(kParity));
    EXPECT_EQ(4u, tracker.getLastSenderSeqNo(kParity));
}

// A sender number wrapping from 4294967295 to 0 is a step forward.
TEST_F(SequenceTrackerTest, SenderNumberWrapsForward) {
    tracker.startMinute(kParity, 4294967295u);
    tracker.trackForward({4294967295u, 0, true}, kParity, counters(), 0, counted);
    tracker.trackForward({0, 0, true}, kParity, counters(), 0, counted);
    EXPECT_EQ(0, lost);
    EXPECT_EQ(1u, tracker.getLastSenderSeqNo(kParity));
}

// The reflector's number going back far while ours jumps beyond the limit is a restart.
TEST_F(SequenceTrackerTest, FarBackWithSenderJumpIsBroken) {
    tracker.resynchronise({0, 1000, true}, kParity);
    EXPECT_TRUE(tracker.isBroken({10, 5, true}, kParity));
}

// Going back no further than overtaking can explain is no restart.
TEST_F(SequenceTrackerTest, BackWithinOvertakingIsNotBroken) {
    tracker.resynchronise({0, 1000, true}, kParity);
    EXPECT_FALSE(tracker.isBroken({10, 995, true}, kParity));
}

// Going back far on the first reply to a packet sent in order is a new numbering.
TEST_F(SequenceTrackerTest, FarBackInOrderIsRenumbered) {
    tracker.resynchronise({0, 1000, true}, kParity);
    EXPECT_TRUE(tracker.isResponderRenumbered({1, 0, true}, kParity));
    tracker.followRenumbering({1, 0, true}, kParity);
    EXPECT_EQ(1u, tracker.getExpectedResponderSeqNo(kParity));
}

// A copy of a reply is never a new numbering.
TEST_F(SequenceTrackerTest, CopyIsNotRenumbered) {
    tracker.resynchronise({0, 1000, true}, kParity);
    EXPECT_FALSE(tracker.isResponderRenumbered({1, 0, false}, kParity));
}

// The jump limit is four seconds of packets, kept in 8 bits.
TEST_F(SequenceTrackerTest, JumpLimitIsFourSecondsInEightBits) {
    EXPECT_EQ(4u, tracker.getJumpLimit());
    EXPECT_EQ(40u, SequenceTracker(10).getJumpLimit());
    EXPECT_EQ(0u, SequenceTracker(64).getJumpLimit());
}

// Unanswered packets listed missing form the runs of forward loss.
TEST_F(SequenceTrackerTest, AppendedMissingNumbersFormARun) {
    tracker.appendMissingForward(kParity, 5, 3);
    const LossRuns runs = tracker.forwardRuns(kParity);
    EXPECT_EQ(1u, runs.count);
    EXPECT_EQ(3u, runs.longest);
    EXPECT_EQ(3u, runs.shortest);
    EXPECT_EQ(0u, tracker.reverseRuns(kParity).count);
}

}  // namespace
