// The sequence numbers of a minute presumed lost, in the order in which they
// were found missing.
//
// A reflector may jump its sequence number by millions; listing every
// skipped number one by one would let one reply exhaust the memory. The list
// therefore keeps stretches of consecutive numbers: it behaves exactly like
// a list of single numbers (first-occurrence search, order-keeping removal,
// runs of consecutive entries) while its size grows with the number of
// replies, not with the size of the gaps.
#ifndef TWAMP_MISSING_SEQUENCE_LIST_H
#define TWAMP_MISSING_SEQUENCE_LIST_H

#include <cstdint>
#include <vector>

// Number and lengths of the runs of a list: a run is a maximal stretch of
// entries each exactly one greater than the one before.
struct LossRuns {
    uint64_t count = 0;
    uint64_t longest = 0;
    uint64_t shortest = 0;
};

class MissingSequenceList {
  public:
    MissingSequenceList() = default;
    virtual ~MissingSequenceList();

    // Appends first, first + 1, ... , first + count - 1 (wrapping at 2^32).
    virtual void append(uint32_t first, uint64_t count);
    // Removes the first entry equal to seq, keeping the order of the rest;
    // false when there is none.
    virtual bool remove(uint32_t seq);
    // True when seq is an entry.
    virtual bool contains(uint32_t seq) const;
    // Forgets every entry.
    virtual void clear();
    // Number of entries.
    virtual uint64_t size() const;
    // The runs of consecutive entries, in list order.
    virtual LossRuns runs() const;
    // The entries one by one, at most limit of them (for traces and tests).
    virtual std::vector<uint32_t> entries(uint64_t limit) const;

  private:
    struct Stretch {
        uint32_t first;
        uint64_t count;
        uint32_t last() const { return static_cast<uint32_t>(first + count - 1); }
        bool holds(uint32_t seq) const { return static_cast<uint32_t>(seq - first) < count; }
    };

    std::vector<Stretch> stretches;
};

#endif  // TWAMP_MISSING_SEQUENCE_LIST_H
