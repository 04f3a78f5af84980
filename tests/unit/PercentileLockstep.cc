#include "PercentileLockstep.h"

#include <sstream>

#include "PercentileVector.h"
#include "ReferencePercentileVector.h"

namespace {

// What a read leaves in a value nobody answered, different per entry so that
// an answer written to the wrong entry shows.
constexpr uint64_t kUnansweredValue = 0xA5A5A5A500000000ULL;
constexpr uint32_t kUnreportedCount = 0xA5A5A5A5U;
constexpr uint32_t kUnchosenId = 0x5A5A5A5AU;

std::string describeCodes(const char* operation, int32_t reference, int32_t library) {
    std::ostringstream text;
    text << operation << ": reference returned " << reference << ", library " << library;
    return text.str();
}

std::string describeSamples(const std::vector<uint64_t>& reference,
                            const std::vector<uint64_t>& library) {
    std::ostringstream text;
    text << "kept samples: reference has " << reference.size() << ", library " << library.size();
    for (size_t i = 0; i < reference.size() && i < library.size(); ++i) {
        if (reference[i] != library[i]) {
            text << "; first difference at position " << i << ": reference 0x" << std::hex
                 << reference[i] << ", library 0x" << library[i];
            break;
        }
    }
    return text.str();
}

// Requests for the percentiles, with room for at least one entry so that an
// empty request list still passes a valid array.
std::vector<PercentileRequest> requestsFor(const std::vector<int32_t>& percentiles) {
    std::vector<PercentileRequest> requests(percentiles.empty() ? 1 : percentiles.size());
    for (size_t i = 0; i < requests.size(); ++i) {
        requests[i].percentile = i < percentiles.size() ? percentiles[i] : 0;
        requests[i].value = kUnansweredValue + i;
    }
    return requests;
}

}  // namespace

bool PercentileLockstep::init() {
    const bool reference = reference_percentile_init();
    const bool library = percentile_init();
    return reference == library || differ("init results differ");
}

bool PercentileLockstep::uninit() {
    const bool reference = reference_percentile_uninit();
    const bool library = percentile_uninit();
    return reference == library || differ("uninit results differ");
}

bool PercentileLockstep::create(uint32_t size, int32_t minPercentile, bool withIdOutput,
                                int32_t* codeOut, uint32_t* idOut) {
    uint32_t referenceId = kUnchosenId;
    uint32_t libraryId = kUnchosenId;
    const int32_t reference =
        reference_percentile_create(size, minPercentile, withIdOutput ? &referenceId : nullptr);
    const int32_t library =
        percentile_create(size, minPercentile, withIdOutput ? &libraryId : nullptr);
    *codeOut = library;
    *idOut = libraryId;
    if (reference != library) {
        return differ(describeCodes("create", reference, library));
    }
    if (referenceId != libraryId) {
        std::ostringstream text;
        text << "create chose identifier " << libraryId << ", reference " << referenceId;
        return differ(text.str());
    }
    return true;
}

bool PercentileLockstep::add(uint32_t id, uint64_t value, int32_t* codeOut) {
    const int32_t reference = reference_percentile_add(id, value);
    const int32_t library = percentile_add(id, value);
    *codeOut = library;
    return reference == library || differ(describeCodes("add", reference, library));
}

bool PercentileLockstep::get(uint32_t id, int32_t requestCount,
                             const std::vector<int32_t>& percentiles, NullOutputs nullOutputs,
                             int32_t* codeOut) {
    if (requestCount > static_cast<int32_t>(percentiles.size())) {
        return differ("get called with more requests than percentiles");
    }
    std::vector<PercentileRequest> referenceRequests = requestsFor(percentiles);
    std::vector<PercentileRequest> libraryRequests = requestsFor(percentiles);
    uint32_t referenceCount = kUnreportedCount;
    uint32_t libraryCount = kUnreportedCount;
    const bool nullRequests =
        nullOutputs == NullOutputs::kRequests || nullOutputs == NullOutputs::kBoth;
    const bool nullCount = nullOutputs == NullOutputs::kCount || nullOutputs == NullOutputs::kBoth;
    const int32_t reference = reference_percentile_get(
        id, requestCount, nullRequests ? nullptr : referenceRequests.data(),
        nullCount ? nullptr : &referenceCount);
    const int32_t library =
        percentile_get(id, requestCount, nullRequests ? nullptr : libraryRequests.data(),
                       nullCount ? nullptr : &libraryCount);
    *codeOut = library;
    if (reference != library) {
        return differ(describeCodes("get", reference, library));
    }
    if (referenceCount != libraryCount) {
        std::ostringstream text;
        text << "get reported " << libraryCount << " samples, reference " << referenceCount;
        return differ(text.str());
    }
    for (size_t i = 0; i < referenceRequests.size(); ++i) {
        if (referenceRequests[i].value != libraryRequests[i].value) {
            std::ostringstream text;
            text << "get answered percentile " << libraryRequests[i].percentile << " (request " << i
                 << ") with 0x" << std::hex << libraryRequests[i].value << ", reference 0x"
                 << referenceRequests[i].value;
            return differ(text.str());
        }
    }
    return true;
}

bool PercentileLockstep::remove(uint32_t id, int32_t* codeOut) {
    const int32_t reference = reference_percentile_remove(id);
    const int32_t library = percentile_remove(id);
    *codeOut = library;
    return reference == library || differ(describeCodes("remove", reference, library));
}

void PercentileLockstep::setNextId(uint32_t nextId) {
    reference_percentile_set_next_id(nextId);
    percentile_set_next_id_for_test(nextId);
}

bool PercentileLockstep::sameSamples(uint32_t id) {
    const std::vector<uint64_t> reference = reference_percentile_samples(id);
    const std::vector<uint64_t> library = percentile_samples_for_test(id);
    return reference == library || differ(describeSamples(reference, library));
}

bool PercentileLockstep::differ(const std::string& what) {
    if (mismatch_.empty()) {
        mismatch_ = what;
    }
    return false;
}
