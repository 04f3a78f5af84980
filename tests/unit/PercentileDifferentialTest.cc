// The daemon's percentile library against the reference list implementation,
// call by call, over random workloads.
//
// Each run prints its seed; TWAMP_PERCENTILE_SEED repeats a run (decimal or
// 0x hex). TWAMP_PERCENTILE_SCALE multiplies the number of samples (default 1,
// about ten seconds for all tests together; sanitizer builds run a third of
// that unless the variable is set). A long run, for instance before a change
// to the library is merged, goes past CTest's time limit and is started
// directly (30 takes about five minutes):
//
//     TWAMP_PERCENTILE_SCALE=30 build/tests/unit/percentile_differential_tests
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>

#include "PercentileVector.h"
#include "PercentileWorkload.h"

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr double kDefaultScale = 0.3;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr double kDefaultScale = 0.3;
#else
constexpr double kDefaultScale = 1.0;
#endif
#else
constexpr double kDefaultScale = 1.0;
#endif

uint64_t seedFromEnvironment() {
    const char* text = std::getenv("TWAMP_PERCENTILE_SEED");
    if (text != nullptr && *text != '\0') {
        return std::strtoull(text, nullptr, 0);
    }
    std::random_device device;
    return (static_cast<uint64_t>(device()) << 32) | device();
}

double scaleFromEnvironment() {
    const char* text = std::getenv("TWAMP_PERCENTILE_SCALE");
    if (text != nullptr && *text != '\0') {
        return std::strtod(text, nullptr);
    }
    return kDefaultScale;
}

// Runs one profile with the environment's seed and scale.
class PercentileDifferentialTest : public ::testing::Test {
  protected:
    void SetUp() override {
        seed_ = seedFromEnvironment();
        RecordProperty("seed", std::to_string(seed_));
    }

    // Runs the workload for the scaled number of samples; false at the first
    // difference between the two libraries.
    ::testing::AssertionResult matchesReference(const WorkloadProfile& profile, double samples) {
        const auto adds = static_cast<uint64_t>(samples * scaleFromEnvironment());
        PercentileWorkload workload(profile, seed_);
        const bool same = workload.run(adds);
        tally_ = workload.tally();
        std::printf(
            "seed %llu (TWAMP_PERCENTILE_SEED repeats it): %llu calls, %llu adds, %llu "
            "reads, %llu creates\n",
            static_cast<unsigned long long>(seed_), static_cast<unsigned long long>(tally_.calls),
            static_cast<unsigned long long>(tally_.adds),
            static_cast<unsigned long long>(tally_.reads),
            static_cast<unsigned long long>(tally_.creates));
        if (!same) {
            return ::testing::AssertionFailure() << "seed " << seed_ << ", " << workload.mismatch();
        }
        return ::testing::AssertionSuccess();
    }

    // How often the result code came back in the last run.
    uint64_t timesReturned(int32_t code) const { return tally_.codes[static_cast<size_t>(code)]; }

    uint64_t seed_ = 0;
    WorkloadTally tally_;
};

// Delays within less than half the 32-bit range, many of them equal, into vectors of
// up to a minute at 100 packets/s, read at random points or after filling up.
TEST_F(PercentileDifferentialTest, NarrowSamplesMatchReference) {
    const WorkloadProfile profile{SampleShape::kNarrow, 6000, 4, 2000, 0};
    EXPECT_TRUE(matchesReference(profile, 2.0e6));
    EXPECT_GT(timesReturned(kPercentileVectorFull), 0u);
}

// Samples equal in their low 32 bits but not above: the newest of equals comes first
// and each read answers with the full value of the entry it picks.
TEST_F(PercentileDifferentialTest, EqualLowWordsMatchReference) {
    const WorkloadProfile profile{SampleShape::kEqualLows, 2000, 4, 2000, 0};
    EXPECT_TRUE(matchesReference(profile, 1.0e6));
}

// Low words anywhere in the 32-bit range, with outliers at and around half the range,
// where comparing by the signed difference no longer gives a consistent order.
TEST_F(PercentileDifferentialTest, LowWordsAcrossTheWholeRangeMatchReference) {
    const WorkloadProfile profile{SampleShape::kWholeRange, 2000, 4, 2000, 0};
    EXPECT_TRUE(matchesReference(profile, 1.0e6));
}

// Calls with bad arguments and without the library return the reference's codes: every
// code but 5, which needs 2^32 - 1 vectors at once.
TEST_F(PercentileDifferentialTest, ResultCodesMatchReference) {
    const WorkloadProfile profile{SampleShape::kNarrow, 40, 6, 8, 4};
    EXPECT_TRUE(matchesReference(profile, 1.0e5));
    for (int32_t code : {0, 1, 2, 3, 4, 6, 7, 8, 9, 10}) {
        EXPECT_GT(timesReturned(code), 0u) << "result code " << code;
    }
}

// Creates and removes interleaved, with the search started near the wrap and at
// identifiers in use, choose the reference's identifiers.
TEST_F(PercentileDifferentialTest, IdentifierChoiceMatchesReference) {
    const WorkloadProfile profile{SampleShape::kNarrow, 20, 12, 2, 0};
    EXPECT_TRUE(matchesReference(profile, 2.0e5));
    // About one call in five creates a vector.
    EXPECT_GT(tally_.creates * 10, tally_.calls);
}

}  // namespace
