#include "CountersFormatter.h"

#include <cstdio>

#include "PmPeriodRecord.h"

namespace {

constexpr time_t kMinute = 60;
constexpr time_t kInterval = 15 * kMinute;
constexpr int64_t kNotAvailable = TWTSI_PM_NOT_AVAILABLE;

std::string clockTime(time_t seconds) {
    struct tm utc {};
    gmtime_r(&seconds, &utc);
    char text[8];
    std::snprintf(text, sizeof(text), "%02d:%02d", utc.tm_hour, utc.tm_min);
    return text;
}

std::string valueText(int64_t value) {
    return value == kNotAvailable ? "n/a" : std::to_string(value);
}

std::string padLeft(const std::string& text, std::size_t width) {
    return text.size() >= width ? text : std::string(width - text.size(), ' ') + text;
}

std::string padRight(const std::string& text, std::size_t width) {
    return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

std::string rowLabel(int row) {
    return std::string(kPmCounterInfo[row].name) + " (" + kPmCounterInfo[row].unit + ")";
}

}  // namespace

time_t reportedIntervalStart(time_t now, bool completedIntervalOnly) {
    const time_t current = now - now % kInterval;
    const bool inFirstMinute = (now / kMinute) % 15 == 0;
    if (completedIntervalOnly || inFirstMinute) {
        return current - kInterval;
    }
    return current;
}

std::string formatCountersTable(const CounterGrid& counters, time_t intervalStart) {
    constexpr std::size_t kLabelWidth = 32;
    constexpr std::size_t kValueWidth = 9;
    std::string out = padRight("counter (unit)  /  minute UTC", kLabelWidth);
    for (int bin = 0; bin < TWTSI_PM_COUNTER_BINS; ++bin) {
        out += padLeft(clockTime(intervalStart + bin * kMinute), kValueWidth);
    }
    out += "\n";
    for (int row = 0; row < TWTSI_PM_COUNTER_ROWS; ++row) {
        out += padRight(rowLabel(row), kLabelWidth);
        for (int bin = 0; bin < TWTSI_PM_COUNTER_BINS; ++bin) {
            out += padLeft(valueText(counters[row][bin]), kValueWidth);
        }
        out += "\n";
    }
    return out;
}

std::string formatCountersJson(const CounterGrid& counters, const std::string& sessionIdHex,
                               bool completedIntervalOnly) {
    std::string out = "{\"sessionId\": \"" + sessionIdHex + "\", \"completedIntervalOnly\": " +
                      (completedIntervalOnly ? "true" : "false") + ", \"counters\": {";
    for (int row = 0; row < TWTSI_PM_COUNTER_ROWS; ++row) {
        out += (row == 0 ? "\"" : ", \"") + std::string(kPmCounterInfo[row].name) + "\": [";
        for (int bin = 0; bin < TWTSI_PM_COUNTER_BINS; ++bin) {
            out += (bin == 0 ? "" : ", ") + std::to_string(counters[row][bin]);
        }
        out += "]";
    }
    out += "}}\n";
    return out;
}

std::string formatCountersCsv(const CounterGrid& counters, time_t intervalStart) {
    std::string out = "counter,unit";
    for (int bin = 0; bin < TWTSI_PM_COUNTER_BINS; ++bin) {
        out += "," + clockTime(intervalStart + bin * kMinute);
    }
    out += "\n";
    for (int row = 0; row < TWTSI_PM_COUNTER_ROWS; ++row) {
        out += std::string(kPmCounterInfo[row].name) + "," + kPmCounterInfo[row].unit;
        for (int bin = 0; bin < TWTSI_PM_COUNTER_BINS; ++bin) {
            out += "," + std::to_string(counters[row][bin]);
        }
        out += "\n";
    }
    return out;
}
