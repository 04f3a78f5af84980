// Records the daemon's trace statements in unit tests.
//
// The unit-test build of the daemon routes the enabled check and the emission
// of every trace statement to the seam functions implemented here. By default
// every event is enabled; a test may disable events to check that nothing is
// formatted or evaluated then.
#ifndef TWAMP_TESTS_TRACE_RECORDER_H
#define TWAMP_TESTS_TRACE_RECORDER_H

#include <set>
#include <string>
#include <vector>

namespace twamp_test {

// One emitted event with its three fields.
struct TraceRecord {
    std::string provider;
    std::string event;
    std::string position;
    std::string component;
    std::string message;
};

class TraceRecorder {
  public:
    // Clears the records and the counters and enables every event.
    static void reset();
    // Enables or disables one event ("ERROR", "INFO", ...) of one provider.
    static void setEnabled(const std::string& provider, const std::string& event, bool enabled);
    // Disables or re-enables every event of every provider.
    static void setAllEnabled(bool enabled);
    // Also writes every emitted event to standard error (for death tests).
    static void setEchoToStderr(bool echo);

    static const std::vector<TraceRecord>& records();
    // Records of one event of provider com_quorin_tn_twamp.
    static std::vector<TraceRecord> twampRecords(const std::string& event);
    // Messages of one event of provider com_quorin_tn_twamp, in order.
    static std::vector<std::string> twampMessages(const std::string& event);
    // Number of enabled checks made since the last reset.
    static unsigned enabledChecks();
};

// The message of the only record, or a description of what was recorded.
std::string onlyMessage();

}  // namespace twamp_test

#endif  // TWAMP_TESTS_TRACE_RECORDER_H
