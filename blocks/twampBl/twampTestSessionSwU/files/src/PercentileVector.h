// Percentile vectors: a process-wide library of plain functions with integer
// result codes.
//
// Each vector collects the samples of one metric over one measurement
// interval, but keeps only the largest share of them: enough to answer the
// high percentiles (its lowest percentile and above) exactly without storing
// every sample. Reading a vector answers the requested percentiles and ends
// the interval: the samples are dropped and the vector starts anew.
//
// The library keeps each vector's samples in a GLib sequence (a balanced tree
// with positions), so that adding a sample and reading a percentile cost
// O(log n) in the entries kept, and finds a vector by its identifier in a GLib
// hash table. Only samples more than half the 32-bit range apart (the order
// compares low words by their signed difference) are placed by a walk over
// the entries instead. A read empties a large vector by setting its entries
// aside, and the adds that follow free them a few at a time, so that no one
// call frees thousands of nodes. All memory comes from GLib's allocators.
// One thread only; there is no lock.
#ifndef TWAMP_PERCENTILE_VECTOR_H
#define TWAMP_PERCENTILE_VECTOR_H

#include <cstdint>

#ifdef TWAMP_UNIT_TEST
#include <cstddef>
#include <vector>
#endif

// Result codes of the library.
constexpr int32_t kPercentileOk = 0;
constexpr int32_t kPercentileNotInitialized = 1;
constexpr int32_t kPercentileNullPointer = 2;       // null request array or output pointer
constexpr int32_t kPercentileNegativeCount = 3;     // negative request count
constexpr int32_t kPercentileNoSuchVector = 4;      // no vector with the identifier
constexpr int32_t kPercentileNoFreeId = 5;          // every identifier is in use
constexpr int32_t kPercentileZeroSize = 6;          // size 0 at creation
constexpr int32_t kPercentileBadMinPercentile = 7;  // lowest percentile out of 1..100
constexpr int32_t kPercentileBadRequest = 8;        // requested percentile not answerable
constexpr int32_t kPercentileVectorFull = 9;        // size samples added since the last read
constexpr int32_t kPercentileNoSamples = 10;        // nothing added since the last read

// One requested percentile and the value the read fills in for it.
struct PercentileRequest {
    int32_t percentile;  // 1..100 (at least the lowest percentile), or 0 for the smallest kept
    uint64_t value;
};

// Creates the library state; true, also when it already exists.
bool percentile_init();

// Frees every vector with its samples, then the library state; always true.
bool percentile_uninit();

// Creates a vector for at most size samples per read, answering minPercentile
// and above; its identifier (never 0) goes to idOut.
int32_t percentile_create(uint32_t size, int32_t minPercentile, uint32_t* idOut);

// Adds one sample to the vector.
int32_t percentile_add(uint32_t id, uint64_t value);

// Answers requestCount requests, reports the samples added since the last read
// in countOut and empties the vector. With requestCount 0 it only reports and
// empties.
int32_t percentile_get(uint32_t id, int32_t requestCount, PercentileRequest* requests,
                       uint32_t* countOut);

// Deletes the vector with its samples.
int32_t percentile_remove(uint32_t id);

#ifdef TWAMP_UNIT_TEST
// Unit tests only: the kept samples of the vector in order (largest
// first), empty when there is no such vector. Its length shows how many
// entries the vector keeps.
std::vector<uint64_t> percentile_samples_for_test(uint32_t id);

// Unit tests only: the entries of emptied vectors not yet freed.
std::size_t percentile_retired_entries_for_test();

// Unit tests only: sets the identifier the next creation starts its search at.
void percentile_set_next_id_for_test(uint32_t nextId);
#endif

#endif  // TWAMP_PERCENTILE_VECTOR_H
