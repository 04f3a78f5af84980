#include "ReferencePercentileVector.h"

#include <glib.h>

// The list implementation, unchanged but for the names of its functions.
namespace {

// One vector. Its samples are individually allocated uint64_t values in a
// list kept in descending order (largest first).
struct PercentileVectorRecord {
    uint32_t id;
    GList* samples;
    uint32_t size;   // most samples that may be added before a read
    uint32_t keep;   // list entries retained
    uint32_t count;  // samples added since the last read, not the list length
    int32_t minPercentile;
};

// The library state, one per process.
struct PercentileLibraryState {
    GList* vectors;
    uint32_t vectorCount;
    uint32_t nextId;
};

PercentileLibraryState* libraryState = nullptr;

constexpr uint32_t kFirstId = 1;
constexpr uint32_t kLastId = 0xFFFFFFFF;
constexpr int32_t kLowestCreatablePercentile = 1;
constexpr int32_t kHighestPercentile = 100;
constexpr int32_t kSmallestKeptPercentile = 0;
// Spare entries kept beyond the top share the lowest percentile needs.
constexpr double kSpareEntries = 2.0;

GList* findVectorNode(uint32_t id) {
    for (GList* node = g_list_first(libraryState->vectors); node != nullptr; node = node->next) {
        if (static_cast<PercentileVectorRecord*>(node->data)->id == id) {
            return node;
        }
    }
    return nullptr;
}

PercentileVectorRecord* findVector(uint32_t id) {
    GList* node = findVectorNode(id);
    return node == nullptr ? nullptr : static_cast<PercentileVectorRecord*>(node->data);
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

// GLib calls this as (new sample, list sample) and walks on while the result
// is positive, so a new sample goes before the first entry not greater than
// it (equal values: newest first). Only the low 32 bits are compared, as a
// signed difference: cheap, and exact while samples differ by less than 2^31
// (35 minutes in microseconds).
gint compareDescending(gconstpointer newSample, gconstpointer listSample) {
    const auto newLow = static_cast<uint32_t>(*static_cast<const uint64_t*>(newSample));
    const auto listLow = static_cast<uint32_t>(*static_cast<const uint64_t*>(listSample));
    return static_cast<int32_t>(listLow - newLow);
}

// Once more samples were added than are kept, drops the entry at position
// keep - 1, so the list holds the keep - 1 largest samples and one trailing
// entry.
void dropSurplus(PercentileVectorRecord* vector) {
    if (vector->count <= vector->keep) {
        return;
    }
    GList* surplus = g_list_nth(vector->samples, vector->keep - 1);
    if (surplus == nullptr) {
        return;
    }
    vector->samples = g_list_remove_link(vector->samples, surplus);
    g_list_free_full(surplus, g_free);
}

void emptyVector(PercentileVectorRecord* vector) {
    g_list_free_full(vector->samples, g_free);
    vector->samples = nullptr;
    vector->count = 0;
}

void freeVector(gpointer data) {
    auto* vector = static_cast<PercentileVectorRecord*>(data);
    g_list_free_full(vector->samples, g_free);
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

// The list entry holding the percentile: the largest for 100, the last for 0,
// otherwise the entry whose rank from the top matches the percentile.
GList* entryFor(const PercentileVectorRecord& vector, int32_t percentile) {
    if (percentile == kHighestPercentile) {
        return g_list_first(vector.samples);
    }
    if (percentile == kSmallestKeptPercentile) {
        return g_list_last(vector.samples);
    }
    const auto below = static_cast<uint32_t>(percentile / 100.0 * vector.count + 0.5);
    GList* entry = g_list_nth(vector.samples, vector.count - below);
    if (entry == nullptr) {
        // Only a low lowest percentile with few samples gets here: a
        // percentile whose rank falls below the smallest kept sample is that
        // sample.
        entry = g_list_last(vector.samples);
    }
    return entry;
}

void answer(const PercentileVectorRecord& vector, int32_t requestCount,
            PercentileRequest* requests) {
    for (int32_t i = 0; i < requestCount; ++i) {
        GList* entry = entryFor(vector, requests[i].percentile);
        requests[i].value = *static_cast<const uint64_t*>(entry->data);
    }
}

}  // namespace

bool reference_percentile_init() {
    if (libraryState == nullptr) {
        libraryState =
            static_cast<PercentileLibraryState*>(g_malloc(sizeof(PercentileLibraryState)));
        libraryState->vectors = nullptr;
        libraryState->vectorCount = 0;
        libraryState->nextId = kFirstId;
    }
    return true;
}

bool reference_percentile_uninit() {
    if (libraryState == nullptr) {
        return true;
    }
    g_list_free_full(libraryState->vectors, freeVector);
    g_free(libraryState);
    libraryState = nullptr;
    return true;
}

int32_t reference_percentile_create(uint32_t size, int32_t minPercentile, uint32_t* idOut) {
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
    auto* vector = static_cast<PercentileVectorRecord*>(g_malloc(sizeof(PercentileVectorRecord)));
    vector->id = id;
    vector->samples = nullptr;
    vector->size = size;
    vector->keep = keepFor(size, minPercentile);
    vector->count = 0;
    vector->minPercentile = minPercentile;
    libraryState->vectors = g_list_append(libraryState->vectors, vector);
    ++libraryState->vectorCount;
    *idOut = id;
    return kPercentileOk;
}

int32_t reference_percentile_add(uint32_t id, uint64_t value) {
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
    auto* sample = static_cast<uint64_t*>(g_malloc(sizeof(uint64_t)));
    *sample = value;
    vector->samples = g_list_insert_sorted(vector->samples, sample, compareDescending);
    ++vector->count;
    dropSurplus(vector);
    return kPercentileOk;
}

int32_t reference_percentile_get(uint32_t id, int32_t requestCount, PercentileRequest* requests,
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

int32_t reference_percentile_remove(uint32_t id) {
    if (libraryState == nullptr) {
        return kPercentileNotInitialized;
    }
    GList* node = findVectorNode(id);
    if (node == nullptr) {
        return kPercentileNoSuchVector;
    }
    libraryState->vectors = g_list_remove_link(libraryState->vectors, node);
    g_list_free_full(node, freeVector);
    --libraryState->vectorCount;
    return kPercentileOk;
}

std::vector<uint64_t> reference_percentile_samples(uint32_t id) {
    std::vector<uint64_t> samples;
    if (libraryState == nullptr) {
        return samples;
    }
    const PercentileVectorRecord* vector = findVector(id);
    if (vector == nullptr) {
        return samples;
    }
    for (GList* node = g_list_first(vector->samples); node != nullptr; node = node->next) {
        samples.push_back(*static_cast<const uint64_t*>(node->data));
    }
    return samples;
}

void reference_percentile_set_next_id(uint32_t nextId) {
    if (libraryState != nullptr) {
        libraryState->nextId = nextId;
    }
}
