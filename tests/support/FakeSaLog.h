// A fake of the node's log service for unit tests: the saLog* functions the
// operator-log module calls, recording every call and failing any of them on
// request. Linked into the unit tests instead of the real service library.
#ifndef TWAMP_TESTS_FAKE_SA_LOG_H
#define TWAMP_TESTS_FAKE_SA_LOG_H

#include <map>
#include <string>
#include <vector>

#include "saLog.h"

namespace twamp_test {

// One record handed to saLogWriteLogAsync, copied out of the caller's stack.
struct FakeSaLogRecord {
    SaLogStreamHandleT stream;
    std::string streamName;  // the stream id the handle was opened for
    SaInvocationT invocation;
    SaLogAckFlagsT ackFlags;
    SaTimeT timeStamp;
    SaLogHeaderTypeT headerType;
    bool classIdAllZero;
    std::string userName;
    SaLogSeverityT severity;
    std::string text;
};

// Arguments of one saLogStreamOpen_2 call.
struct FakeSaLogOpen {
    SaLogHandleT handle;
    std::string name;  // the distinguished name, exactly length bytes
    bool createAttributesNull;
    SaLogStreamOpenFlagsT flags;
    SaTimeT timeout;
};

class FakeSaLog {
  public:
    // Forgets every call; every function succeeds again.
    static void reset();
    // Forgets the calls made so far; open streams and set results stay.
    static void forgetCalls();
    // Makes every later call of function ("saLogInitialize", ...) return result.
    static void setResult(const std::string& function, SaAisErrorT result);
    // Makes the opening of one stream ("TnNetworkLog") return result.
    static void setOpenResult(const std::string& streamName, SaAisErrorT result);

    // Every call in order, as "function argument", e.g. "saLogStreamClose TnNetworkLog".
    static const std::vector<std::string>& calls();
    static const std::vector<FakeSaLogRecord>& records();
    static const std::vector<FakeSaLogOpen>& opens();
    // The version handed to the last saLogInitialize.
    static SaVersionT lastVersion();
    // Whether the last saLogInitialize was given callbacks.
    static bool lastCallbacksGiven();
};

}  // namespace twamp_test

#endif  // TWAMP_TESTS_FAKE_SA_LOG_H
