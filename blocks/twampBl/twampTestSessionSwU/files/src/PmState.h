// The accumulator of one metric over one minute: minimum, maximum, count and
// sum of its samples, and a percentile vector from which the 95th, 98th and
// 99th percentiles are read at the minute's end.
#ifndef TWAMP_PM_STATE_H
#define TWAMP_PM_STATE_H

#include <cstdint>

class PmState {
  public:
    PmState() = default;
    // Deletes the percentile vector; a failure is traced, never thrown.
    virtual ~PmState();

    // Copies would share, and each delete, the one percentile vector.
    PmState(const PmState&) = delete;
    PmState& operator=(const PmState&) = delete;

    // Creates the percentile vector for one minute of packets; true on success.
    virtual bool init(uint32_t packetsPerSecond);
    // Creates the percentile vector for samplesPerMinute samples; true on success.
    virtual bool initForSamples(uint32_t samplesPerMinute);
    // Books one sample (microseconds); true when the percentile vector took it.
    virtual bool addSample(uint64_t value);
    // Integer average of the counted samples, 0 without samples.
    virtual uint64_t getAvg() const;
    // Smallest sample of the minute.
    virtual uint64_t getMin() const;
    // Largest sample of the minute.
    virtual uint64_t getMax() const;
    // Number of samples the percentile vector took.
    virtual uint64_t getCount() const;
    // Reads and empties the percentile vector into the three outputs; true
    // when they were written.
    virtual bool updatePercentilePmCounters(int64_t* p95Out, int64_t* p98Out, int64_t* p99Out);
    // Clears minimum, maximum, count and sum; the percentile vector stays.
    virtual void reset();
    // Identifier of the percentile vector, 0 before a successful init.
    virtual uint32_t getVectorId() const;
    // Sample count reported by the last percentile read.
    virtual uint32_t getPercentileSamples() const;

  private:
    uint64_t min = 0;
    uint64_t max = 0;
    uint64_t count = 0;
    uint64_t sum = 0;
    uint32_t vectorId = 0;
    uint32_t percentileSamples = 0;
};

#endif  // TWAMP_PM_STATE_H
