#include "TraceRecorder.h"

#include <cstdio>

#include "TraceSeam.h"

namespace twamp_test {
namespace {

struct RecorderState {
    std::vector<TraceRecord> records;
    std::set<std::string> disabled;  // "provider/event"
    bool allDisabled = false;
    bool echo = false;
    unsigned enabledChecks = 0;
};

RecorderState& state() {
    static RecorderState instance;
    return instance;
}

std::string keyOf(const std::string& provider, const std::string& event) {
    return provider + "/" + event;
}

}  // namespace

void TraceRecorder::reset() {
    state() = RecorderState{};
}

void TraceRecorder::setEnabled(const std::string& provider, const std::string& event,
                               bool enabled) {
    if (enabled) {
        state().disabled.erase(keyOf(provider, event));
    } else {
        state().disabled.insert(keyOf(provider, event));
    }
}

void TraceRecorder::setAllEnabled(bool enabled) {
    state().allDisabled = !enabled;
    if (enabled) {
        state().disabled.clear();
    }
}

void TraceRecorder::setEchoToStderr(bool echo) {
    state().echo = echo;
}

const std::vector<TraceRecord>& TraceRecorder::records() {
    return state().records;
}

std::vector<TraceRecord> TraceRecorder::twampRecords(const std::string& event) {
    std::vector<TraceRecord> selected;
    for (const TraceRecord& record : state().records) {
        if (record.provider == "com_quorin_tn_twamp" && record.event == event) {
            selected.push_back(record);
        }
    }
    return selected;
}

std::vector<std::string> TraceRecorder::twampMessages(const std::string& event) {
    std::vector<std::string> messages;
    for (const TraceRecord& record : twampRecords(event)) {
        messages.push_back(record.message);
    }
    return messages;
}

unsigned TraceRecorder::enabledChecks() {
    return state().enabledChecks;
}

std::string onlyMessage() {
    const auto& records = TraceRecorder::records();
    if (records.size() != 1) {
        return "<" + std::to_string(records.size()) + " records>";
    }
    return records.front().message;
}

}  // namespace twamp_test

bool twampTraceSeamEnabled(const char* provider, const char* event) {
    auto& s = twamp_test::state();
    ++s.enabledChecks;
    return !s.allDisabled && s.disabled.count(twamp_test::keyOf(provider, event)) == 0;
}

void twampTraceSeamEmit(const char* provider, const char* event, const char* position,
                        const char* component, const char* message) {
    auto& s = twamp_test::state();
    s.records.push_back({provider, event, position, component, message});
    if (s.echo) {
        std::fprintf(stderr, "trace %s:%s [%s] [%s] %s\n", provider, event, position, component,
                     message);
        std::fflush(stderr);
    }
}
