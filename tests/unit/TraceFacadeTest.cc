#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>

#include "TraceFacade.h"
#include "TraceRecorder.h"

namespace {

using twamp_test::TraceRecorder;

class TraceFacadeTest : public ::testing::Test {
  protected:
    void SetUp() override { TraceRecorder::reset(); }
};

int evaluations = 0;
int countedArgument() {
    ++evaluations;
    return 42;
}

// A 2000-character message arrives cut to 1024 bytes including prefix and terminator.
TEST_F(TraceFacadeTest, LongMessageIsCutToBufferSize) {
    const std::string text(2000, 'x');
    const char* formatted = trace_format("%s(): ", "main", "%s", text.c_str());
    ASSERT_EQ(1023u, std::strlen(formatted));
    EXPECT_EQ("main(): " + std::string(1023 - 8, 'x'), std::string(formatted));
}

// A 300-character function name leaves 255 characters of prefix and 769 bytes for the text.
TEST_F(TraceFacadeTest, LongFunctionNameLeaves255CharactersOfPrefix) {
    const std::string name(300, 'f');
    const std::string text(1000, 't');
    const char* formatted = trace_format("%s(): ", name.c_str(), "%s", text.c_str());
    const std::string result(formatted);
    ASSERT_EQ(255u + 768u, result.size());
    EXPECT_EQ(std::string(255, 'f'), result.substr(0, 255));
    EXPECT_EQ(std::string(768, 't'), result.substr(255));
}

// A short message is the prefix "function(): " followed by the formatted text.
TEST_F(TraceFacadeTest, FormatsPrefixAndMessage) {
    EXPECT_STREQ("getNsFd(): Unable to open '/x': No such file or directory.",
                 trace_format("%s(): ", "getNsFd", "Unable to open '%s': %s.", "/x",
                              "No such file or directory"));
}

// Without a function name no prefix is written.
TEST_F(TraceFacadeTest, NoFunctionNameMeansNoPrefix) {
    EXPECT_STREQ("value 7", trace_format("%s(): ", nullptr, "value %d", 7));
}

// Without a message format only the prefix is written.
TEST_F(TraceFacadeTest, NoMessageFormatLeavesThePrefixOnly) {
    EXPECT_STREQ("init(): ", trace_format("%s(): ", "init", nullptr));
}

// The trace and operator-log buffers are the two halves of one 2048-byte area.
TEST_F(TraceFacadeTest, LogFormatBufferFollowsTraceBuffer) {
    const char* traceBuffer = trace_format("%s(): ", "f", "x");
    EXPECT_EQ(traceBuffer + 1024, trace_log_format_buffer());
}

// Each thread formats into its own buffer.
TEST_F(TraceFacadeTest, BuffersAreThreadLocal) {
    const char* mine = trace_format("%s(): ", "main", "mine");
    const char* theirs = nullptr;
    std::thread other([&theirs] { theirs = trace_format("%s(): ", "worker", "theirs"); });
    other.join();
    EXPECT_NE(mine, theirs);
    EXPECT_STREQ("main(): mine", mine);
}

// An enabled event is emitted with position, component "TWAMP" and the formatted message.
TEST_F(TraceFacadeTest, EnabledEventIsEmittedWithThreeFields) {
    const int line = __LINE__ + 1;
    TRACE_ERROR("socket failed: %s", "Bad file descriptor");
    ASSERT_EQ(1u, TraceRecorder::records().size());
    const auto& record = TraceRecorder::records().front();
    EXPECT_EQ("com_quorin_tn_twamp", record.provider);
    EXPECT_EQ("ERROR", record.event);
    EXPECT_EQ("TraceFacadeTest.cc:" + std::to_string(line), record.position);
    EXPECT_EQ("TWAMP", record.component);
    EXPECT_EQ("TestBody(): socket failed: Bad file descriptor", record.message);
}

// Each trace macro emits its own event of the daemon's provider.
TEST_F(TraceFacadeTest, EachMacroEmitsItsEvent) {
    TRACE_ERROR("e");
    TRACE_INFO("i");
    TRACE_LAB("l");
    TRACE_PACKET("p");
    TRACE_EXCEPTION("x");
    const auto& records = TraceRecorder::records();
    ASSERT_EQ(5u, records.size());
    EXPECT_EQ("ERROR", records[0].event);
    EXPECT_EQ("INFO", records[1].event);
    EXPECT_EQ("LAB", records[2].event);
    EXPECT_EQ("PACKET", records[3].event);
    EXPECT_EQ("EXCEPTION", records[4].event);
    for (const auto& record : records) {
        EXPECT_EQ("com_quorin_tn_twamp", record.provider);
        EXPECT_EQ("TWAMP", record.component);
    }
}

// The troubleshooting event carries the component "GENERAL".
TEST_F(TraceFacadeTest, TroubleshootingEventHasComponentGeneral) {
    TRACE_TROUBLESHOOTING_ERROR("Unable to write to %s", "TnNetworkLog");
    ASSERT_EQ(1u, TraceRecorder::records().size());
    const auto& record = TraceRecorder::records().front();
    EXPECT_EQ("com_quorin_tn_troubleshooting", record.provider);
    EXPECT_EQ("ERROR", record.event);
    EXPECT_EQ("GENERAL", record.component);
    EXPECT_EQ("TestBody(): Unable to write to TnNetworkLog", record.message);
}

// A disabled event is checked once and neither formatted nor are its arguments evaluated.
TEST_F(TraceFacadeTest, DisabledEventEvaluatesNothing) {
    TraceRecorder::setEnabled("com_quorin_tn_twamp", "LAB", false);
    evaluations = 0;
    trace_format("%s(): ", "before", "untouched");
    TRACE_LAB("value %d", countedArgument());
    EXPECT_EQ(0, evaluations);
    EXPECT_EQ(1u, TraceRecorder::enabledChecks());
    EXPECT_TRUE(TraceRecorder::records().empty());
    EXPECT_STREQ("before(): untouched", trace_format("%s(): ", nullptr, nullptr));
}

// An enabled event evaluates its arguments exactly once.
TEST_F(TraceFacadeTest, EnabledEventEvaluatesArgumentsOnce) {
    evaluations = 0;
    TRACE_INFO("value %d", countedArgument());
    EXPECT_EQ(1, evaluations);
    EXPECT_EQ("TestBody(): value 42", twamp_test::onlyMessage());
}

}  // namespace
