#include "PercentileVector.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace {

// Runs every test on a freshly initialised library and frees it afterwards.
class PercentileVectorTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(percentile_init()); }
    void TearDown() override { EXPECT_TRUE(percentile_uninit()); }

    // Creates a vector and returns its identifier.
    static uint32_t create(uint32_t size, int32_t minPercentile) {
        uint32_t id = 0;
        EXPECT_EQ(percentile_create(size, minPercentile, &id), kPercentileOk);
        return id;
    }

    // Adds the values first..last in ascending order.
    static void addAscending(uint32_t id, uint64_t first, uint64_t last) {
        for (uint64_t value = first; value <= last; ++value) {
            ASSERT_EQ(percentile_add(id, value), kPercentileOk);
        }
    }
};

// Runs every test without the library state.
class PercentileVectorUninitialisedTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(percentile_uninit()); }
};

// --- init and uninit ---

// A second init keeps the existing state and its vectors and still succeeds.
TEST_F(PercentileVectorTest, InitTwiceKeepsState) {
    const uint32_t id = create(600, 95);
    EXPECT_TRUE(percentile_init());
    EXPECT_EQ(percentile_add(id, 5), kPercentileOk);
    EXPECT_EQ(percentile_samples_for_test(id), std::vector<uint64_t>({5}));
}

// Uninit frees every vector: afterwards the library reports itself uninitialised.
TEST_F(PercentileVectorTest, UninitDropsVectors) {
    const uint32_t id = create(600, 95);
    ASSERT_EQ(percentile_add(id, 5), kPercentileOk);
    EXPECT_TRUE(percentile_uninit());
    EXPECT_EQ(percentile_add(id, 6), kPercentileNotInitialized);
}

// Uninit without state succeeds.
TEST_F(PercentileVectorUninitialisedTest, UninitWithoutStateSucceeds) {
    EXPECT_TRUE(percentile_uninit());
}

// A new state after uninit starts the identifiers at 1 again.
TEST_F(PercentileVectorTest, ReinitStartsIdentifiersAtOne) {
    create(600, 95);
    create(600, 95);
    ASSERT_TRUE(percentile_uninit());
    ASSERT_TRUE(percentile_init());
    EXPECT_EQ(create(600, 95), 1u);
}

// --- result code 1: not initialised ---

// Create without state returns 1.
TEST_F(PercentileVectorUninitialisedTest, CreateReturnsNotInitialised) {
    uint32_t id = 77;
    EXPECT_EQ(percentile_create(600, 95, &id), 1);
    EXPECT_EQ(id, 77u);
}

// Add without state returns 1.
TEST_F(PercentileVectorUninitialisedTest, AddReturnsNotInitialised) {
    EXPECT_EQ(percentile_add(1, 5), 1);
}

// Get without state returns 1.
TEST_F(PercentileVectorUninitialisedTest, GetReturnsNotInitialised) {
    PercentileRequest request{95, 0};
    uint32_t count = 0;
    EXPECT_EQ(percentile_get(1, 1, &request, &count), 1);
}

// Remove without state returns 1.
TEST_F(PercentileVectorUninitialisedTest, RemoveReturnsNotInitialised) {
    EXPECT_EQ(percentile_remove(1), 1);
}

// The missing state is reported before a negative request count.
TEST_F(PercentileVectorUninitialisedTest, NotInitialisedBeatsNegativeCount) {
    EXPECT_EQ(percentile_get(1, -1, nullptr, nullptr), 1);
}

// --- create: result codes 2, 6, 7 and keep ---

// Size 0 returns 6.
TEST_F(PercentileVectorTest, CreateZeroSizeReturns6) {
    uint32_t id = 77;
    EXPECT_EQ(percentile_create(0, 95, &id), 6);
    EXPECT_EQ(id, 77u);
}

// Size 0 is reported before a bad lowest percentile.
TEST_F(PercentileVectorTest, CreateZeroSizeBeatsBadPercentile) {
    uint32_t id = 0;
    EXPECT_EQ(percentile_create(0, 0, &id), 6);
}

// A lowest percentile of 0 returns 7.
TEST_F(PercentileVectorTest, CreatePercentileZeroReturns7) {
    uint32_t id = 0;
    EXPECT_EQ(percentile_create(600, 0, &id), 7);
}

// A lowest percentile of 101 returns 7.
TEST_F(PercentileVectorTest, CreatePercentile101Returns7) {
    uint32_t id = 0;
    EXPECT_EQ(percentile_create(600, 101, &id), 7);
}

// A negative lowest percentile returns 7.
TEST_F(PercentileVectorTest, CreateNegativePercentileReturns7) {
    uint32_t id = 0;
    EXPECT_EQ(percentile_create(600, -5, &id), 7);
}

// The bounds 1 and 100 are accepted.
TEST_F(PercentileVectorTest, CreateAcceptsPercentileBounds) {
    uint32_t low = 0;
    uint32_t high = 0;
    EXPECT_EQ(percentile_create(600, 1, &low), 0);
    EXPECT_EQ(percentile_create(600, 100, &high), 0);
    EXPECT_EQ(low, 1u);
    EXPECT_EQ(high, 2u);
}

// A null identifier output returns 2 and creates nothing.
TEST_F(PercentileVectorTest, CreateNullIdOutReturns2) {
    EXPECT_EQ(percentile_create(600, 95, nullptr), 2);
    EXPECT_EQ(create(600, 95), 1u);
}

// Size 600 with lowest percentile 95 keeps 32 list entries.
TEST_F(PercentileVectorTest, KeepFor600And95Is32) {
    const uint32_t id = create(600, 95);
    addAscending(id, 1, 200);
    EXPECT_EQ(percentile_samples_for_test(id).size(), 32u);
}

// Size 10 with 95 keeps 3: the top share 0.5 rounds up to 1, plus two.
TEST_F(PercentileVectorTest, KeepFor10And95Is3) {
    const uint32_t id = create(10, 95);
    addAscending(id, 1, 10);
    EXPECT_EQ(percentile_samples_for_test(id), std::vector<uint64_t>({10, 9, 1}));
}

// Size 9 with 95 keeps 2: the top share 0.45 rounds down to 0, plus two.
TEST_F(PercentileVectorTest, KeepFor9And95Is2) {
    const uint32_t id = create(9, 95);
    addAscending(id, 1, 9);
    EXPECT_EQ(percentile_samples_for_test(id), std::vector<uint64_t>({9, 1}));
}

// --- identifiers ---

// Identifiers are handed out 1, 2, 3.
TEST_F(PercentileVectorTest, IdentifiersAscendFromOne) {
    EXPECT_EQ(create(600, 95), 1u);
    EXPECT_EQ(create(600, 95), 2u);
    EXPECT_EQ(create(600, 95), 3u);
}

// A removed identifier is not handed out again before the search wraps.
TEST_F(PercentileVectorTest, RemovedIdentifierNotReusedBeforeWrap) {
    create(600, 95);
    create(600, 95);
    ASSERT_EQ(percentile_remove(2), 0);
    EXPECT_EQ(create(600, 95), 3u);
}

// The search wraps from 0xFFFFFFFF to 1, reuses a removed identifier and skips one in use.
TEST_F(PercentileVectorTest, IdentifierSearchWrapsReusesAndSkips) {
    create(600, 95);  // 1
    create(600, 95);  // 2
    ASSERT_EQ(percentile_remove(1), 0);
    percentile_set_next_id_for_test(0xFFFFFFFF);
    EXPECT_EQ(create(600, 95), 0xFFFFFFFFu);
    EXPECT_EQ(create(600, 95), 1u);
    EXPECT_EQ(create(600, 95), 3u);
}

// The search steps past identifiers in use and continues after the chosen one.
TEST_F(PercentileVectorTest, IdentifierSearchSkipsIdentifiersInUse) {
    create(600, 95);  // 1
    create(600, 95);  // 2
    create(600, 95);  // 3
    percentile_set_next_id_for_test(2);
    EXPECT_EQ(create(600, 95), 4u);
    EXPECT_EQ(create(600, 95), 5u);
}

// Result code 5 (every identifier in use) needs 2^32 - 1 vectors and is not reachable here.

// --- add: result codes 4, 9 and ordering ---

// Adding to an unknown identifier returns 4.
TEST_F(PercentileVectorTest, AddUnknownReturns4) {
    create(600, 95);
    EXPECT_EQ(percentile_add(2, 5), 4);
}

// Adding without any vector returns 4.
TEST_F(PercentileVectorTest, AddWithoutVectorsReturns4) {
    EXPECT_EQ(percentile_add(1, 5), 4);
}

// The 601st sample before a read returns 9 and is not stored.
TEST_F(PercentileVectorTest, SampleBeyondSizeReturns9AndIsNotStored) {
    const uint32_t id = create(600, 95);
    addAscending(id, 1, 600);
    EXPECT_EQ(percentile_add(id, 1000), 9);
    PercentileRequest request{100, 0};
    uint32_t count = 0;
    ASSERT_EQ(percentile_get(id, 1, &request, &count), 0);
    EXPECT_EQ(count, 600u);
    EXPECT_EQ(request.value, 600u);
}

// A read makes room again for size samples.
TEST_F(PercentileVectorTest, ReadMakesRoomAgain) {
    const uint32_t id = create(2, 95);
    addAscending(id, 1, 2);
    ASSERT_EQ(percentile_add(id, 3), 9);
    uint32_t count = 0;
    PercentileRequest none{0, 0};
    ASSERT_EQ(percentile_get(id, 0, &none, &count), 0);
    EXPECT_EQ(percentile_add(id, 3), 0);
}

// Samples are kept largest first, whatever the order of adding.
TEST_F(PercentileVectorTest, SamplesKeptInDescendingOrder) {
    const uint32_t id = create(600, 95);
    for (uint64_t value : {5u, 9u, 1u, 7u}) {
        ASSERT_EQ(percentile_add(id, value), 0);
    }
    EXPECT_EQ(percentile_samples_for_test(id), std::vector<uint64_t>({9, 7, 5, 1}));
}

// Equal values are all kept.
TEST_F(PercentileVectorTest, EqualValuesAllKept) {
    const uint32_t id = create(600, 95);
    for (uint64_t value : {4u, 4u, 4u}) {
        ASSERT_EQ(percentile_add(id, value), 0);
    }
    EXPECT_EQ(percentile_samples_for_test(id), std::vector<uint64_t>({4, 4, 4}));
}

// Ordering uses the low 32 bits only; equal low words put the newest first.
TEST_F(PercentileVectorTest, EqualLowWordsNewestFirst) {
    const uint32_t id = create(600, 95);
    ASSERT_EQ(percentile_add(id, 0x100000005ULL), 0);
    ASSERT_EQ(percentile_add(id, 5), 0);
    EXPECT_EQ(percentile_samples_for_test(id), std::vector<uint64_t>({5, 0x100000005ULL}));
}

// A larger value with a smaller low word sorts below: ordering by the low 32 bits.
TEST_F(PercentileVectorTest, OrderingByLowWordOnly) {
    const uint32_t id = create(600, 95);
    ASSERT_EQ(percentile_add(id, 0x100000001ULL), 0);
    ASSERT_EQ(percentile_add(id, 3), 0);
    EXPECT_EQ(percentile_samples_for_test(id), std::vector<uint64_t>({3, 0x100000001ULL}));
}

// Low words compare by their signed difference, so the order runs on across the low-word wrap.
TEST_F(PercentileVectorTest, OrderRunsOnAcrossTheLowWordWrap) {
    const uint32_t id = create(600, 95);
    for (uint64_t value : {0xFFFFFFF0ULL, 0x5ULL, 0xFFFFFFFFULL}) {
        ASSERT_EQ(percentile_add(id, value), 0);
    }
    EXPECT_EQ(percentile_samples_for_test(id),
              std::vector<uint64_t>({0x5, 0xFFFFFFFFULL, 0xFFFFFFF0ULL}));
}

// Samples more than half the low-word range apart are placed where the walk from the
// largest entry stops, which follows no single order.
TEST_F(PercentileVectorTest, SamplesFarApartPlacedWhereTheWalkStops) {
    const uint32_t id = create(600, 95);
    for (uint64_t value : {0x10ULL, 0xA0000000ULL, 0x50000000ULL}) {
        ASSERT_EQ(percentile_add(id, value), 0);
    }
    EXPECT_EQ(percentile_samples_for_test(id),
              std::vector<uint64_t>({0x50000000ULL, 0x10, 0xA0000000ULL}));
}

// Samples exactly half the low-word range apart do not stay ahead of each other: the
// newer goes first.
TEST_F(PercentileVectorTest, SamplesHalfTheRangeApartNewestFirst) {
    const uint32_t id = create(600, 95);
    for (uint64_t value : {0x0ULL, 0x80000000ULL, 0xC0000000ULL}) {
        ASSERT_EQ(percentile_add(id, value), 0);
    }
    EXPECT_EQ(percentile_samples_for_test(id),
              std::vector<uint64_t>({0xC0000000ULL, 0x80000000ULL, 0x0}));
}

// In a full vector a sample that lands on position keep - 1 is dropped at once.
TEST_F(PercentileVectorTest, SampleLandingOnTheDropPositionIsNotKept) {
    const uint32_t id = create(10, 95);  // keeps 3
    for (uint64_t value : {10u, 9u, 1u, 5u}) {
        ASSERT_EQ(percentile_add(id, value), 0);
    }
    EXPECT_EQ(percentile_samples_for_test(id), std::vector<uint64_t>({10, 9, 1}));
}

// In a full vector a sample equal in its low word to the last of the top entries goes
// before it and pushes the older one out.
TEST_F(PercentileVectorTest, EqualLowWordAtTheTopPushesTheOlderOut) {
    const uint32_t id = create(10, 95);  // keeps 3
    for (uint64_t value : {10ULL, 9ULL, 1ULL, 0x100000009ULL}) {
        ASSERT_EQ(percentile_add(id, value), 0);
    }
    EXPECT_EQ(percentile_samples_for_test(id), std::vector<uint64_t>({10, 0x100000009ULL, 1}));
}

// The surplus entry dropped is the one at position keep - 1, not the last.
TEST_F(PercentileVectorTest, SurplusDroppedAtPositionKeepMinusOne) {
    const uint32_t id = create(600, 95);
    addAscending(id, 1, 33);
    std::vector<uint64_t> expected;
    for (uint64_t value = 33; value >= 3; --value) {
        expected.push_back(value);
    }
    expected.push_back(1);
    EXPECT_EQ(percentile_samples_for_test(id), expected);
}

// With falling samples the trailing entry is always the newest one.
TEST_F(PercentileVectorTest, TrailingEntryFollowsFallingSamples) {
    const uint32_t id = create(600, 95);
    for (uint64_t value = 100; value >= 60; --value) {
        ASSERT_EQ(percentile_add(id, value), 0);
    }
    const std::vector<uint64_t> samples = percentile_samples_for_test(id);
    ASSERT_EQ(samples.size(), 32u);
    EXPECT_EQ(samples[0], 100u);
    EXPECT_EQ(samples[30], 70u);
    EXPECT_EQ(samples[31], 60u);
}

// --- get: checks and result codes 2, 3, 4, 8, 10 ---

// A negative request count returns 3.
TEST_F(PercentileVectorTest, GetNegativeCountReturns3) {
    const uint32_t id = create(600, 95);
    ASSERT_EQ(percentile_add(id, 5), 0);
    PercentileRequest request{95, 0};
    uint32_t count = 0;
    EXPECT_EQ(percentile_get(id, -1, &request, &count), 3);
}

// A negative request count is reported before a null request array.
TEST_F(PercentileVectorTest, NegativeCountBeatsNullArray) {
    uint32_t count = 0;
    EXPECT_EQ(percentile_get(1, -1, nullptr, &count), 3);
}

// A null request array returns 2.
TEST_F(PercentileVectorTest, GetNullArrayReturns2) {
    const uint32_t id = create(600, 95);
    ASSERT_EQ(percentile_add(id, 5), 0);
    uint32_t count = 0;
    EXPECT_EQ(percentile_get(id, 1, nullptr, &count), 2);
}

// A null count pointer returns 2.
TEST_F(PercentileVectorTest, GetNullCountReturns2) {
    const uint32_t id = create(600, 95);
    ASSERT_EQ(percentile_add(id, 5), 0);
    PercentileRequest request{95, 0};
    EXPECT_EQ(percentile_get(id, 1, &request, nullptr), 2);
}

// A null array is reported even with a request count of 0.
TEST_F(PercentileVectorTest, GetNullArrayWithZeroCountReturns2) {
    const uint32_t id = create(600, 95);
    ASSERT_EQ(percentile_add(id, 5), 0);
    uint32_t count = 0;
    EXPECT_EQ(percentile_get(id, 0, nullptr, &count), 2);
}

// A null array is reported before an unknown vector.
TEST_F(PercentileVectorTest, NullArrayBeatsUnknownVector) {
    uint32_t count = 0;
    EXPECT_EQ(percentile_get(9, 1, nullptr, &count), 2);
}

// An unknown vector returns 4.
TEST_F(PercentileVectorTest, GetUnknownReturns4) {
    create(600, 95);
    PercentileRequest request{95, 0};
    uint32_t count = 0;
    EXPECT_EQ(percentile_get(2, 1, &request, &count), 4);
}

// An empty vector returns 10.
TEST_F(PercentileVectorTest, GetEmptyReturns10) {
    const uint32_t id = create(600, 95);
    PercentileRequest request{95, 0};
    uint32_t count = 77;
    EXPECT_EQ(percentile_get(id, 1, &request, &count), 10);
    EXPECT_EQ(count, 77u);
}

// An empty vector is reported before a bad percentile.
TEST_F(PercentileVectorTest, NoSamplesBeatsBadPercentile) {
    const uint32_t id = create(600, 95);
    PercentileRequest request{50, 0};
    uint32_t count = 0;
    EXPECT_EQ(percentile_get(id, 1, &request, &count), 10);
}

// A percentile below the lowest returns 8 and leaves the samples in place.
TEST_F(PercentileVectorTest, PercentileBelowLowestReturns8) {
    const uint32_t id = create(600, 95);
    ASSERT_EQ(percentile_add(id, 5), 0);
    PercentileRequest request{94, 0};
    uint32_t count = 77;
    EXPECT_EQ(percentile_get(id, 1, &request, &count), 8);
    EXPECT_EQ(count, 77u);
    EXPECT_EQ(percentile_samples_for_test(id), std::vector<uint64_t>({5}));
}

// A percentile above 100 returns 8.
TEST_F(PercentileVectorTest, PercentileAbove100Returns8) {
    const uint32_t id = create(600, 95);
    ASSERT_EQ(percentile_add(id, 5), 0);
    PercentileRequest request{101, 0};
    uint32_t count = 0;
    EXPECT_EQ(percentile_get(id, 1, &request, &count), 8);
}

// A negative percentile returns 8.
TEST_F(PercentileVectorTest, NegativePercentileReturns8) {
    const uint32_t id = create(600, 95);
    ASSERT_EQ(percentile_add(id, 5), 0);
    PercentileRequest request{-1, 0};
    uint32_t count = 0;
    EXPECT_EQ(percentile_get(id, 1, &request, &count), 8);
}

// Every percentile is checked before any is answered: a bad last one leaves the first unwritten.
TEST_F(PercentileVectorTest, AllPercentilesCheckedBeforeAnswering) {
    const uint32_t id = create(600, 95);
    ASSERT_EQ(percentile_add(id, 5), 0);
    PercentileRequest requests[2] = {{100, 0}, {90, 0}};
    uint32_t count = 0;
    EXPECT_EQ(percentile_get(id, 2, requests, &count), 8);
    EXPECT_EQ(requests[0].value, 0u);
}

// A request count of 0 reports the count and empties the vector.
TEST_F(PercentileVectorTest, ZeroRequestsReportAndEmpty) {
    const uint32_t id = create(600, 95);
    addAscending(id, 1, 40);
    PercentileRequest untouched{95, 0};
    uint32_t count = 0;
    EXPECT_EQ(percentile_get(id, 0, &untouched, &count), 0);
    EXPECT_EQ(count, 40u);
    EXPECT_EQ(untouched.value, 0u);
    EXPECT_EQ(percentile_samples_for_test(id), std::vector<uint64_t>());
}

// --- get: answers ---

// With one sample every percentile returns it.
TEST_F(PercentileVectorTest, OneSampleAnswersEveryPercentile) {
    const uint32_t id = create(600, 95);
    ASSERT_EQ(percentile_add(id, 7), 0);
    PercentileRequest requests[8] = {{95, 0}, {96, 0},  {97, 0}, {98, 0},
                                     {99, 0}, {100, 0}, {0, 0},  {95, 0}};
    uint32_t count = 0;
    ASSERT_EQ(percentile_get(id, 8, requests, &count), 0);
    EXPECT_EQ(count, 1u);
    for (const PercentileRequest& request : requests) {
        EXPECT_EQ(request.value, 7u) << "percentile " << request.percentile;
    }
}

// 100 samples 1..100 (600/95): p95 95, p98 98, p99 99, p100 100, p0 the last entry 1.
TEST_F(PercentileVectorTest, HundredSamplesAnswerHighPercentiles) {
    const uint32_t id = create(600, 95);
    addAscending(id, 1, 100);
    PercentileRequest requests[5] = {{95, 0}, {98, 0}, {99, 0}, {100, 0}, {0, 0}};
    uint32_t count = 0;
    ASSERT_EQ(percentile_get(id, 5, requests, &count), 0);
    EXPECT_EQ(count, 100u);
    EXPECT_EQ(requests[0].value, 95u);
    EXPECT_EQ(requests[1].value, 98u);
    EXPECT_EQ(requests[2].value, 99u);
    EXPECT_EQ(requests[3].value, 100u);
    EXPECT_EQ(requests[4].value, 1u);
}

// A full vector of 600 samples answers p95 from position 30: the 31st largest, 570.
TEST_F(PercentileVectorTest, FullVectorAnswersP95FromPosition30) {
    const uint32_t id = create(600, 95);
    addAscending(id, 1, 600);
    PercentileRequest requests[3] = {{95, 0}, {98, 0}, {99, 0}};
    uint32_t count = 0;
    ASSERT_EQ(percentile_get(id, 3, requests, &count), 0);
    EXPECT_EQ(count, 600u);
    EXPECT_EQ(requests[0].value, 570u);
    EXPECT_EQ(requests[1].value, 588u);
    EXPECT_EQ(requests[2].value, 594u);
}

// Percentile 0 with falling samples gives the newest, smallest sample.
TEST_F(PercentileVectorTest, PercentileZeroGivesLastEntry) {
    const uint32_t id = create(600, 95);
    for (uint64_t value = 100; value >= 41; --value) {
        ASSERT_EQ(percentile_add(id, value), 0);
    }
    PercentileRequest request{0, 0};
    uint32_t count = 0;
    ASSERT_EQ(percentile_get(id, 1, &request, &count), 0);
    EXPECT_EQ(request.value, 41u);
}

// A read empties the vector: the next read finds no samples.
TEST_F(PercentileVectorTest, ReadEmptiesVector) {
    const uint32_t id = create(600, 95);
    addAscending(id, 1, 10);
    PercentileRequest request{95, 0};
    uint32_t count = 0;
    ASSERT_EQ(percentile_get(id, 1, &request, &count), 0);
    EXPECT_EQ(percentile_samples_for_test(id), std::vector<uint64_t>());
    EXPECT_EQ(percentile_get(id, 1, &request, &count), 10);
}

// After a read the count starts from zero.
TEST_F(PercentileVectorTest, ReadResetsCount) {
    const uint32_t id = create(600, 95);
    addAscending(id, 1, 10);
    PercentileRequest request{100, 0};
    uint32_t count = 0;
    ASSERT_EQ(percentile_get(id, 1, &request, &count), 0);
    ASSERT_EQ(percentile_add(id, 3), 0);
    ASSERT_EQ(percentile_get(id, 1, &request, &count), 0);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(request.value, 3u);
}

// A rank below the smallest kept sample answers with that sample (lowest percentile 1).
TEST_F(PercentileVectorTest, RankPastTheListGivesLastEntry) {
    const uint32_t id = create(10, 1);
    ASSERT_EQ(percentile_add(id, 8), 0);
    ASSERT_EQ(percentile_add(id, 4), 0);
    PercentileRequest requests[3] = {{1, 0}, {50, 0}, {75, 0}};
    uint32_t count = 0;
    ASSERT_EQ(percentile_get(id, 3, requests, &count), 0);
    EXPECT_EQ(requests[0].value, 4u);
    EXPECT_EQ(requests[1].value, 4u);
    EXPECT_EQ(requests[2].value, 8u);
}

// --- remove ---

// Removing an unknown identifier returns 4.
TEST_F(PercentileVectorTest, RemoveUnknownReturns4) {
    create(600, 95);
    EXPECT_EQ(percentile_remove(2), 4);
}

// Removing without any vector returns 4.
TEST_F(PercentileVectorTest, RemoveWithoutVectorsReturns4) {
    EXPECT_EQ(percentile_remove(0), 4);
}

// A removed vector is gone; the others stay.
TEST_F(PercentileVectorTest, RemoveDeletesOnlyThatVector) {
    const uint32_t first = create(600, 95);
    const uint32_t second = create(600, 95);
    ASSERT_EQ(percentile_add(first, 5), 0);
    ASSERT_EQ(percentile_remove(first), 0);
    EXPECT_EQ(percentile_add(first, 6), 4);
    EXPECT_EQ(percentile_add(second, 6), 0);
    EXPECT_EQ(percentile_remove(first), 4);
}

// --- emptying ---

// A read of a large vector sets its entries aside instead of freeing them
// one by one at once; the vector itself is empty and takes samples anew.
TEST_F(PercentileVectorTest, ReadSetsLargeVectorsEntriesAside) {
    const uint32_t id = create(2000, 95);
    addAscending(id, 1, 2000);
    const std::size_t kept = percentile_samples_for_test(id).size();
    ASSERT_GT(kept, 8u);
    PercentileRequest requests[1] = {{95, 0}};
    uint32_t count = 0;
    ASSERT_EQ(percentile_get(id, 1, requests, &count), kPercentileOk);
    EXPECT_EQ(requests[0].value, 1900u);
    EXPECT_TRUE(percentile_samples_for_test(id).empty());
    EXPECT_EQ(percentile_retired_entries_for_test(), kept);
    ASSERT_EQ(percentile_add(id, 7), kPercentileOk);
    EXPECT_EQ(percentile_samples_for_test(id), std::vector<uint64_t>{7});
}

// Each add frees a few of the entries set aside, until none are left; a
// small vector is emptied at once.
TEST_F(PercentileVectorTest, AddsFreeTheEntriesSetAside) {
    const uint32_t large = create(2000, 95);
    const uint32_t small = create(20, 95);
    addAscending(large, 1, 2000);
    addAscending(small, 1, 20);
    PercentileRequest requests[1] = {{95, 0}};
    uint32_t count = 0;
    ASSERT_EQ(percentile_get(small, 1, requests, &count), kPercentileOk);
    EXPECT_EQ(percentile_retired_entries_for_test(), 0u);
    ASSERT_EQ(percentile_get(large, 1, requests, &count), kPercentileOk);
    std::size_t retired = percentile_retired_entries_for_test();
    int adds = 0;
    while (retired > 0 && adds < 1000) {
        ASSERT_EQ(percentile_add(small, 5), kPercentileOk);
        const std::size_t now = percentile_retired_entries_for_test();
        EXPECT_LT(now, retired);
        EXPECT_LE(retired - now, 8u);
        retired = now;
        ++adds;
        if (adds % 19 == 0) {
            ASSERT_EQ(percentile_get(small, 1, requests, &count), kPercentileOk);
        }
    }
    EXPECT_EQ(retired, 0u);
}

// Entries still set aside are freed with the library (the sanitizer and
// valgrind runs see a leak otherwise).
TEST_F(PercentileVectorTest, UninitFreesEntriesSetAside) {
    const uint32_t id = create(2000, 95);
    addAscending(id, 1, 2000);
    PercentileRequest requests[1] = {{99, 0}};
    uint32_t count = 0;
    ASSERT_EQ(percentile_get(id, 1, requests, &count), kPercentileOk);
    ASSERT_GT(percentile_retired_entries_for_test(), 0u);
    EXPECT_TRUE(percentile_uninit());
    EXPECT_EQ(percentile_retired_entries_for_test(), 0u);
    EXPECT_TRUE(percentile_init());
}

}  // namespace
