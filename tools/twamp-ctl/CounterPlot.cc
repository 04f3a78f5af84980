#include "CounterPlot.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "PmPeriodRecord.h"

namespace {

constexpr int kRows = TWTSI_PM_COUNTER_ROWS;
constexpr int kBins = TWTSI_PM_COUNTER_BINS;
constexpr int64_t kNotAvailable = TWTSI_PM_NOT_AVAILABLE;

int rowOf(const std::string& name) {
    for (int row = 0; row < kRows; ++row) {
        if (name == kPmCounterInfo[row].name) {
            return row;
        }
    }
    return -1;
}

std::vector<std::string> splitCsv(const std::string& line) {
    std::vector<std::string> fields;
    std::stringstream stream(line);
    std::string field;
    while (std::getline(stream, field, ',')) {
        fields.push_back(field);
    }
    return fields;
}

bool parseValue(const std::string& text, int64_t& value) {
    if (text.empty()) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    const long long parsed = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0') {
        return false;
    }
    value = parsed;
    return true;
}

bool parseRow(const std::vector<std::string>& fields, CounterGrid& counters, bool (&seen)[kRows],
              std::string& error) {
    const int row = rowOf(fields[0]);
    if (row < 0 || fields.size() != 2 + kBins) {
        error = "unexpected line for counter '" + fields[0] + "'";
        return false;
    }
    for (int bin = 0; bin < kBins; ++bin) {
        if (!parseValue(fields[2 + bin], counters[row][bin])) {
            error = "'" + fields[2 + bin] + "' of " + fields[0] + " is not a number";
            return false;
        }
    }
    seen[row] = true;
    return true;
}

// A delay in microseconds as milliseconds, or NaN.
std::string milliseconds(int64_t microseconds) {
    if (microseconds == kNotAvailable || microseconds < 0) {
        return "NaN";
    }
    char text[32];
    std::snprintf(text, sizeof(text), "%lld.%03lld", static_cast<long long>(microseconds / 1000),
                  static_cast<long long>(microseconds % 1000));
    return text;
}

// lost as a percentage of sent, or NaN when either is not known.
std::string percent(int64_t lost, int64_t sent) {
    if (lost == kNotAvailable || sent == kNotAvailable || lost < 0 || sent <= 0) {
        return "NaN";
    }
    char text[32];
    std::snprintf(text, sizeof(text), "%.3f", 100.0 * static_cast<double>(lost) / sent);
    return text;
}

bool writeFile(const std::string& path, const std::string& text, std::string& error) {
    std::ofstream file(path);
    file << text;
    file.close();
    if (!file) {
        error = "cannot write " + path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

// gnuplot with the script as its only argument; its messages go to our stderr.
bool runGnuplot(const std::string& scriptPath, std::string& error) {
    const pid_t child = fork();
    if (child < 0) {
        error = std::string("fork failed: ") + std::strerror(errno);
        return false;
    }
    if (child == 0) {
        execlp("gnuplot", "gnuplot", scriptPath.c_str(), static_cast<char*>(nullptr));
        std::fprintf(stderr, "twamp-ctl: cannot run gnuplot: %s\n", std::strerror(errno));
        _exit(127);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            error = std::string("waitpid failed: ") + std::strerror(errno);
            return false;
        }
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        error = "gnuplot failed (is gnuplot installed?)";
        return false;
    }
    return true;
}

// Removes the temporary directory and what it holds on every way out.
class TemporaryDirectory {
  public:
    TemporaryDirectory() {
        const char* base = std::getenv("TMPDIR");
        std::string pattern =
            std::string(base != nullptr && base[0] != '\0' ? base : "/tmp") + "/twamp-plot.XXXXXX";
        if (mkdtemp(&pattern[0]) != nullptr) {
            path = pattern;
        }
    }
    ~TemporaryDirectory() {
        if (!path.empty()) {
            std::remove((path + "/data").c_str());
            std::remove((path + "/script").c_str());
            rmdir(path.c_str());
        }
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    std::string path;
};

bool endsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// gnuplot's single-quoted string: a quote is written twice.
std::string quoted(const std::string& text) {
    std::string out = "'";
    for (const char c : text) {
        out += c;
        if (c == '\'') {
            out += '\'';
        }
    }
    return out + "'";
}

}  // namespace

bool parseCountersCsv(const std::string& text, CounterGrid& counters,
                      std::vector<std::string>& minuteLabels, std::string& error) {
    std::stringstream stream(text);
    std::string line;
    if (!std::getline(stream, line)) {
        error = "empty counters file";
        return false;
    }
    const std::vector<std::string> header = splitCsv(line);
    if (header.size() != 2 + kBins || header[0] != "counter") {
        error = "the first line is not the header of counters --csv";
        return false;
    }
    minuteLabels.assign(header.begin() + 2, header.end());
    bool seen[kRows] = {};
    while (std::getline(stream, line)) {
        if (line.empty()) {
            continue;
        }
        if (!parseRow(splitCsv(line), counters, seen, error)) {
            return false;
        }
    }
    for (int row = 0; row < kRows; ++row) {
        if (!seen[row]) {
            error = std::string("counter ") + kPmCounterInfo[row].name + " is missing";
            return false;
        }
    }
    return true;
}

std::vector<std::string> minuteLabelsFrom(time_t intervalStart) {
    std::vector<std::string> labels;
    for (int bin = 0; bin < kBins; ++bin) {
        const time_t minute = intervalStart + bin * 60;
        struct tm utc {};
        gmtime_r(&minute, &utc);
        char text[8];
        std::snprintf(text, sizeof(text), "%02d:%02d", utc.tm_hour, utc.tm_min);
        labels.push_back(text);
    }
    return labels;
}

std::string plotData(const CounterGrid& counters, const std::vector<std::string>& minuteLabels) {
    static const PmCounter::Index kDelays[] = {
        PmCounter::delayRtMin, PmCounter::delayRtAvg, PmCounter::delayRtP95,
        PmCounter::delayRtP99, PmCounter::delayRtMax, PmCounter::ipdvFwdAvg,
        PmCounter::ipdvFwdP99, PmCounter::ipdvRevAvg, PmCounter::ipdvRevP99,
    };
    std::string out =
        "# bin minute rtMin rtAvg rtP95 rtP99 rtMax ipdvFwdAvg ipdvFwdP99 ipdvRevAvg ipdvRevP99 "
        "lossFwd% lossRev%\n";
    for (int bin = 0; bin < kBins; ++bin) {
        out += std::to_string(bin) + " " +
               (bin < static_cast<int>(minuteLabels.size()) ? minuteLabels[bin] : "-");
        for (const PmCounter::Index row : kDelays) {
            out += " " + milliseconds(counters[row][bin]);
        }
        const int64_t sent = counters[PmCounter::sentPkts][bin];
        out += " " + percent(counters[PmCounter::lostPktsFwd][bin], sent);
        out += " " + percent(counters[PmCounter::lostPktsRev][bin], sent);
        out += "\n";
    }
    return out;
}

std::string plotScript(const std::string& title, const std::string& dataPath,
                       const std::string& outPath) {
    const std::string terminal =
        endsWith(outPath, ".svg") ? "set terminal svg size 1000,900 dynamic background '#ffffff'\n"
                                  : "set terminal pngcairo size 1000,900\n";
    const std::string data = quoted(dataPath);
    return terminal + "set output " + quoted(outPath) +
           "\n"
           // NaN is an undefined value: no point, and the line breaks there.
           "set xrange [-0.5:14.5]\n"
           "set offsets 0, 0, graph 0.1, 0\n"
           // Fixed margins keep the three panels' minutes under each other.
           "set lmargin at screen 0.1\n"
           "set rmargin at screen 0.82\n"
           "set grid\n"
           "set key outside right\n"
           "set multiplot layout 3,1 title " +
           quoted(title) +
           "\n"
           "set ylabel 'round trip (ms)'\n"
           "set format x ''\n"
           "plot " +
           data + " using 1:3 with linespoints title 'min', '' using 1:4 with linespoints " +
           "title 'avg', '' using 1:5 with linespoints title 'p95', '' using 1:6 with " +
           "linespoints title 'p99', '' using 1:7 with linespoints title 'max'\n"
           "set ylabel 'IPDV (ms)'\n"
           "plot " +
           data + " using 1:8 with linespoints title 'fwd avg', '' using 1:9 with linespoints " +
           "title 'fwd p99', '' using 1:10 with linespoints title 'rev avg', '' using 1:11 " +
           "with linespoints title 'rev p99'\n"
           "set ylabel 'loss (% of sent)'\n"
           "set yrange [0:*]\n"
           "set format x '%g'\n"
           "set xlabel 'minute (UTC)'\n"
           "plot " +
           data + " using 1:12:xtic(2) with linespoints title 'forward', '' using 1:13 with " +
           "linespoints title 'reverse'\n"
           "unset multiplot\n";
}

bool renderPlot(const CounterGrid& counters, const std::vector<std::string>& minuteLabels,
                const std::string& title, const std::string& outPath, std::string& error) {
    TemporaryDirectory directory;
    if (directory.path.empty()) {
        error = std::string("mkdtemp failed: ") + std::strerror(errno);
        return false;
    }
    const std::string dataPath = directory.path + "/data";
    const std::string scriptPath = directory.path + "/script";
    return writeFile(dataPath, plotData(counters, minuteLabels), error) &&
           writeFile(scriptPath, plotScript(title, dataPath, outPath), error) &&
           runGnuplot(scriptPath, error);
}
