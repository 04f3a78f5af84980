/*
 * Operator-log service (AIS Log service), the subset of version A.02.01 that
 * writes records to configured log streams: initialise the service, open a
 * stream, write records asynchronously, close the stream, finalise.
 */
#ifndef SA_LOG_H
#define SA_LOG_H

#include "saAis.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef SaUint64T SaLogHandleT;
typedef SaUint64T SaLogStreamHandleT;

/* Distinguished names of the three well-known streams. */
#define SA_LOG_STREAM_SYSTEM "safLgStrCfg=saLogSystem,safApp=safLogService"
#define SA_LOG_STREAM_NOTIFICATION "safLgStrCfg=saLogNotification,safApp=safLogService"
#define SA_LOG_STREAM_ALARM "safLgStrCfg=saLogAlarm,safApp=safLogService"

typedef enum {
    SA_LOG_SEV_EMERGENCY = 0,
    SA_LOG_SEV_ALERT = 1,
    SA_LOG_SEV_CRITICAL = 2,
    SA_LOG_SEV_ERROR = 3,
    SA_LOG_SEV_WARNING = 4,
    SA_LOG_SEV_NOTICE = 5,
    SA_LOG_SEV_INFO = 6
} SaLogSeverityT;

typedef SaUint16T SaLogSeverityFlagsT;
#define SA_LOG_SEV_FLAG_EMERGENCY 0x0001
#define SA_LOG_SEV_FLAG_ALERT 0x0002
#define SA_LOG_SEV_FLAG_CRITICAL 0x0004
#define SA_LOG_SEV_FLAG_ERROR 0x0008
#define SA_LOG_SEV_FLAG_WARNING 0x0010
#define SA_LOG_SEV_FLAG_NOTICE 0x0020
#define SA_LOG_SEV_FLAG_INFO 0x0040

typedef SaUint32T SaLogAckFlagsT;
#define SA_LOG_RECORD_WRITE_ACK 0x1

typedef SaUint8T SaLogStreamOpenFlagsT;
#define SA_LOG_STREAM_CREATE 0x1

typedef enum { SA_LOG_NTF_HEADER = 1, SA_LOG_GENERIC_HEADER = 2 } SaLogHeaderTypeT;

typedef struct {
    SaUint32T vendorId;
    SaUint16T majorId;
    SaUint16T minorId;
} SaNtfClassIdT;

typedef SaUint64T SaNtfIdentifierT;
typedef SaUint16T SaNtfEventTypeT;

typedef struct {
    SaNtfIdentifierT notificationId;
    SaNtfEventTypeT eventType;
    SaNameT* notificationObject;
    SaNameT* notifyingObject;
    SaNtfClassIdT* notificationClassId;
    SaTimeT eventTime;
} SaLogNtfLogHeaderT;

typedef struct {
    SaNtfClassIdT* notificationClassId;
    const SaNameT* logSvcUsrName;
    SaLogSeverityT logSeverity;
} SaLogGenericLogHeaderT;

typedef union {
    SaLogNtfLogHeaderT ntfHdr;
    SaLogGenericLogHeaderT genericHdr;
} SaLogHeaderT;

typedef struct {
    SaSizeT logBufSize;
    SaUint8T* logBuf;
} SaLogBufferT;

typedef struct {
    SaTimeT logTimeStamp;
    SaLogHeaderTypeT logHdrType;
    SaLogHeaderT logHeader;
    SaLogBufferT* logBuffer;
} SaLogRecordT;

typedef enum {
    SA_LOG_FILE_FULL_ACTION_WRAP = 1,
    SA_LOG_FILE_FULL_ACTION_HALT = 2,
    SA_LOG_FILE_FULL_ACTION_ROTATE = 3
} SaLogFileFullActionT;

typedef struct {
    SaStringT logFileName;
    SaStringT logFilePathName;
    SaUint64T maxLogFileSize;
    SaUint32T maxLogRecordSize;
    SaBoolT haProperty;
    SaLogFileFullActionT logFileFullAction;
    SaUint16T maxFilesRotated;
    SaStringT logFileFmt;
} SaLogFileCreateAttributesT_2;

typedef void (*SaLogFilterSetCallbackT)(SaLogStreamHandleT logStreamHandle,
                                        SaLogSeverityFlagsT logSeverity);
typedef void (*SaLogStreamOpenCallbackT)(SaInvocationT invocation,
                                         SaLogStreamHandleT logStreamHandle, SaAisErrorT error);
typedef void (*SaLogWriteLogCallbackT)(SaInvocationT invocation, SaAisErrorT error);

typedef struct {
    SaLogFilterSetCallbackT saLogFilterSetCallback;
    SaLogStreamOpenCallbackT saLogStreamOpenCallback;
    SaLogWriteLogCallbackT saLogWriteLogCallback;
} SaLogCallbacksT;

/* Opens the service; *version is checked against the supported A.02.x. */
SaAisErrorT saLogInitialize(SaLogHandleT* logHandle, const SaLogCallbacksT* callbacks,
                            SaVersionT* version);

/* Opens the stream named by logStreamName; a NULL logFileCreateAttributes
 * opens an already configured stream. */
SaAisErrorT saLogStreamOpen_2(SaLogHandleT logHandle, const SaNameT* logStreamName,
                              const SaLogFileCreateAttributesT_2* logFileCreateAttributes,
                              SaLogStreamOpenFlagsT logStreamOpenFlags, SaTimeT timeOut,
                              SaLogStreamHandleT* logStreamHandle);

/* Writes one record to the stream. */
SaAisErrorT saLogWriteLogAsync(SaLogStreamHandleT logStreamHandle, SaInvocationT invocation,
                               SaLogAckFlagsT ackFlags, const SaLogRecordT* logRecord);

/* Closes the stream. */
SaAisErrorT saLogStreamClose(SaLogStreamHandleT logStreamHandle);

/* Closes every stream of the handle and the service. */
SaAisErrorT saLogFinalize(SaLogHandleT logHandle);

#ifdef __cplusplus
}
#endif

#endif /* SA_LOG_H */
