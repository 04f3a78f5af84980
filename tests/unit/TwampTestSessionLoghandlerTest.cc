#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "TraceRecorder.h"
#include "TwampTestSessionMain.h"

namespace {

using twamp_test::TraceRecorder;

class TwampTestSessionLoghandlerTest : public ::testing::Test {
  protected:
    void SetUp() override { TraceRecorder::reset(); }

    static void log(int level, const char* domain, const char* message) {
        twampTestSessionLoghandler(domain, static_cast<GLogLevelFlags>(level), message, nullptr);
    }

    // The only record's event and message, as "EVENT message".
    static std::string onlyTrace() {
        const auto& records = TraceRecorder::records();
        if (records.size() != 1) {
            return "<" + std::to_string(records.size()) + " records>";
        }
        return records.front().event + " " + records.front().message;
    }
};

// A GLib error is traced at ERROR with its name, domain and message.
TEST_F(TwampTestSessionLoghandlerTest, ErrorIsTracedAtError) {
    log(G_LOG_LEVEL_ERROR, "GLib", "out of memory");
    EXPECT_EQ("ERROR twampTestSessionLoghandler(): ERROR: GLib: out of memory", onlyTrace());
}

// A critical is traced at ERROR.
TEST_F(TwampTestSessionLoghandlerTest, CriticalIsTracedAtError) {
    log(G_LOG_LEVEL_CRITICAL, "GLib", "assertion failed");
    EXPECT_EQ("ERROR twampTestSessionLoghandler(): CRITICAL: GLib: assertion failed", onlyTrace());
}

// A warning is traced at INFO.
TEST_F(TwampTestSessionLoghandlerTest, WarningIsTracedAtInfo) {
    log(G_LOG_LEVEL_WARNING, "dom", "careful");
    EXPECT_EQ("INFO twampTestSessionLoghandler(): WARNING: dom: careful", onlyTrace());
}

// A message is traced at INFO.
TEST_F(TwampTestSessionLoghandlerTest, MessageIsTracedAtInfo) {
    log(G_LOG_LEVEL_MESSAGE, "dom", "hello");
    EXPECT_EQ("INFO twampTestSessionLoghandler(): MESSAGE: dom: hello", onlyTrace());
}

// An info is traced at INFO.
TEST_F(TwampTestSessionLoghandlerTest, InfoIsTracedAtInfo) {
    log(G_LOG_LEVEL_INFO, "dom", "fyi");
    EXPECT_EQ("INFO twampTestSessionLoghandler(): INFO: dom: fyi", onlyTrace());
}

// A debug message is traced at LAB.
TEST_F(TwampTestSessionLoghandlerTest, DebugIsTracedAtLab) {
    log(G_LOG_LEVEL_DEBUG, "dom", "detail");
    EXPECT_EQ("LAB twampTestSessionLoghandler(): DEBUG: dom: detail", onlyTrace());
}

// The recursion flag is cleared before the lookup: a recursive warning is a warning.
TEST_F(TwampTestSessionLoghandlerTest, RecursionFlagIsClearedBeforeLookup) {
    log(G_LOG_LEVEL_WARNING | G_LOG_FLAG_RECURSION, "dom", "again");
    EXPECT_EQ("INFO twampTestSessionLoghandler(): WARNING: dom: again", onlyTrace());
}

// The bare recursion flag leaves level 0, which is unknown: the RECURSION row is never chosen.
TEST_F(TwampTestSessionLoghandlerTest, BareRecursionFlagIsUnknownLevelZero) {
    log(G_LOG_FLAG_RECURSION, "dom", "odd");
    EXPECT_EQ("ERROR twampTestSessionLoghandler(): UNKNOWN_GLIB_LOG_LEVEL=0: dom: odd",
              onlyTrace());
}

// A level outside the table is traced at ERROR with its value.
TEST_F(TwampTestSessionLoghandlerTest, UserLevelIsUnknown) {
    log(1 << G_LOG_LEVEL_USER_SHIFT, "dom", "custom");
    EXPECT_EQ("ERROR twampTestSessionLoghandler(): UNKNOWN_GLIB_LOG_LEVEL=256: dom: custom",
              onlyTrace());
}

// A combination of levels is not in the table and is traced at ERROR.
TEST_F(TwampTestSessionLoghandlerTest, CombinedLevelsAreUnknown) {
    log(G_LOG_LEVEL_WARNING | G_LOG_LEVEL_MESSAGE, "dom", "both");
    EXPECT_EQ("ERROR twampTestSessionLoghandler(): UNKNOWN_GLIB_LOG_LEVEL=48: dom: both",
              onlyTrace());
}

// The domain is passed on as GLib gives it, also when there is none.
TEST_F(TwampTestSessionLoghandlerTest, MissingDomainIsPassedOn) {
    log(G_LOG_LEVEL_MESSAGE, nullptr, "no domain");
    EXPECT_EQ("INFO twampTestSessionLoghandler(): MESSAGE: (null): no domain", onlyTrace());
}

// Installed as GLib's default handler, it receives g_log messages.
TEST_F(TwampTestSessionLoghandlerTest, ReceivesMessagesAsDefaultHandler) {
    GLogFunc previous = g_log_set_default_handler(twampTestSessionLoghandler, nullptr);
    g_log("twamp-test", G_LOG_LEVEL_MESSAGE, "value %d", 5);
    g_log_set_default_handler(previous, nullptr);
    EXPECT_EQ("INFO twampTestSessionLoghandler(): MESSAGE: twamp-test: value 5", onlyTrace());
}

// A non-fatal message only traces, and the handler returns.
TEST_F(TwampTestSessionLoghandlerTest, NonFatalMessageReturns) {
    log(G_LOG_LEVEL_CRITICAL, "dom", "survive");
    log(G_LOG_LEVEL_CRITICAL, "dom", "survive again");
    EXPECT_EQ(2u, TraceRecorder::records().size());
}

using TwampTestSessionLoghandlerDeathTest = TwampTestSessionLoghandlerTest;

// A fatal warning is traced at INFO as "FATAL ..." and then the process aborts.
TEST_F(TwampTestSessionLoghandlerDeathTest, FatalWarningIsTracedThenAborts) {
    EXPECT_EXIT(
        {
            TraceRecorder::setEchoToStderr(true);
            log(G_LOG_LEVEL_WARNING | G_LOG_FLAG_FATAL, "dom", "fatal warning");
        },
        ::testing::KilledBySignal(SIGABRT),
        "trace com_quorin_tn_twamp:INFO \\[TwampTestSessionMain.cc:[0-9]+\\] \\[TWAMP\\] "
        "twampTestSessionLoghandler\\(\\): FATAL WARNING: dom: fatal warning");
}

// A fatal unknown level is traced at ERROR with the FATAL prefix and aborts.
TEST_F(TwampTestSessionLoghandlerDeathTest, FatalUnknownLevelIsTracedThenAborts) {
    EXPECT_EXIT(
        {
            TraceRecorder::setEchoToStderr(true);
            log(G_LOG_FLAG_FATAL, "dom", "nothing");
        },
        ::testing::KilledBySignal(SIGABRT),
        "trace com_quorin_tn_twamp:ERROR .* twampTestSessionLoghandler\\(\\): "
        "FATAL UNKNOWN_GLIB_LOG_LEVEL=0: dom: nothing");
}

// With every event disabled a fatal GLib error still aborts, and nothing is traced.
TEST_F(TwampTestSessionLoghandlerDeathTest, FatalErrorAbortsWithEveryEventDisabled) {
    EXPECT_EXIT(
        {
            TraceRecorder::setAllEnabled(false);
            TraceRecorder::setEchoToStderr(true);
            log(G_LOG_LEVEL_ERROR | G_LOG_FLAG_FATAL, "dom", "fatal error");
        },
        ::testing::KilledBySignal(SIGABRT), "^$");
}

}  // namespace
