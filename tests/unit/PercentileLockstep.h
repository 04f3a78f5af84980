// Runs the daemon's percentile library and the reference list implementation
// side by side: every operation is made on both with the same arguments, and
// their result codes, outputs and kept samples are compared.
#ifndef TWAMP_PERCENTILE_LOCKSTEP_H
#define TWAMP_PERCENTILE_LOCKSTEP_H

#include <cstdint>
#include <string>
#include <vector>

// Which output pointers a read passes as null.
enum class NullOutputs { kNone, kRequests, kCount, kBoth };

class PercentileLockstep {
  public:
    // Initialises both libraries; false when they disagree.
    bool init();

    // Un-initialises both libraries; false when they disagree.
    bool uninit();

    // Creates a vector in both, with or without an identifier output; the
    // common result code goes to codeOut and the common identifier to idOut.
    bool create(uint32_t size, int32_t minPercentile, bool withIdOutput, int32_t* codeOut,
                uint32_t* idOut);

    // Adds the sample to the vector in both; the common result code goes to codeOut.
    bool add(uint32_t id, uint64_t value, int32_t* codeOut);

    // Reads the percentiles from both (requestCount may differ from the
    // number of percentiles only to pass a negative count) and compares the
    // result codes, the answered values and the reported counts.
    bool get(uint32_t id, int32_t requestCount, const std::vector<int32_t>& percentiles,
             NullOutputs nullOutputs, int32_t* codeOut);

    // Removes the vector from both; the common result code goes to codeOut.
    bool remove(uint32_t id, int32_t* codeOut);

    // Sets where both libraries start their next identifier search.
    void setNextId(uint32_t nextId);

    // Compares the kept samples of the vector, entry by entry.
    bool sameSamples(uint32_t id);

    // What differed the first time an operation returned false.
    const std::string& mismatch() const { return mismatch_; }

  private:
    // Records the difference unless an earlier one is already recorded; always false.
    bool differ(const std::string& what);

    std::string mismatch_;
};

#endif  // TWAMP_PERCENTILE_LOCKSTEP_H
