// wake_latency: how late threads that sleep to absolute instants wake up,
// one thread per CPU, for the share of send lateness that belongs to the
// machine rather than to the daemon (see WakeLatency.h).
//
//   wake_latency --seconds D [--period-us P] [--priority N] [--stall-us T]
//
// Each thread sleeps to every P µs (default 1000) on CLOCK_MONOTONIC for D
// seconds, pinned to its CPU, under SCHED_FIFO at priority N when N > 0 (as
// the load driver's --realtime runs the daemon), else under the default
// policy. After a wake-up later than one period the next instant is counted
// from the wake-up, so one stall is one late wake-up. Prints per CPU the
// wake-ups per lateness band, the largest, and every stall of at least T µs
// (default 5000) with the second it ended in, then a line for all CPUs.
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

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

bool pinAndSchedule(unsigned cpu, int priority, std::string& error) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    int result = pthread_setaffinity_np(pthread_self(), sizeof(set), &set);
    if (result == 0 && priority > 0) {
        struct sched_param parameter {};
        parameter.sched_priority = priority;
        result = pthread_setschedparam(pthread_self(), SCHED_FIFO, &parameter);
    }
    if (result != 0) {
        error = std::string("CPU ") + std::to_string(cpu) + ": " + std::strerror(result);
        return false;
    }
    return true;
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
    const long online = sysconf(_SC_NPROCESSORS_ONLN);
    const unsigned cpus = online > 0 ? static_cast<unsigned>(online) : 1;
    std::vector<WakeLatency> latencies(cpus, WakeLatency(settings.stallNs, kStallsKept));
    std::vector<std::string> errors(cpus);
    std::vector<std::thread> threads;
    for (unsigned cpu = 0; cpu < cpus; ++cpu) {
        threads.emplace_back([&, cpu] {
            if (pinAndSchedule(cpu, settings.priority, errors[cpu])) {
                sleepAndMeasure(settings, latencies[cpu]);
            }
        });
    }
    WakeLatency all(settings.stallNs, 0);
    int status = 0;
    for (unsigned cpu = 0; cpu < cpus; ++cpu) {
        threads[cpu].join();
        if (!errors[cpu].empty()) {
            std::fprintf(stderr, "wake_latency: %s\n", errors[cpu].c_str());
            status = 1;
            continue;
        }
        const std::string name = "cpu" + std::to_string(cpu);
        latencies[cpu].printStalls(stdout, name.c_str());
        latencies[cpu].print(stdout, name.c_str());
        all.merge(latencies[cpu]);
    }
    all.print(stdout, "all");
    return status;
}
