// Operator log: records for the operator in the log streams TnApplicationLog
// (mask 1) and TnNetworkLog (mask 2) of the node's log service.
//
// A module of free functions with file-level state, single-threaded. Its
// failures are traced through the troubleshooting event with the component
// "GENERAL"; none is reported to the operator log itself, none is retried.
#ifndef TN_LOG_INTERNAL_H
#define TN_LOG_INTERNAL_H

#include <cstdint>

#include "saLog.h"

// Stream bits of tn_log_internal_log.
constexpr uint32_t kTnApplicationLogMask = 1;
constexpr uint32_t kTnNetworkLogMask = 2;

// Opens the log service and both streams; true when both are open. After a
// success further calls return true at once. A failure leaves the module
// closed again.
bool tn_log_init();

// Closes both streams and the service; true when everything closed cleanly or
// the module was not open.
bool tn_log_uninit();

// Writes message to every stream whose bit is in streamMask, application log
// first, as records of at most 300 characters with the given severity and
// log-service user name.
void tn_log_internal_log(SaLogSeverityT severity, uint32_t streamMask, const char* userName,
                         const char* message);

// Formats into the thread's operator-log buffer (1024 bytes) and returns it;
// without a format the buffer is returned unchanged.
char* tn_log_format(const char* format, ...) __attribute__((format(printf, 1, 2)));

#endif  // TN_LOG_INTERNAL_H
