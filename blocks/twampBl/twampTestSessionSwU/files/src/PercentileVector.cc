#include "PercentileVector.h"

#include <glib.h>

namespace {

// The samples are stored in the sequence's data pointers themselves, so that
// an entry costs one tree node and no allocation of its own.
static_assert(sizeof(gpointer) >= sizeof(uint64_t), "samples are kept in data pointers");

// One vector. Its samples are in descending order (largest first) by the low
// 32 bits, in the order staysAhead below defines.
struct PercentileVectorRecord {
    uint32_t id;
    GSequence* samples;
    // The first (largest) entry, null while there is none. Kept here because
    // the sequence finds its first node by climbing to the root and down
    // again: two walks of the tree's height on every add.
    GSequenceIter* first;
    uint32_t size;   // most samples that may be added before a read
    uint32_t keep;   // entries retained
    uint32_t count;  // samples added since the last read, not the number of entries
    int32_t minPercentile;
    // All samples since the last read lie within less than half the 32-bit
    // range of each other, so the order is a true sort and a sample's place
    // can be found by bisection; otherwise it is found by the walk.
    bool ordered;
};

// The library state, one per process.
struct PercentileLibraryState {
    GHashTable* vectors;  // identifier -> PercentileVectorRecord
    uint32_t nextId;
    // Samples of vectors read and emptied, oldest first, freed a few at a
    // time by the adds that follow (see retireSamples).
    GQueue* retired;
};

PercentileLibraryState* libraryState = nullptr;

constexpr uint32_t kFirstId = 1;
constexpr uint32_t kLastId = 0xFFFFFFFF;
constexpr uint32_t kHalfRange = 0x80000000;
constexpr int32_t kLowestCreatablePercentile = 1;
constexpr int32_t kHighestPercentile = 100;
constexpr int32_t kSmallestKeptPercentile = 0;
// Spare entries kept beyond the top share the lowest percentile needs.
constexpr double kSpareEntries = 2.0;
// A read empties its vector at once up to this many entries; larger ones are
// handed to the adds that follow, each of which frees up to this many.
constexpr gint kEntriesFreedAtOnce = 8;

gpointer toData(uint64_t sample) {
    return reinterpret_cast<gpointer>(static_cast<uintptr_t>(sample));
}

uint64_t sampleAt(GSequenceIter* entry) {
    return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(g_sequence_get(entry)));
}

// The ordering of the samples: an entry stays ahead of a new sample when the
// signed 32-bit difference of their low 32 bits, entry minus sample, is
// positive. A new sample therefore goes before the first entry not greater
// than it (equal values: newest first). Cheap, and a true order while the
// samples differ by less than 2^31 (35 minutes in microseconds); beyond that
// it is not transitive, and only walking the entries from the front places a
// sample where the order has always placed it.
bool staysAhead(uint64_t entry, uint64_t sample) {
    return static_cast<int32_t>(static_cast<uint32_t>(entry) - static_cast<uint32_t>(sample)) > 0;
}

// g_sequence_search calls this as (entry, new sample) and places the sample
// before the first entry for which it is positive.
gint searchOrder(gconstpointer entry, gconstpointer sample, gpointer /*unused*/) {
    const auto entryValue = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(entry));
    const auto sampleValue = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(sample));
    return staysAhead(entryValue, sampleValue) ? -1 : 1;
}

PercentileVectorRecord* findVector(uint32_t id) {
    return static_cast<PercentileVectorRecord*>(
        g_hash_table_lookup(libraryState->vectors, GUINT_TO_POINTER(id)));
}

uint32_t followingId(uint32_t id) {
    return id == kLastId ? kFirstId : id + 1;
}

// Steps from the next identifier past every identifier in use; false when the
// search comes back to where it started. Finding no free identifier needs
// 2^32 - 1 vectors at once, so the daemon never sees it in practice.
bool chooseId(uint32_t* idOut) {
    const uint32_t start = libraryState->nextId;
    uint32_t candidate = start;
    while (findVector(candidate) != nullptr) {
        candidate = followingId(candidate);
        if (candidate == start) {
            return false;
        }
    }
    *idOut = candidate;
    libraryState->nextId = followingId(candidate);
    return true;
}

// The top share of samples the lowest percentile needs, rounded, plus spares.
uint32_t keepFor(uint32_t size, int32_t minPercentile) {
    return static_cast<uint32_t>((100.0 - minPercentile) * size / 100.0 + 0.5 + kSpareEntries);
}

GSequenceIter* lastEntry(const PercentileVectorRecord& vector) {
    return g_sequence_iter_prev(g_sequence_get_end_iter(vector.samples));
}

// The first and last entries of a vector that has some.
struct VectorEnds {
    GSequenceIter* first;
    GSequenceIter* last;
};

// Whether an ordered vector stays ordered with the new sample. Its samples
// span the low words from the last entry's up to the first's, so the new one
// must lie less than half the range above the last or below the first.
bool staysOrderedWith(const VectorEnds& ends, uint64_t sample) {
    const auto low = static_cast<uint32_t>(sample);
    const auto first = static_cast<uint32_t>(sampleAt(ends.first));
    const auto last = static_cast<uint32_t>(sampleAt(ends.last));
    return static_cast<uint32_t>(low - last) < kHalfRange ||
           static_cast<uint32_t>(first - low) < kHalfRange;
}

// Inserts the sample before entry and keeps the first entry current.
void insertBefore(PercentileVectorRecord* vector, GSequenceIter* entry, uint64_t sample) {
    GSequenceIter* added = g_sequence_insert_before(entry, toData(sample));
    if (entry == vector->first) {
        vector->first = added;
    }
}

// Removes the entry and keeps the first entry current.
void removeEntry(PercentileVectorRecord* vector, GSequenceIter* entry) {
    const bool wasFirst = entry == vector->first;
    g_sequence_remove(entry);
    if (wasFirst) {
        vector->first = g_sequence_is_empty(vector->samples)
                            ? nullptr
                            : g_sequence_get_begin_iter(vector->samples);
    }
}

// Where the walk from the front stops for the sample: before the first entry
// it does not stay behind. A sample that beats the first entry (rising
// delays) needs no search; an ordered vector is bisected; otherwise the
// entries are walked.
GSequenceIter* placeFor(const PercentileVectorRecord& vector, GSequenceIter* first,
                        uint64_t sample) {
    if (!staysAhead(sampleAt(first), sample)) {
        return first;
    }
    if (vector.ordered) {
        return g_sequence_search(vector.samples, toData(sample), searchOrder, nullptr);
    }
    GSequenceIter* entry = first;
    while (!g_sequence_iter_is_end(entry) && staysAhead(sampleAt(entry), sample)) {
        entry = g_sequence_iter_next(entry);
    }
    return entry;
}

// Once more samples were added than are kept, the entry at position keep - 1
// is dropped, so the vector holds the keep - 1 largest samples and one
// trailing entry.
void insertAndDropSurplus(PercentileVectorRecord* vector, GSequenceIter* first, uint64_t sample) {
    insertBefore(vector, placeFor(*vector, first, sample), sample);
    if (vector->count <= vector->keep) {
        return;
    }
    GSequenceIter* surplus =
        g_sequence_get_iter_at_pos(vector->samples, static_cast<gint>(vector->keep - 1));
    if (!g_sequence_iter_is_end(surplus)) {
        removeEntry(vector, surplus);
    }
}

// The same for a full ordered vector (keep entries, keep >= 2), with the
// common cases settled by two comparisons: a sample below the last entry
// replaces it, and one that would land on position keep - 1 would be dropped
// at once. Otherwise the entry now at keep - 2 is the one pushed to keep - 1.
void insertIntoFullOrdered(PercentileVectorRecord* vector, const VectorEnds& ends,
                           uint64_t sample) {
    if (staysAhead(sampleAt(ends.last), sample)) {
        g_sequence_set(ends.last, toData(sample));
        return;
    }
    GSequenceIter* surplus = g_sequence_iter_prev(ends.last);
    if (staysAhead(sampleAt(surplus), sample)) {
        return;
    }
    insertBefore(vector, placeFor(*vector, ends.first, sample), sample);
    removeEntry(vector, surplus);
}

// Adds the sample, count already raised for it.
void insertSample(PercentileVectorRecord* vector, uint64_t sample) {
    if (vector->first == nullptr) {
        vector->first = g_sequence_append(vector->samples, toData(sample));
        return;
    }
#ifdef TWAMP_UNIT_TEST
    // The tests' build checks the kept first entry on every add.
    g_assert(vector->first == g_sequence_get_begin_iter(vector->samples));
#endif
    const VectorEnds ends{vector->first, lastEntry(*vector)};
    vector->ordered = vector->ordered && staysOrderedWith(ends, sample);
    if (vector->ordered && vector->count > vector->keep) {
        insertIntoFullOrdered(vector, ends, sample);
    } else {
        insertAndDropSurplus(vector, ends.first, sample);
    }
}

// Emptying a vector of thousands of entries frees one tree node each, most
// of them no longer in any cache: a millisecond or more, at the minute's
// end, in every session at once. A large vector's samples are therefore set
// aside whole and freed in small steps by the adds that follow, which have
// the time: a read costs no more than a few adds, and what is set aside
// never exceeds what was added since.
void retireSamples(PercentileVectorRecord* vector) {
    g_queue_push_tail(libraryState->retired, vector->samples);
    vector->samples = g_sequence_new(nullptr);
}

void freeSomeRetired() {
    auto* oldest = static_cast<GSequence*>(g_queue_peek_head(libraryState->retired));
    if (oldest == nullptr) {
        return;
    }
    if (g_sequence_get_length(oldest) <= kEntriesFreedAtOnce) {
        g_sequence_free(oldest);
        g_queue_pop_head(libraryState->retired);
        return;
    }
    g_sequence_remove_range(g_sequence_get_begin_iter(oldest),
                            g_sequence_get_iter_at_pos(oldest, kEntriesFreedAtOnce));
}

void freeAllRetired() {
    while (!g_queue_is_empty(libraryState->retired)) {
        g_sequence_free(static_cast<GSequence*>(g_queue_pop_head(libraryState->retired)));
    }
}

void emptyVector(PercentileVectorRecord* vector) {
    if (g_sequence_get_length(vector->samples) > kEntriesFreedAtOnce) {
        retireSamples(vector);
    } else {
        g_sequence_remove_range(g_sequence_get_begin_iter(vector->samples),
                                g_sequence_get_end_iter(vector->samples));
    }
    vector->first = nullptr;
    vector->count = 0;
    vector->ordered = true;
}

void freeVector(gpointer data) {
    auto* vector = static_cast<PercentileVectorRecord*>(data);
    g_sequence_free(vector->samples);
    g_free(vector);
}

bool answerable(const PercentileVectorRecord& vector, int32_t percentile) {
    if (percentile == kSmallestKeptPercentile) {
        return true;
    }
    return percentile >= vector.minPercentile && percentile <= kHighestPercentile;
}

bool allAnswerable(const PercentileVectorRecord& vector, int32_t requestCount,
                   const PercentileRequest* requests) {
    for (int32_t i = 0; i < requestCount; ++i) {
        if (!answerable(vector, requests[i].percentile)) {
            return false;
        }
    }
    return true;
}

// The entry holding the percentile: the largest for 100, the last for 0,
// otherwise the entry whose rank from the top matches the percentile.
GSequenceIter* entryFor(const PercentileVectorRecord& vector, int32_t percentile) {
    if (percentile == kHighestPercentile) {
        return vector.first;
    }
    if (percentile == kSmallestKeptPercentile) {
        return lastEntry(vector);
    }
    const auto below = static_cast<uint32_t>(percentile / 100.0 * vector.count + 0.5);
    const uint32_t position = vector.count - below;
    if (position >= static_cast<uint32_t>(g_sequence_get_length(vector.samples))) {
        // Only a low lowest percentile with few samples gets here: a
        // percentile whose rank falls below the smallest kept sample is that
        // sample.
        return lastEntry(vector);
    }
    return g_sequence_get_iter_at_pos(vector.samples, static_cast<gint>(position));
}

void answer(const PercentileVectorRecord& vector, int32_t requestCount,
            PercentileRequest* requests) {
    for (int32_t i = 0; i < requestCount; ++i) {
        requests[i].value = sampleAt(entryFor(vector, requests[i].percentile));
    }
}

}  // namespace

bool percentile_init() {
    if (libraryState == nullptr) {
        libraryState = g_new(PercentileLibraryState, 1);
        libraryState->vectors =
            g_hash_table_new_full(g_direct_hash, g_direct_equal, nullptr, freeVector);
        libraryState->nextId = kFirstId;
        libraryState->retired = g_queue_new();
    }
    return true;
}

bool percentile_uninit() {
    if (libraryState == nullptr) {
        return true;
    }
    g_hash_table_destroy(libraryState->vectors);
    freeAllRetired();
    g_queue_free(libraryState->retired);
    g_free(libraryState);
    libraryState = nullptr;
    return true;
}

int32_t percentile_create(uint32_t size, int32_t minPercentile, uint32_t* idOut) {
    if (libraryState == nullptr) {
        return kPercentileNotInitialized;
    }
    if (size == 0) {
        return kPercentileZeroSize;
    }
    if (minPercentile < kLowestCreatablePercentile || minPercentile > kHighestPercentile) {
        return kPercentileBadMinPercentile;
    }
    // Guards the daemon against a caller without an output: not one of the
    // library's documented failures, reported like the other null outputs.
    if (idOut == nullptr) {
        return kPercentileNullPointer;
    }
    uint32_t id = 0;
    if (!chooseId(&id)) {
        return kPercentileNoFreeId;
    }
    auto* vector = g_new(PercentileVectorRecord, 1);
    vector->id = id;
    vector->samples = g_sequence_new(nullptr);
    vector->first = nullptr;
    vector->size = size;
    vector->keep = keepFor(size, minPercentile);
    vector->count = 0;
    vector->minPercentile = minPercentile;
    vector->ordered = true;
    g_hash_table_insert(libraryState->vectors, GUINT_TO_POINTER(id), vector);
    *idOut = id;
    return kPercentileOk;
}

int32_t percentile_add(uint32_t id, uint64_t value) {
    if (libraryState == nullptr) {
        return kPercentileNotInitialized;
    }
    PercentileVectorRecord* vector = findVector(id);
    if (vector == nullptr) {
        return kPercentileNoSuchVector;
    }
    if (vector->count >= vector->size) {
        return kPercentileVectorFull;
    }
    ++vector->count;
    insertSample(vector, value);
    freeSomeRetired();
    return kPercentileOk;
}

int32_t percentile_get(uint32_t id, int32_t requestCount, PercentileRequest* requests,
                       uint32_t* countOut) {
    if (libraryState == nullptr) {
        return kPercentileNotInitialized;
    }
    if (requestCount < 0) {
        return kPercentileNegativeCount;
    }
    if (requests == nullptr || countOut == nullptr) {
        return kPercentileNullPointer;
    }
    PercentileVectorRecord* vector = findVector(id);
    if (vector == nullptr) {
        return kPercentileNoSuchVector;
    }
    if (vector->count == 0) {
        return kPercentileNoSamples;
    }
    if (!allAnswerable(*vector, requestCount, requests)) {
        return kPercentileBadRequest;
    }
    answer(*vector, requestCount, requests);
    *countOut = vector->count;
    // A read ends the interval.
    emptyVector(vector);
    return kPercentileOk;
}

int32_t percentile_remove(uint32_t id) {
    if (libraryState == nullptr) {
        return kPercentileNotInitialized;
    }
    // The table frees the record with its samples.
    if (!g_hash_table_remove(libraryState->vectors, GUINT_TO_POINTER(id))) {
        return kPercentileNoSuchVector;
    }
    return kPercentileOk;
}

#ifdef TWAMP_UNIT_TEST
std::vector<uint64_t> percentile_samples_for_test(uint32_t id) {
    std::vector<uint64_t> samples;
    if (libraryState == nullptr) {
        return samples;
    }
    const PercentileVectorRecord* vector = findVector(id);
    if (vector == nullptr) {
        return samples;
    }
    for (GSequenceIter* entry = g_sequence_get_begin_iter(vector->samples);
         !g_sequence_iter_is_end(entry); entry = g_sequence_iter_next(entry)) {
        samples.push_back(sampleAt(entry));
    }
    return samples;
}

std::size_t percentile_retired_entries_for_test() {
    std::size_t entries = 0;
    if (libraryState == nullptr) {
        return entries;
    }
    for (GList* link = libraryState->retired->head; link != nullptr; link = link->next) {
        entries +=
            static_cast<std::size_t>(g_sequence_get_length(static_cast<GSequence*>(link->data)));
    }
    return entries;
}

void percentile_set_next_id_for_test(uint32_t nextId) {
    if (libraryState != nullptr) {
        libraryState->nextId = nextId;
    }
}
#endif
