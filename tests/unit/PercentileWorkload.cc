#include "PercentileWorkload.h"

#include <algorithm>
#include <climits>

#include "PercentileVector.h"

namespace {

constexpr uint32_t kHalfRange = 0x80000000U;

// Spans of low words per shape. Low words closer than half the range compare
// by their difference; 0x80000000 makes the widest span that still does.
constexpr std::array<uint32_t, 8> kNarrowSpans = {
    1, 2, 7, 200, 5000, 1 << 20, kHalfRange - 1, kHalfRange};
constexpr std::array<uint32_t, 4> kEqualLowSpans = {1, 2, 3, 5};
constexpr std::array<uint32_t, 5> kWholeRangeSpans = {1, 200, 1 << 20, kHalfRange, 0xFFFFFFFFU};

// Distances of outliers from the ends of a vector's span: at, just below and
// just above half the range, where the signed comparison of low words turns.
constexpr std::array<uint32_t, 5> kOutlierDistances = {kHalfRange - 1, kHalfRange, kHalfRange + 1,
                                                       kHalfRange + 7, kHalfRange - 7};

constexpr std::array<int32_t, 4> kInvalidPercentiles = {101, -1, INT32_MAX, INT32_MIN};
constexpr std::array<int32_t, 5> kInvalidMinPercentiles = {0, 101, -5, INT32_MIN, INT32_MAX};
constexpr std::array<int32_t, 2> kNegativeCounts = {-1, INT32_MIN};
constexpr uint32_t kLastId = 0xFFFFFFFFU;

}  // namespace

PercentileWorkload::PercentileWorkload(const WorkloadProfile& profile, uint64_t seed)
    : profile_(profile), random_(seed) {}

bool PercentileWorkload::run(uint64_t adds) {
    if (!lockstep_.init()) {
        return false;
    }
    while (tally_.adds < adds) {
        if (!step()) {
            return false;
        }
    }
    for (const LiveVector& vector : vectors_) {
        if (!lockstep_.sameSamples(vector.id)) {
            return false;
        }
    }
    vectors_.clear();
    return lockstep_.uninit();
}

std::string PercentileWorkload::mismatch() const {
    return "call " + std::to_string(tally_.calls) + ": " + lockstep_.mismatch();
}

// One call: mostly an add or a due read on a random vector.
bool PercentileWorkload::step() {
    ++tally_.calls;
    if (vectors_.empty() || chance(profile_.lifecycleEvery)) {
        return lifecycleCall();
    }
    if (profile_.misuseEvery != 0 && chance(profile_.misuseEvery)) {
        return misuseCall();
    }
    LiveVector& vector = vectors_[below(vectors_.size())];
    return vector.added >= vector.addsUntilRead ? read(vector) : addTo(vector);
}

bool PercentileWorkload::lifecycleCall() {
    const uint32_t choice = below(10);
    if (vectors_.empty() || choice < 4) {
        return vectors_.size() < profile_.maxVectors ? createVector() : removeVector();
    }
    if (choice < 7) {
        return removeVector();
    }
    if (choice == 9 && chance(10)) {
        return restartLibraries();
    }
    return jumpNextId();
}

bool PercentileWorkload::misuseCall() {
    switch (below(6)) {
        case 0:
            return misuseCreate();
        case 1: {
            int32_t code = 0;
            const bool same = lockstep_.add(drawUnusedId(), random_(), &code);
            count(code);
            return same;
        }
        case 2:
            return misuseGet();
        case 3: {
            int32_t code = 0;
            const bool same = lockstep_.remove(drawUnusedId(), &code);
            count(code);
            return same;
        }
        case 4:
            return lockstep_.init();
        default:
            if (vectors_.empty()) {
                return true;
            }
            // A read with a percentile below the lowest or above 100.
            LiveVector& vector = vectors_[below(vectors_.size())];
            int32_t code = 0;
            const bool same = lockstep_.get(vector.id, 1, {kInvalidPercentiles[below(4)]},
                                            NullOutputs::kNone, &code);
            count(code);
            return same;
    }
}

bool PercentileWorkload::createVector() {
    const uint32_t size = drawSize();
    const int32_t minPercentile = drawMinPercentile();
    int32_t code = 0;
    uint32_t id = 0;
    if (!lockstep_.create(size, minPercentile, true, &code, &id)) {
        return false;
    }
    count(code);
    ++tally_.creates;
    if (code != kPercentileOk) {
        return true;
    }
    LiveVector vector{};
    vector.id = id;
    vector.size = size;
    vector.minPercentile = minPercentile;
    vector.addsUntilRead = drawAddsUntilRead(size);
    switch (profile_.shape) {
        case SampleShape::kNarrow:
            vector.span = kNarrowSpans[below(kNarrowSpans.size())];
            break;
        case SampleShape::kEqualLows:
            vector.span = kEqualLowSpans[below(kEqualLowSpans.size())];
            break;
        case SampleShape::kWholeRange:
            vector.span = kWholeRangeSpans[below(kWholeRangeSpans.size())];
            break;
    }
    vector.baseLow = static_cast<uint32_t>(random_());
    vector.step = chance(3) ? 1 + below(std::min<uint32_t>(vector.span, 1000)) : 0;
    vector.falling = chance(2);
    const auto sharedHigh = chance(4) ? static_cast<uint32_t>(random_()) : 0;
    for (uint32_t& high : vector.highWords) {
        high = profile_.shape == SampleShape::kEqualLows ? static_cast<uint32_t>(random_())
                                                         : sharedHigh;
    }
    vectors_.push_back(vector);
    return true;
}

bool PercentileWorkload::removeVector() {
    const size_t index = below(vectors_.size());
    int32_t code = 0;
    if (!lockstep_.sameSamples(vectors_[index].id) ||
        !lockstep_.remove(vectors_[index].id, &code)) {
        return false;
    }
    count(code);
    if (code == kPercentileOk) {
        vectors_.erase(vectors_.begin() + static_cast<std::ptrdiff_t>(index));
    }
    return true;
}

// Starts the next identifier search near the wrap, at or just after an
// identifier in use, or anywhere.
bool PercentileWorkload::jumpNextId() {
    uint32_t nextId = 0;
    const uint32_t choice = below(4);
    if (choice == 0) {
        nextId = kLastId - below(3);
    } else if (choice < 3 && !vectors_.empty()) {
        nextId = vectors_[below(vectors_.size())].id + below(2);
    } else {
        nextId = static_cast<uint32_t>(random_());
    }
    // The library itself never starts a search at 0.
    lockstep_.setNextId(nextId == 0 ? 1 : nextId);
    return true;
}

// Frees both libraries with all their vectors, calls them uninitialised and
// initialises them again.
bool PercentileWorkload::restartLibraries() {
    if (!lockstep_.uninit()) {
        return false;
    }
    vectors_.clear();
    return callsWithoutLibrary() && lockstep_.uninit() && lockstep_.init();
}

bool PercentileWorkload::addTo(LiveVector& vector) {
    int32_t code = 0;
    if (!lockstep_.add(vector.id, drawSample(vector), &code)) {
        return false;
    }
    count(code);
    ++tally_.adds;
    ++vector.added;
    return !chance(64) || lockstep_.sameSamples(vector.id);
}

bool PercentileWorkload::read(LiveVector& vector) {
    if (!lockstep_.sameSamples(vector.id)) {
        return false;
    }
    const std::vector<int32_t> percentiles = drawPercentiles(vector.minPercentile, chance(30));
    int32_t code = 0;
    if (!lockstep_.get(vector.id, static_cast<int32_t>(percentiles.size()), percentiles,
                       NullOutputs::kNone, &code)) {
        return false;
    }
    count(code);
    ++tally_.reads;
    if (code == kPercentileOk || code == kPercentileNoSamples) {
        vector.added = 0;
        vector.addsUntilRead = drawAddsUntilRead(vector.size);
    }
    return lockstep_.sameSamples(vector.id);
}

// A create with at least one bad argument, or a good one without an output.
bool PercentileWorkload::misuseCreate() {
    const uint32_t size = chance(2) ? 0 : drawSize();
    const int32_t minPercentile =
        chance(2) ? kInvalidMinPercentiles[below(5)] : drawMinPercentile();
    int32_t code = 0;
    uint32_t id = 0;
    const bool same = lockstep_.create(size, minPercentile, false, &code, &id);
    count(code);
    return same;
}

// A read with a negative count, null outputs or an unknown identifier.
bool PercentileWorkload::misuseGet() {
    const bool known = !vectors_.empty() && chance(2);
    LiveVector* vector = known ? &vectors_[below(vectors_.size())] : nullptr;
    const std::vector<int32_t> percentiles =
        drawPercentiles(known ? vector->minPercentile : 95, chance(4));
    auto requestCount = static_cast<int32_t>(percentiles.size());
    if (chance(2)) {
        requestCount = kNegativeCounts[below(2)];
    }
    const auto nullOutputs = static_cast<NullOutputs>(below(4));
    int32_t code = 0;
    if (!lockstep_.get(known ? vector->id : drawUnusedId(), requestCount, percentiles, nullOutputs,
                       &code)) {
        return false;
    }
    count(code);
    if (known && (code == kPercentileOk || code == kPercentileNoSamples)) {
        vector->added = 0;
        vector->addsUntilRead = drawAddsUntilRead(vector->size);
    }
    return true;
}

// Every call of the library without its state.
bool PercentileWorkload::callsWithoutLibrary() {
    int32_t code = 0;
    uint32_t id = 0;
    if (!lockstep_.create(drawSize(), drawMinPercentile(), true, &code, &id)) {
        return false;
    }
    count(code);
    if (!lockstep_.add(1 + below(5), random_(), &code)) {
        return false;
    }
    count(code);
    if (!lockstep_.get(1 + below(5), -1, {95}, NullOutputs::kBoth, &code)) {
        return false;
    }
    count(code);
    if (!lockstep_.remove(1 + below(5), &code)) {
        return false;
    }
    count(code);
    return true;
}

// The vector's next sample: a low word in its span, in random order or along
// a rising or falling run, under one of its high words; in the whole-range
// shape one sample in eight is an outlier about half the range away.
uint64_t PercentileWorkload::drawSample(LiveVector& vector) {
    uint32_t offset = 0;
    if (vector.step == 0) {
        offset = below(vector.span);
    } else {
        offset = static_cast<uint32_t>((vector.added * vector.step) % vector.span);
        if (vector.falling) {
            offset = vector.span - 1 - offset;
        }
    }
    uint32_t low = vector.baseLow + offset;
    if (profile_.shape == SampleShape::kWholeRange && chance(8)) {
        const uint32_t anchor = chance(2) ? vector.baseLow : vector.baseLow + vector.span - 1;
        low = chance(4) ? static_cast<uint32_t>(random_())
                        : anchor + kOutlierDistances[below(kOutlierDistances.size())];
    }
    const uint32_t high = vector.highWords[below(vector.highWords.size())];
    return (static_cast<uint64_t>(high) << 32) | low;
}

// Log-uniform in 1..maxSize, so that small vectors (fewer samples than
// entries kept) come as often as large ones.
uint32_t PercentileWorkload::drawSize() {
    uint32_t bits = 0;
    while ((uint64_t{1} << bits) < profile_.maxSize) {
        ++bits;
    }
    const uint64_t top = std::min<uint64_t>(uint64_t{1} << below(bits + 1), profile_.maxSize);
    return 1 + below(top);
}

// Half the vectors answer 95 and above, as the daemon's do.
int32_t PercentileWorkload::drawMinPercentile() {
    return chance(2) ? 95 : static_cast<int32_t>(1 + below(100));
}

// Mostly a read before the vector is full (sometimes before any sample); one
// vector in four is filled and then offered more samples than it takes.
uint64_t PercentileWorkload::drawAddsUntilRead(uint32_t size) {
    if (chance(4)) {
        return size + below(size / 4 + 3);
    }
    return below(uint64_t{size} + 1);
}

// Up to five percentiles: 0, 100, the lowest, or any answerable one; with
// oneInvalid one of them is not answerable.
std::vector<int32_t> PercentileWorkload::drawPercentiles(int32_t minPercentile, bool oneInvalid) {
    std::vector<int32_t> percentiles(below(6));
    for (int32_t& percentile : percentiles) {
        switch (below(4)) {
            case 0:
                percentile = 0;
                break;
            case 1:
                percentile = 100;
                break;
            case 2:
                percentile = minPercentile;
                break;
            default:
                percentile = minPercentile + static_cast<int32_t>(below(101 - minPercentile));
                break;
        }
    }
    if (oneInvalid && !percentiles.empty()) {
        int32_t invalid = kInvalidPercentiles[below(kInvalidPercentiles.size())];
        if (minPercentile > 1 && chance(2)) {
            invalid = minPercentile - 1;
        }
        percentiles[below(percentiles.size())] = invalid;
    }
    return percentiles;
}

// An identifier no live vector has: 0, the one after the largest in use, or any.
uint32_t PercentileWorkload::drawUnusedId() {
    for (;;) {
        uint32_t candidate = static_cast<uint32_t>(random_());
        const uint32_t choice = below(4);
        if (choice == 0) {
            candidate = 0;
        } else if (choice == 1 && !vectors_.empty()) {
            candidate = 1 + std::max_element(vectors_.begin(), vectors_.end(),
                                             [](const LiveVector& a, const LiveVector& b) {
                                                 return a.id < b.id;
                                             })
                                ->id;
        }
        const bool inUse =
            std::any_of(vectors_.begin(), vectors_.end(),
                        [candidate](const LiveVector& v) { return v.id == candidate; });
        if (!inUse) {
            return candidate;
        }
    }
}

uint32_t PercentileWorkload::below(uint64_t bound) {
    return static_cast<uint32_t>(random_() % bound);
}

bool PercentileWorkload::chance(uint32_t oneIn) {
    return oneIn != 0 && random_() % oneIn == 0;
}

void PercentileWorkload::count(int32_t code) {
    if (code >= 0 && code < static_cast<int32_t>(tally_.codes.size())) {
        ++tally_.codes[static_cast<size_t>(code)];
    }
}
