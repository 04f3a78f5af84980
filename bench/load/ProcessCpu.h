// CPU time a process has used so far, from /proc: user plus system time in
// clock ticks (/proc/<pid>/stat, what top and ps show) and the scheduler's
// run time in nanoseconds (/proc/<pid>/task/*/schedstat summed over the
// threads, finer grained).
#ifndef TWAMP_BENCH_PROCESS_CPU_H
#define TWAMP_BENCH_PROCESS_CPU_H

#include <cstdint>
#include <string>
#include <utility>

struct CpuSample {
    uint64_t userTicks = 0;    // utime
    uint64_t systemTicks = 0;  // stime
    uint64_t ticks = 0;        // utime + stime
    uint64_t runtimeNs = 0;    // first schedstat field, summed over the threads
};

class ProcessCpu {
  public:
    // "self" or a process id.
    explicit ProcessCpu(std::string pid) : pid(std::move(pid)) {}

    // Reads both figures; false when a file cannot be read or parsed.
    bool sample(CpuSample& out) const;
    // Clock ticks per second (sysconf(_SC_CLK_TCK)).
    static uint64_t ticksPerSecond();

  private:
    std::string pid;
};

#endif  // TWAMP_BENCH_PROCESS_CPU_H
