// wake_latency: how late threads that sleep to absolute instants wake up,
// one thread per CPU it may run on, for the share of send lateness that
// belongs to the machine rather than to the daemon (see WakeLatency.h).
//
//   wake_latency --seconds D [--period-us P] [--priority N] [--stall-us T]
//
// Each thread sleeps to every P µs (default 1000) on CLOCK_MONOTONIC for D
// seconds, pinned to its CPU, under SCHED_FIFO at priority N when N > 0 (as
// the load driver's --realtime runs the daemon), else under the default
// policy. After a wake-up later than one period the next instant is counted
// from the wake-up, so one stall is one late wake-up. Prints per CPU the
// wake-ups per lateness band, the largest, and every stall of at least T µs
// (default 5000) with the second it ended in, then, when every thread ran,
// a line for all CPUs. Exits 1 when a thread could not be pinned or given
// its priority (SCHED_FIFO needs CAP_SYS_NICE), 2 on a bad option.
#include <pthread.h>
#include <sched.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "OptionMap.h"
#include "WakeLatency.h"

namespace {

struct ProbeSettings {
    int64_t seconds = 0;
    int64_t periodNs = 1000000;
    int priority = 0;
    int64_t stallNs = 5000000;
};

constexpr int64_t kNsPerSecond = 1000000000;
constexpr std::size_t kStallsKept = 1000;

int64_t nanoseconds(const struct timespec& time) {
    return static_cast<int64_t>(time.tv_sec) * kNsPerSecond + time.tv_nsec;
}

struct timespec timespecOf(int64_t ns) {
    struct timespec time {};
    time.tv_sec = static_cast<time_t>(ns / kNsPerSecond);
    time.tv_nsec = static_cast<long>(ns % kNsPerSecond);
    return time;
}

bool pinAndSchedule(int cpu, int priority, std::string& error) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    int result = pthread_setaffinity_np(pthread_self(), sizeof(set), &set);
    if (result != 0) {
        error = "CPU " + std::to_string(cpu) + ": cannot pin a thread: " + std::strerror(result);
        return false;
    }
    if (priority > 0) {
        struct sched_param parameter {};
        parameter.sched_priority = priority;
        result = pthread_setschedparam(pthread_self(), SCHED_FIFO, &parameter);
    }
    if (result != 0) {
        error = "CPU " + std::to_string(cpu) + ": cannot run under SCHED_FIFO " +
                std::to_string(priority) + ": " + std::strerror(result);
        return false;
    }
    return true;
}

// The CPUs this process may run on (taskset, cpusets), not 0 up to the count
// of online CPUs, which need not be the same.
std::vector<int> allowedCpus() {
    cpu_set_t set;
    CPU_ZERO(&set);
    std::vector<int> cpus;
    if (sched_getaffinity(0, sizeof(set), &set) != 0) {
        return cpus;
    }
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(cpu, &set)) {
            cpus.push_back(cpu);
        }
    }
    return cpus;
}

void sleepAndMeasure(const ProbeSettings& settings, WakeLatency& latency) {
    struct timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int64_t end = nanoseconds(now) + settings.seconds * kNsPerSecond;
    int64_t next = nanoseconds(now);
    for (;;) {
        next += settings.periodNs;
        const struct timespec target = timespecOf(next);
        while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &target, nullptr) == EINTR) {
        }
        clock_gettime(CLOCK_MONOTONIC, &now);
        const int64_t woke = nanoseconds(now);
        latency.add(woke - next, static_cast<int64_t>(std::time(nullptr)));
        if (woke - next > settings.periodNs) {
            next = woke;
        }
        if (woke >= end) {
            return;
        }
    }
}

bool readSettings(const OptionMap& options, ProbeSettings& settings) {
    uint64_t seconds = 0;
    uint64_t periodUs = 0;
    uint64_t priority = 0;
    uint64_t stallUs = 0;
    if (!options.number("--seconds", 0, seconds) ||
        !options.number("--period-us", 1000, periodUs) ||
        !options.number("--priority", 0, priority) ||
        !options.number("--stall-us", 5000, stallUs)) {
        return false;
    }
    settings.seconds = static_cast<int64_t>(seconds);
    settings.periodNs = static_cast<int64_t>(periodUs) * 1000;
    settings.priority = static_cast<int>(priority);
    settings.stallNs = static_cast<int64_t>(stallUs) * 1000;
    return seconds != 0 && seconds <= 86400 && periodUs != 0 && periodUs <= 1000000 &&
           priority <= 99 && stallUs <= 10000000;
}

}  // namespace

int main(int argc, char** argv) {
    OptionMap options;
    std::string error;
    ProbeSettings settings;
    if (!options.parse(argc, argv, {"--seconds", "--period-us", "--priority", "--stall-us"},
                       error) ||
        !readSettings(options, settings)) {
        std::fprintf(stderr, "wake_latency: %s\n",
                     error.empty() ? "bad or missing option" : error.c_str());
        return 2;
    }
    const std::vector<int> cpus = allowedCpus();
    if (cpus.empty()) {
        std::fprintf(stderr, "wake_latency: cannot read the CPUs it may run on: %s\n",
                     std::strerror(errno));
        return 1;
    }
    std::vector<WakeLatency> latencies(cpus.size(), WakeLatency(settings.stallNs, kStallsKept));
    std::vector<std::string> errors(cpus.size());
    std::vector<std::thread> threads;
    for (std::size_t index = 0; index < cpus.size(); ++index) {
        threads.emplace_back([&, index] {
            if (pinAndSchedule(cpus[index], settings.priority, errors[index])) {
                sleepAndMeasure(settings, latencies[index]);
            }
        });
    }
    WakeLatency all(settings.stallNs, 0);
    int status = 0;
    for (std::size_t index = 0; index < cpus.size(); ++index) {
        threads[index].join();
        if (!errors[index].empty()) {
            std::fprintf(stderr, "wake_latency: %s\n", errors[index].c_str());
            status = 1;
            continue;
        }
        const std::string name = "cpu" + std::to_string(cpus[index]);
        latencies[index].printStalls(stdout, name.c_str());
        latencies[index].print(stdout, name.c_str());
        all.merge(latencies[index]);
    }
    if (status == 0) {
        all.print(stdout, "all");
    }
    return status;
}
