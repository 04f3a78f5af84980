#include "MissingSequenceList.h"

#include <algorithm>

namespace {

// Entries of one stretch never exceed the 2^32 distinct sequence numbers.
constexpr uint64_t kMaxStretch = uint64_t{1} << 32;

}  // namespace

MissingSequenceList::~MissingSequenceList() = default;

void MissingSequenceList::append(uint32_t first, uint64_t count) {
    while (count > 0) {
        const uint64_t part = std::min(count, kMaxStretch);
        stretches.push_back(Stretch{first, part});
        first = static_cast<uint32_t>(first + part);
        count -= part;
    }
}

bool MissingSequenceList::remove(uint32_t seq) {
    for (auto stretch = stretches.begin(); stretch != stretches.end(); ++stretch) {
        if (!stretch->holds(seq)) {
            continue;
        }
        const uint64_t before = static_cast<uint32_t>(seq - stretch->first);
        const uint64_t after = stretch->count - before - 1;
        if (before == 0 && after == 0) {
            stretches.erase(stretch);
        } else if (before == 0) {
            *stretch = Stretch{static_cast<uint32_t>(seq + 1), after};
        } else if (after == 0) {
            stretch->count = before;
        } else {
            stretch->count = before;
            stretches.insert(stretch + 1, Stretch{static_cast<uint32_t>(seq + 1), after});
        }
        return true;
    }
    return false;
}

void MissingSequenceList::clear() {
    stretches.clear();
}

uint64_t MissingSequenceList::size() const {
    uint64_t total = 0;
    for (const Stretch& stretch : stretches) {
        total += stretch.count;
    }
    return total;
}

LossRuns MissingSequenceList::runs() const {
    LossRuns result;
    uint64_t current = 0;
    uint32_t previousLast = 0;
    auto closeRun = [&result](uint64_t length) {
        ++result.count;
        result.longest = std::max(result.longest, length);
        result.shortest = result.count == 1 ? length : std::min(result.shortest, length);
    };
    for (const Stretch& stretch : stretches) {
        // A stretch continues the run when its first entry follows the last one.
        if (current > 0 && static_cast<uint32_t>(previousLast + 1) == stretch.first) {
            current += stretch.count;
        } else {
            if (current > 0) {
                closeRun(current);
            }
            current = stretch.count;
        }
        previousLast = stretch.last();
    }
    if (current > 0) {
        closeRun(current);
    }
    return result;
}

std::vector<uint32_t> MissingSequenceList::entries(uint64_t limit) const {
    std::vector<uint32_t> result;
    for (const Stretch& stretch : stretches) {
        for (uint64_t offset = 0; offset < stretch.count && result.size() < limit; ++offset) {
            result.push_back(static_cast<uint32_t>(stretch.first + offset));
        }
    }
    return result;
}

bool MissingSequenceList::contains(uint32_t seq) const {
    for (const Stretch& stretch : stretches) {
        if (stretch.holds(seq)) {
            return true;
        }
    }
    return false;
}
