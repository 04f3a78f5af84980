#include "FakeSaLog.h"

#include <cstring>

namespace twamp_test {
namespace {

constexpr SaLogHandleT kFakeLogHandle = 0x10;
constexpr SaLogStreamHandleT kFirstStreamHandle = 0x100;

struct FakeState {
    std::vector<std::string> calls;
    std::vector<FakeSaLogRecord> records;
    std::vector<FakeSaLogOpen> opens;
    std::map<std::string, SaAisErrorT> results;
    std::map<std::string, SaAisErrorT> openResults;
    std::map<SaLogStreamHandleT, std::string> streamNames;
    SaLogStreamHandleT nextStreamHandle = kFirstStreamHandle;
    SaVersionT lastVersion = {0, 0, 0};
    bool lastCallbacksGiven = false;
};

FakeState& state() {
    static FakeState instance;
    return instance;
}

SaAisErrorT resultOf(const std::string& function) {
    auto found = state().results.find(function);
    return found == state().results.end() ? SA_AIS_OK : found->second;
}

std::string nameText(const SaNameT* name) {
    if (name == nullptr) {
        return "<null>";
    }
    return std::string(reinterpret_cast<const char*>(name->value), name->length);
}

// The stream id of "safLgStr=<id>,...".
std::string streamIdOf(const std::string& dn) {
    const auto equals = dn.find('=');
    const auto comma = dn.find(',');
    if (equals == std::string::npos || comma == std::string::npos || comma < equals) {
        return dn;
    }
    return dn.substr(equals + 1, comma - equals - 1);
}

std::string streamNameOf(SaLogStreamHandleT handle) {
    auto found = state().streamNames.find(handle);
    return found == state().streamNames.end() ? std::to_string(handle) : found->second;
}

bool allZero(const SaNtfClassIdT* classId) {
    return classId != nullptr && classId->vendorId == 0 && classId->majorId == 0 &&
           classId->minorId == 0;
}

}  // namespace

void FakeSaLog::reset() {
    state() = FakeState{};
}

void FakeSaLog::forgetCalls() {
    state().calls.clear();
    state().records.clear();
    state().opens.clear();
}

void FakeSaLog::setResult(const std::string& function, SaAisErrorT result) {
    state().results[function] = result;
}

void FakeSaLog::setOpenResult(const std::string& streamName, SaAisErrorT result) {
    state().openResults[streamName] = result;
}

const std::vector<std::string>& FakeSaLog::calls() {
    return state().calls;
}

const std::vector<FakeSaLogRecord>& FakeSaLog::records() {
    return state().records;
}

const std::vector<FakeSaLogOpen>& FakeSaLog::opens() {
    return state().opens;
}

SaVersionT FakeSaLog::lastVersion() {
    return state().lastVersion;
}

bool FakeSaLog::lastCallbacksGiven() {
    return state().lastCallbacksGiven;
}

}  // namespace twamp_test

using twamp_test::state;

SaAisErrorT saLogInitialize(SaLogHandleT* logHandle, const SaLogCallbacksT* callbacks,
                            SaVersionT* version) {
    state().calls.push_back("saLogInitialize");
    state().lastVersion = *version;
    state().lastCallbacksGiven = callbacks != nullptr;
    const SaAisErrorT result = twamp_test::resultOf("saLogInitialize");
    if (result == SA_AIS_OK) {
        *logHandle = twamp_test::kFakeLogHandle;
    }
    return result;
}

SaAisErrorT saLogStreamOpen_2(SaLogHandleT logHandle, const SaNameT* logStreamName,
                              const SaLogFileCreateAttributesT_2* logFileCreateAttributes,
                              SaLogStreamOpenFlagsT logStreamOpenFlags, SaTimeT timeOut,
                              SaLogStreamHandleT* logStreamHandle) {
    const std::string dn = twamp_test::nameText(logStreamName);
    const std::string stream = twamp_test::streamIdOf(dn);
    state().calls.push_back("saLogStreamOpen_2 " + stream);
    state().opens.push_back(
        {logHandle, dn, logFileCreateAttributes == nullptr, logStreamOpenFlags, timeOut});
    SaAisErrorT result = twamp_test::resultOf("saLogStreamOpen_2");
    auto specific = state().openResults.find(stream);
    if (specific != state().openResults.end()) {
        result = specific->second;
    }
    if (result == SA_AIS_OK) {
        *logStreamHandle = state().nextStreamHandle++;
        state().streamNames[*logStreamHandle] = stream;
    }
    return result;
}

SaAisErrorT saLogWriteLogAsync(SaLogStreamHandleT logStreamHandle, SaInvocationT invocation,
                               SaLogAckFlagsT ackFlags, const SaLogRecordT* logRecord) {
    const std::string stream = twamp_test::streamNameOf(logStreamHandle);
    state().calls.push_back("saLogWriteLogAsync " + stream);
    const SaLogGenericLogHeaderT& header = logRecord->logHeader.genericHdr;
    twamp_test::FakeSaLogRecord record;
    record.stream = logStreamHandle;
    record.streamName = stream;
    record.invocation = invocation;
    record.ackFlags = ackFlags;
    record.timeStamp = logRecord->logTimeStamp;
    record.headerType = logRecord->logHdrType;
    record.classIdAllZero = twamp_test::allZero(header.notificationClassId);
    record.userName = twamp_test::nameText(header.logSvcUsrName);
    record.severity = header.logSeverity;
    record.text = std::string(reinterpret_cast<const char*>(logRecord->logBuffer->logBuf),
                              logRecord->logBuffer->logBufSize);
    state().records.push_back(record);
    return twamp_test::resultOf("saLogWriteLogAsync");
}

SaAisErrorT saLogStreamClose(SaLogStreamHandleT logStreamHandle) {
    state().calls.push_back("saLogStreamClose " + twamp_test::streamNameOf(logStreamHandle));
    return twamp_test::resultOf("saLogStreamClose");
}

SaAisErrorT saLogFinalize(SaLogHandleT logHandle) {
    state().calls.push_back("saLogFinalize " + std::to_string(logHandle));
    return twamp_test::resultOf("saLogFinalize");
}
