// proc_cpu PID: prints the CPU time the process has used so far as
// "ticks=<utime+stime> user_ticks=<utime> system_ticks=<stime>
//  tick_hz=<ticks per second> runtime_ns=<scheduler run time>".
#include <cinttypes>
#include <cstdio>

#include "ProcessCpu.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: proc_cpu PID\n");
        return 2;
    }
    CpuSample sample;
    if (!ProcessCpu(argv[1]).sample(sample)) {
        std::fprintf(stderr, "proc_cpu: cannot read /proc/%s\n", argv[1]);
        return 1;
    }
    std::printf("ticks=%" PRIu64 " user_ticks=%" PRIu64 " system_ticks=%" PRIu64 " tick_hz=%" PRIu64
                " runtime_ns=%" PRIu64 "\n",
                sample.ticks, sample.userTicks, sample.systemTicks, ProcessCpu::ticksPerSecond(),
                sample.runtimeNs);
    return 0;
}
