#include "ProcessCpu.h"

#include <dirent.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

namespace {

// Fields 14 and 15 of the stat line; the command name (field 2) may hold
// spaces, so counting starts after its closing parenthesis.
bool readTicks(const std::string& path, CpuSample& out) {
    std::ifstream file(path);
    std::string line;
    if (!std::getline(file, line)) {
        return false;
    }
    const std::size_t nameEnd = line.rfind(')');
    if (nameEnd == std::string::npos) {
        return false;
    }
    std::istringstream fields(line.substr(nameEnd + 2));
    std::string field;
    // Field 3 (state) is the first after the name; utime is field 14.
    for (int index = 3; index < 14; ++index) {
        fields >> field;
    }
    uint64_t utime = 0;
    uint64_t stime = 0;
    if (!(fields >> utime >> stime)) {
        return false;
    }
    out.userTicks = utime;
    out.systemTicks = stime;
    out.ticks = utime + stime;
    return true;
}

// The run time of every thread of the process: schedstat is per thread.
bool readRuntime(const std::string& taskDirectory, uint64_t& runtimeNs) {
    DIR* tasks = opendir(taskDirectory.c_str());
    if (tasks == nullptr) {
        return false;
    }
    runtimeNs = 0;
    while (const struct dirent* entry = readdir(tasks)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        std::ifstream file(taskDirectory + "/" + entry->d_name + "/schedstat");
        uint64_t threadNs = 0;
        // A thread that ended since the listing has nothing more to add.
        if (file >> threadNs) {
            runtimeNs += threadNs;
        }
    }
    closedir(tasks);
    return true;
}

}  // namespace

bool ProcessCpu::sample(CpuSample& out) const {
    const std::string base = "/proc/" + pid;
    return readTicks(base + "/stat", out) && readRuntime(base + "/task", out.runtimeNs);
}

uint64_t ProcessCpu::ticksPerSecond() {
    return static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
}
