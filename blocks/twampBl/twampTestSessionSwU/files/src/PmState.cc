#include "PmState.h"

#include "PercentileVector.h"
#include "TraceFacade.h"

namespace {

constexpr uint32_t kSecondsPerMinute = 60;
// The lowest percentile the counters ask for.
constexpr int32_t kLowestPercentile = 95;
constexpr int32_t kRequestCount = 3;

}  // namespace

PmState::~PmState() {
    const int32_t result = percentile_remove(vectorId);
    if (result != kPercentileOk) {
        TRACE_ERROR("Can't delete percentile vector %u, result code %d", vectorId, result);
    }
}

// Creating the vector is one step of init, whichever entry was taken.
constexpr const char* kInit = "init";

bool PmState::init(uint32_t packetsPerSecond) {
    return initForSamples(packetsPerSecond * kSecondsPerMinute);
}

bool PmState::initForSamples(uint32_t samplesPerMinute) {
    const int32_t result = percentile_create(samplesPerMinute, kLowestPercentile, &vectorId);
    if (result != kPercentileOk) {
        TRACE_ERROR_AS(kInit, "Can't create percentile vector, result code %d", result);
        return false;
    }
    TRACE_LAB_AS(kInit, "Vector %u created", vectorId);
    return true;
}

bool PmState::addSample(uint64_t value) {
    // Minimum and maximum see every sample, also one the vector refuses.
    if (count == 0) {
        min = value;
        max = value;
    } else if (value < min) {
        min = value;
    } else if (value > max) {
        max = value;
    }
    const int32_t result = percentile_add(vectorId, value);
    if (result != kPercentileOk) {
        TRACE_ERROR("Can't add data %luto percentile vector %u, result code %d", value, vectorId,
                    result);
        return false;
    }
    ++count;
    sum += value;
    return true;
}

uint64_t PmState::getAvg() const {
    if (count == 0) {
        return 0;
    }
    return sum / count;
}

uint64_t PmState::getMin() const {
    return min;
}

uint64_t PmState::getMax() const {
    return max;
}

uint64_t PmState::getCount() const {
    return count;
}

bool PmState::updatePercentilePmCounters(int64_t* p95Out, int64_t* p98Out, int64_t* p99Out) {
    if (count == 0) {
        TRACE_LAB("no samples were added to vector %u", vectorId);
        return false;
    }
    PercentileRequest requests[kRequestCount] = {{95, 0}, {98, 0}, {99, 0}};
    uint32_t samples = 0;
    const int32_t result = percentile_get(vectorId, kRequestCount, requests, &samples);
    if (result != kPercentileOk) {
        TRACE_ERROR(
            "Can't get percentile values from percentile library for vector %u, result "
            "code %d",
            vectorId, result);
        return false;
    }
    percentileSamples = samples;
    for (const PercentileRequest& request : requests) {
        switch (request.percentile) {
            case 95:
                *p95Out = static_cast<int64_t>(request.value);
                break;
            case 98:
                *p98Out = static_cast<int64_t>(request.value);
                break;
            case 99:
                *p99Out = static_cast<int64_t>(request.value);
                break;
            default:
                TRACE_ERROR("Wrong percentile %d", request.percentile);
                break;
        }
    }
    return true;
}

void PmState::reset() {
    min = 0;
    max = 0;
    count = 0;
    sum = 0;
}

uint32_t PmState::getVectorId() const {
    return vectorId;
}

uint32_t PmState::getPercentileSamples() const {
    return percentileSamples;
}
