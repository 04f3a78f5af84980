// A random workload for the percentile library, run on both the daemon's
// library and the reference through a PercentileLockstep: vectors of random
// sizes and lowest percentiles are created and removed, samples are added and
// the vectors read at random points, identifiers are steered towards the
// wrap and towards identifiers in use, and calls with bad arguments are mixed
// in. The same seed gives the same calls.
#ifndef TWAMP_PERCENTILE_WORKLOAD_H
#define TWAMP_PERCENTILE_WORKLOAD_H

#include <array>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "PercentileLockstep.h"

// How the samples of a vector are drawn.
enum class SampleShape {
    kNarrow,      // low words within less than half the 32-bit range, many equal
    kEqualLows,   // a few low words under random high words
    kWholeRange,  // low words anywhere, with outliers at and around half the range
};

struct WorkloadProfile {
    SampleShape shape;
    uint32_t maxSize;         // sizes are drawn log-uniformly from 1..maxSize
    uint32_t maxVectors;      // vectors alive at once
    uint32_t lifecycleEvery;  // one create, remove or identifier jump per this many calls
    uint32_t misuseEvery;     // one call with bad arguments per this many calls; 0 for none
};

// What a run did, for the test's report and its coverage checks.
struct WorkloadTally {
    uint64_t calls = 0;
    uint64_t adds = 0;
    uint64_t reads = 0;
    uint64_t creates = 0;
    std::array<uint64_t, 11> codes{};  // how often each result code came back
};

class PercentileWorkload {
  public:
    PercentileWorkload(const WorkloadProfile& profile, uint64_t seed);

    // Initialises both libraries, makes calls until adds samples were added
    // (full vectors included), then un-initialises both; false at the first
    // difference, which mismatch() describes.
    bool run(uint64_t adds);

    const WorkloadTally& tally() const { return tally_; }

    // The first difference and the call number it came at.
    std::string mismatch() const;

  private:
    // How one vector's samples are drawn and when it is read next.
    struct LiveVector {
        uint32_t id;
        uint32_t size;
        int32_t minPercentile;
        uint64_t added;  // add calls since the last read
        uint64_t addsUntilRead;
        uint32_t baseLow;
        uint32_t span;  // low words are baseLow + [0, span)
        uint32_t step;  // 0 for random order, else the stride of a rising or falling run
        bool falling;
        std::array<uint32_t, 3> highWords;
    };

    bool step();
    bool lifecycleCall();
    bool misuseCall();
    bool createVector();
    bool removeVector();
    bool jumpNextId();
    bool restartLibraries();
    bool addTo(LiveVector& vector);
    bool read(LiveVector& vector);
    bool misuseCreate();
    bool misuseGet();
    bool callsWithoutLibrary();

    uint64_t drawSample(LiveVector& vector);
    uint32_t drawSize();
    int32_t drawMinPercentile();
    uint64_t drawAddsUntilRead(uint32_t size);
    std::vector<int32_t> drawPercentiles(int32_t minPercentile, bool oneInvalid);
    uint32_t drawUnusedId();
    uint32_t below(uint64_t bound);  // uniform in 0..bound-1
    bool chance(uint32_t oneIn);     // true once in oneIn on average
    void count(int32_t code);

    const WorkloadProfile profile_;
    std::mt19937_64 random_;
    PercentileLockstep lockstep_;
    std::vector<LiveVector> vectors_;
    WorkloadTally tally_;
};

#endif  // TWAMP_PERCENTILE_WORKLOAD_H
