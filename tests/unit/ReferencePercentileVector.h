// The percentile library as it was built on sorted GLib lists, kept under its
// own names as the reference the differential test compares the daemon's
// library with. Every function behaves as its percentile_ namesake did; the
// result codes and the request type are the daemon's.
//
// It is slow on purpose (each add walks the sorted list twice, each call walks
// the list of vectors): its only job is to be obviously the old behaviour.
#ifndef TWAMP_REFERENCE_PERCENTILE_VECTOR_H
#define TWAMP_REFERENCE_PERCENTILE_VECTOR_H

#include <cstdint>
#include <vector>

#include "PercentileVector.h"

// Creates the library state; true, also when it already exists.
bool reference_percentile_init();

// Frees every vector with its samples, then the library state; always true.
bool reference_percentile_uninit();

// Creates a vector for at most size samples per read, answering minPercentile
// and above; its identifier (never 0) goes to idOut.
int32_t reference_percentile_create(uint32_t size, int32_t minPercentile, uint32_t* idOut);

// Adds one sample to the vector.
int32_t reference_percentile_add(uint32_t id, uint64_t value);

// Answers requestCount requests, reports the samples added since the last read
// in countOut and empties the vector.
int32_t reference_percentile_get(uint32_t id, int32_t requestCount, PercentileRequest* requests,
                                 uint32_t* countOut);

// Deletes the vector with its samples.
int32_t reference_percentile_remove(uint32_t id);

// The kept samples of the vector in list order (largest first), empty when
// there is no such vector.
std::vector<uint64_t> reference_percentile_samples(uint32_t id);

// Sets the identifier the next creation starts its search at.
void reference_percentile_set_next_id(uint32_t nextId);

#endif  // TWAMP_REFERENCE_PERCENTILE_VECTOR_H
