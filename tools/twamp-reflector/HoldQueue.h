// Packets held until a time on the monotonic clock, released earliest first;
// packets due at the same time leave in the order they came.
#ifndef TWAMP_REFLECTOR_HOLD_QUEUE_H
#define TWAMP_REFLECTOR_HOLD_QUEUE_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <utility>

template <typename Item>
class HoldQueue {
  public:
    void hold(int64_t dueNs, Item item) { items_.emplace(dueNs, std::move(item)); }

    bool empty() const { return items_.empty(); }
    std::size_t size() const { return items_.size(); }
    // The earliest due time; only when not empty.
    int64_t nextDueNs() const { return items_.begin()->first; }

    // Moves the earliest item out when it is due at nowNs.
    bool takeDue(int64_t nowNs, Item& item) {
        if (items_.empty() || items_.begin()->first > nowNs) {
            return false;
        }
        return takeFirst(item);
    }

    // Moves the earliest item out whatever its time.
    bool takeFirst(Item& item) {
        if (items_.empty()) {
            return false;
        }
        auto first = items_.begin();
        item = std::move(first->second);
        items_.erase(first);
        return true;
    }

  private:
    // A multimap keeps equal keys in insertion order.
    std::multimap<int64_t, Item> items_;
};

#endif  // TWAMP_REFLECTOR_HOLD_QUEUE_H
