#include "MissingSequenceList.h"

#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

namespace {

using SeqNos = std::vector<uint32_t>;

// Entries come back one by one in the order they were appended.
TEST(MissingSequenceListTest, AppendKeepsOrder) {
    MissingSequenceList list;
    list.append(3, 1);
    list.append(7, 3);
    list.append(1, 1);
    EXPECT_EQ((SeqNos{3, 7, 8, 9, 1}), list.entries(100));
    EXPECT_EQ(5u, list.size());
}

// Removal takes the first equal entry and keeps the order of the rest.
TEST(MissingSequenceListTest, RemoveSplitsAStretch) {
    MissingSequenceList list;
    list.append(10, 5);
    EXPECT_TRUE(list.remove(12));
    EXPECT_EQ((SeqNos{10, 11, 13, 14}), list.entries(100));
    EXPECT_TRUE(list.remove(10));
    EXPECT_TRUE(list.remove(14));
    EXPECT_EQ((SeqNos{11, 13}), list.entries(100));
    EXPECT_FALSE(list.remove(12));
    EXPECT_TRUE(list.remove(11));
    EXPECT_TRUE(list.remove(13));
    EXPECT_EQ(0u, list.size());
}

// A number listed twice is removed once per call, first occurrence first.
TEST(MissingSequenceListTest, RemoveTakesFirstOccurrence) {
    MissingSequenceList list;
    list.append(5, 2);
    list.append(1, 1);
    list.append(5, 1);
    EXPECT_TRUE(list.remove(5));
    EXPECT_EQ((SeqNos{6, 1, 5}), list.entries(100));
}

// Runs join consecutive entries across appends; a removed entry splits a run.
TEST(MissingSequenceListTest, RunsOfConsecutiveEntries) {
    MissingSequenceList list;
    list.append(2, 1);
    list.append(3, 2);  // 2, 3, 4: one run of 3
    list.append(9, 1);  // a run of 1
    list.append(20, 4);
    list.remove(21);  // 20 | 22, 23
    const LossRuns runs = list.runs();
    EXPECT_EQ(4u, runs.count);
    EXPECT_EQ(3u, runs.longest);
    EXPECT_EQ(1u, runs.shortest);
}

// An empty list has no runs.
TEST(MissingSequenceListTest, EmptyListHasNoRuns) {
    MissingSequenceList list;
    const LossRuns runs = list.runs();
    EXPECT_EQ(0u, runs.count);
    EXPECT_EQ(0u, runs.longest);
    EXPECT_EQ(0u, runs.shortest);
}

// A descending pair is two runs: each entry must be one greater than the last.
TEST(MissingSequenceListTest, DescendingEntriesAreSeparateRuns) {
    MissingSequenceList list;
    list.append(5, 1);
    list.append(4, 1);
    EXPECT_EQ(2u, list.runs().count);
}

// Two billion missing numbers cost one stretch, not eight gigabytes.
TEST(MissingSequenceListTest, HugeGapIsOneStretch) {
    MissingSequenceList list;
    list.append(1, 0x7FFFFFFFu);
    EXPECT_EQ(0x7FFFFFFFu, list.size());
    EXPECT_TRUE(list.remove(0x40000000u));
    const LossRuns runs = list.runs();
    EXPECT_EQ(2u, runs.count);
    EXPECT_EQ(0x3FFFFFFFu, runs.longest);
    EXPECT_EQ(0x3FFFFFFFu, runs.shortest);
    EXPECT_EQ((SeqNos{1, 2, 3}), list.entries(3));
}

// Numbers wrap at 2^32: 0xFFFFFFFF is followed by 0 within one run.
TEST(MissingSequenceListTest, StretchWrapsAroundZero) {
    MissingSequenceList list;
    list.append(0xFFFFFFFEu, 3);
    EXPECT_EQ((SeqNos{0xFFFFFFFEu, 0xFFFFFFFFu, 0}), list.entries(100));
    EXPECT_EQ(1u, list.runs().count);
    EXPECT_TRUE(list.remove(0));
    EXPECT_EQ(2u, list.runs().longest);
}

// Clear forgets everything.
TEST(MissingSequenceListTest, ClearEmpties) {
    MissingSequenceList list;
    list.append(1, 10);
    list.clear();
    EXPECT_EQ(0u, list.size());
    EXPECT_EQ(SeqNos{}, list.entries(100));
}

}  // namespace
