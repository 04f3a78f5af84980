#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "FakeSaLog.h"
#include "TraceFacade.h"
#include "TraceRecorder.h"
#include "tn_log_internal.h"

namespace {

using twamp_test::FakeSaLog;
using twamp_test::TraceRecorder;
using Strings = std::vector<std::string>;

class TnLogInternalTest : public ::testing::Test {
  protected:
    void SetUp() override {
        FakeSaLog::reset();
        TraceRecorder::reset();
    }
    void TearDown() override {
        FakeSaLog::reset();
        tn_log_uninit();
    }

    // Opens the module against a service that accepts everything, then forgets those calls.
    static void initOk() {
        ASSERT_TRUE(tn_log_init());
        FakeSaLog::forgetCalls();
        TraceRecorder::reset();
    }

    // Messages of the troubleshooting event, each checked for component "GENERAL".
    static Strings troubleshootingMessages() {
        Strings messages;
        for (const auto& record : TraceRecorder::records()) {
            EXPECT_EQ("com_quorin_tn_troubleshooting", record.provider);
            EXPECT_EQ("ERROR", record.event);
            EXPECT_EQ("GENERAL", record.component);
            messages.push_back(record.message);
        }
        return messages;
    }

    // Stream and text length of every record written.
    static Strings writtenPieces() {
        Strings pieces;
        for (const auto& record : FakeSaLog::records()) {
            pieces.push_back(record.streamName + " " + std::to_string(record.text.size()));
        }
        return pieces;
    }
};

// A successful init opens the service with version A.2.1, then both streams in order.
TEST_F(TnLogInternalTest, InitOpensServiceAndBothStreams) {
    EXPECT_TRUE(tn_log_init());
    EXPECT_EQ((Strings{"saLogInitialize", "saLogStreamOpen_2 TnApplicationLog",
                       "saLogStreamOpen_2 TnNetworkLog"}),
              FakeSaLog::calls());
    const SaVersionT version = FakeSaLog::lastVersion();
    EXPECT_EQ('A', version.releaseCode);
    EXPECT_EQ(2, version.majorVersion);
    EXPECT_EQ(1, version.minorVersion);
    EXPECT_FALSE(FakeSaLog::lastCallbacksGiven());
    EXPECT_TRUE(troubleshootingMessages().empty());
}

// Streams are opened by distinguished name, configured (no attributes), flags 0, 1 s time-out.
TEST_F(TnLogInternalTest, StreamsOpenedByDistinguishedName) {
    ASSERT_TRUE(tn_log_init());
    const auto& opens = FakeSaLog::opens();
    ASSERT_EQ(2u, opens.size());
    EXPECT_EQ("safLgStr=TnApplicationLog,safApp=safLogService", opens[0].name);
    EXPECT_EQ("safLgStr=TnNetworkLog,safApp=safLogService", opens[1].name);
    for (const auto& open : opens) {
        EXPECT_TRUE(open.createAttributesNull);
        EXPECT_EQ(0, open.flags);
        EXPECT_EQ(1000000000, open.timeout);
    }
}

// A second init after success returns true without touching the service.
TEST_F(TnLogInternalTest, SecondInitDoesNothing) {
    initOk();
    EXPECT_TRUE(tn_log_init());
    EXPECT_TRUE(FakeSaLog::calls().empty());
}

// A failing saLogInitialize is traced and init returns false, with nothing to clean up.
TEST_F(TnLogInternalTest, ServiceInitializationFailure) {
    FakeSaLog::setResult("saLogInitialize", SA_AIS_ERR_TRY_AGAIN);
    EXPECT_FALSE(tn_log_init());
    EXPECT_EQ((Strings{"saLogInitialize"}), FakeSaLog::calls());
    EXPECT_EQ((Strings{"tn_log_init(): Unable to initialize the log service, saLogInitialize "
                       "returned error 6"}),
              troubleshootingMessages());
}

// If TnNetworkLog cannot be opened, TnApplicationLog is closed again and the service finalised.
TEST_F(TnLogInternalTest, NetworkLogOpenFailureUndoesEverything) {
    FakeSaLog::setOpenResult("TnNetworkLog", SA_AIS_ERR_NOT_EXIST);
    EXPECT_FALSE(tn_log_init());
    EXPECT_EQ((Strings{"saLogInitialize", "saLogStreamOpen_2 TnApplicationLog",
                       "saLogStreamOpen_2 TnNetworkLog", "saLogStreamClose TnApplicationLog",
                       "saLogFinalize 16"}),
              FakeSaLog::calls());
    EXPECT_EQ((Strings{"tn_log_init(): Unable to initialize TnNetworkLog, saLogStreamOpen_2 "
                       "returned error 12"}),
              troubleshootingMessages());
}

// If TnApplicationLog cannot be opened, TnNetworkLog is not tried and the service is finalised.
TEST_F(TnLogInternalTest, ApplicationLogOpenFailure) {
    FakeSaLog::setOpenResult("TnApplicationLog", SA_AIS_ERR_ACCESS);
    EXPECT_FALSE(tn_log_init());
    EXPECT_EQ(
        (Strings{"saLogInitialize", "saLogStreamOpen_2 TnApplicationLog", "saLogFinalize 16"}),
        FakeSaLog::calls());
    EXPECT_EQ((Strings{"tn_log_init(): Unable to initialize TnApplicationLog, saLogStreamOpen_2 "
                       "returned error 11"}),
              troubleshootingMessages());
}

// A failed clean-up after a failed init is traced as well.
TEST_F(TnLogInternalTest, FailedCleanUpIsTraced) {
    FakeSaLog::setOpenResult("TnNetworkLog", SA_AIS_ERR_NOT_EXIST);
    FakeSaLog::setResult("saLogFinalize", SA_AIS_ERR_BAD_HANDLE);
    EXPECT_FALSE(tn_log_init());
    EXPECT_EQ(
        (Strings{
            "tn_log_init(): Unable to initialize TnNetworkLog, saLogStreamOpen_2 returned error 12",
            "tn_log_uninit(): Unable to finalize the log service, saLogFinalize returned error 9",
            "tn_log_init(): Unable to clean up after failed initialization"}),
        troubleshootingMessages());
}

// After a failed init the module is closed: writing only traces, and init can be tried again.
TEST_F(TnLogInternalTest, FailedInitLeavesModuleClosed) {
    FakeSaLog::setOpenResult("TnNetworkLog", SA_AIS_ERR_NOT_EXIST);
    ASSERT_FALSE(tn_log_init());
    FakeSaLog::reset();
    TraceRecorder::reset();
    tn_log_internal_log(SA_LOG_SEV_INFO, 3, "TWAMP", "text");
    EXPECT_TRUE(FakeSaLog::calls().empty());
    EXPECT_EQ(
        (Strings{"tn_log_internal_log(): TN operator logs not initialized, cannot write to log"}),
        troubleshootingMessages());
    EXPECT_TRUE(tn_log_init());
}

// tn_log_uninit without a prior successful init returns true and calls nothing.
TEST_F(TnLogInternalTest, UninitWithoutInitCallsNothing) {
    EXPECT_TRUE(tn_log_uninit());
    EXPECT_TRUE(FakeSaLog::calls().empty());
    EXPECT_TRUE(troubleshootingMessages().empty());
}

// Uninit closes both streams in order and finalises the service.
TEST_F(TnLogInternalTest, UninitClosesStreamsAndService) {
    initOk();
    EXPECT_TRUE(tn_log_uninit());
    EXPECT_EQ((Strings{"saLogStreamClose TnApplicationLog", "saLogStreamClose TnNetworkLog",
                       "saLogFinalize 16"}),
              FakeSaLog::calls());
    EXPECT_TRUE(tn_log_uninit());
    EXPECT_EQ(3u, FakeSaLog::calls().size());
}

// A failing stream close is traced, the other stream and the service are still closed.
TEST_F(TnLogInternalTest, UninitCloseFailure) {
    initOk();
    FakeSaLog::setResult("saLogStreamClose", SA_AIS_ERR_TIMEOUT);
    EXPECT_FALSE(tn_log_uninit());
    EXPECT_EQ((Strings{"saLogStreamClose TnApplicationLog", "saLogStreamClose TnNetworkLog",
                       "saLogFinalize 16"}),
              FakeSaLog::calls());
    EXPECT_EQ((Strings{"tn_log_uninit(): Unable to close TnApplicationLog, saLogStreamClose "
                       "returned error 5",
                       "tn_log_uninit(): Unable to close TnNetworkLog, saLogStreamClose returned "
                       "error 5"}),
              troubleshootingMessages());
    EXPECT_TRUE(tn_log_uninit());  // closed all the same
}

// A failing finalise is traced and the module counts as closed all the same.
TEST_F(TnLogInternalTest, UninitFinalizeFailure) {
    initOk();
    FakeSaLog::setResult("saLogFinalize", SA_AIS_ERR_LIBRARY);
    EXPECT_FALSE(tn_log_uninit());
    EXPECT_EQ(
        (Strings{
            "tn_log_uninit(): Unable to finalize the log service, saLogFinalize returned error 2"}),
        troubleshootingMessages());
    FakeSaLog::reset();
    EXPECT_TRUE(tn_log_uninit());
    EXPECT_TRUE(FakeSaLog::calls().empty());
}

// A 750-character message to mask 3 gives 300, 300 and 150 in each stream, application first.
TEST_F(TnLogInternalTest, LongMessageIsSplitIntoPieces) {
    initOk();
    const std::string message =
        std::string(300, 'a') + std::string(300, 'b') + std::string(150, 'c');
    tn_log_internal_log(SA_LOG_SEV_INFO, 3, "TWAMP", message.c_str());
    EXPECT_EQ((Strings{"TnApplicationLog 300", "TnApplicationLog 300", "TnApplicationLog 150",
                       "TnNetworkLog 300", "TnNetworkLog 300", "TnNetworkLog 150"}),
              writtenPieces());
    const auto& records = FakeSaLog::records();
    EXPECT_EQ(std::string(300, 'a'), records[0].text);
    EXPECT_EQ(std::string(300, 'b'), records[1].text);
    EXPECT_EQ(std::string(150, 'c'), records[2].text);
    EXPECT_EQ(records[0].text, records[3].text);
    EXPECT_TRUE(troubleshootingMessages().empty());
}

// Exactly 300 characters are one piece; 301 are two of 300 and 1.
TEST_F(TnLogInternalTest, PieceBoundary) {
    initOk();
    tn_log_internal_log(SA_LOG_SEV_INFO, kTnNetworkLogMask, "TWAMP", std::string(300, 'x').c_str());
    tn_log_internal_log(SA_LOG_SEV_INFO, kTnNetworkLogMask, "TWAMP", std::string(301, 'y').c_str());
    EXPECT_EQ((Strings{"TnNetworkLog 300", "TnNetworkLog 300", "TnNetworkLog 1"}), writtenPieces());
    EXPECT_EQ("y", FakeSaLog::records()[2].text);
}

// An empty message is one empty record.
TEST_F(TnLogInternalTest, EmptyMessageIsOneEmptyRecord) {
    initOk();
    tn_log_internal_log(SA_LOG_SEV_INFO, kTnApplicationLogMask, "TWAMP", "");
    EXPECT_EQ((Strings{"TnApplicationLog 0"}), writtenPieces());
}

// The network mask alone writes to TnNetworkLog only.
TEST_F(TnLogInternalTest, MaskSelectsStreams) {
    initOk();
    tn_log_internal_log(SA_LOG_SEV_INFO, kTnNetworkLogMask, "TWAMP", "network only");
    EXPECT_EQ((Strings{"saLogWriteLogAsync TnNetworkLog"}), FakeSaLog::calls());
}

// A stream mask of 0 writes nothing and traces nothing.
TEST_F(TnLogInternalTest, MaskZeroWritesAndTracesNothing) {
    initOk();
    tn_log_internal_log(SA_LOG_SEV_INFO, 0, "TWAMP", "nothing");
    EXPECT_TRUE(FakeSaLog::calls().empty());
    EXPECT_TRUE(TraceRecorder::records().empty());
}

// Writing before tn_log_init only traces.
TEST_F(TnLogInternalTest, WriteBeforeInitOnlyTraces) {
    tn_log_internal_log(SA_LOG_SEV_INFO, 3, "TWAMP", "too early");
    EXPECT_TRUE(FakeSaLog::calls().empty());
    EXPECT_EQ(
        (Strings{"tn_log_internal_log(): TN operator logs not initialized, cannot write to log"}),
        troubleshootingMessages());
}

// Each record: invocation 0, no acknowledgement, service time stamp, generic header.
TEST_F(TnLogInternalTest, RecordFields) {
    initOk();
    tn_log_internal_log(SA_LOG_SEV_INFO, kTnNetworkLogMask, "TWAMP", "for dstIpAddress 192.0.2.1");
    ASSERT_EQ(1u, FakeSaLog::records().size());
    const auto& record = FakeSaLog::records()[0];
    EXPECT_EQ(0u, record.invocation);
    EXPECT_EQ(0u, record.ackFlags);
    EXPECT_EQ(SA_TIME_UNKNOWN, record.timeStamp);
    EXPECT_EQ(SA_LOG_GENERIC_HEADER, record.headerType);
    EXPECT_TRUE(record.classIdAllZero);
    EXPECT_EQ("TWAMP", record.userName);
    EXPECT_EQ(SA_LOG_SEV_INFO, record.severity);
    EXPECT_EQ("for dstIpAddress 192.0.2.1", record.text);
}

// A failed write is traced by the piece writer and not retried; the next piece is still written.
TEST_F(TnLogInternalTest, WriteFailureIsTracedNotRetried) {
    initOk();
    FakeSaLog::setResult("saLogWriteLogAsync", SA_AIS_ERR_TRY_AGAIN);
    tn_log_internal_log(SA_LOG_SEV_INFO, 3, "TWAMP", std::string(301, 'z').c_str());
    EXPECT_EQ(4u, FakeSaLog::records().size());
    EXPECT_EQ((Strings{"tn_internal_log_buffer(): Unable to write to TnApplicationLog",
                       "tn_internal_log_buffer(): Unable to write to TnApplicationLog",
                       "tn_internal_log_buffer(): Unable to write to TnNetworkLog",
                       "tn_internal_log_buffer(): Unable to write to TnNetworkLog"}),
              troubleshootingMessages());
}

// A missing message or user name is written as empty text, never read through.
TEST_F(TnLogInternalTest, MissingTextsAreEmpty) {
    initOk();
    tn_log_internal_log(SA_LOG_SEV_INFO, kTnApplicationLogMask, nullptr, nullptr);
    ASSERT_EQ(1u, FakeSaLog::records().size());
    EXPECT_EQ("", FakeSaLog::records()[0].text);
    EXPECT_EQ("", FakeSaLog::records()[0].userName);
}

// tn_log_format formats into the operator-log half of the thread's text area.
TEST_F(TnLogInternalTest, FormatUsesOperatorLogBuffer) {
    char* formatted = tn_log_format("delayRtMax %llu for period %d", 5000001ULL, 7);
    EXPECT_STREQ("delayRtMax 5000001 for period 7", formatted);
    EXPECT_EQ(trace_log_format_buffer(), formatted);
    EXPECT_STREQ("first", trace_format("%s(): ", nullptr, "first"));
    EXPECT_STREQ("delayRtMax 5000001 for period 7", formatted);
}

// Without a format the buffer comes back unchanged; a long text is cut to 1023 characters.
TEST_F(TnLogInternalTest, FormatWithoutFormatAndCut) {
    tn_log_format("kept");
    EXPECT_STREQ("kept", tn_log_format(nullptr));
    const std::string longText(2000, 'q');
    EXPECT_EQ(std::string(1023, 'q'), std::string(tn_log_format("%s", longText.c_str())));
}

}  // namespace
