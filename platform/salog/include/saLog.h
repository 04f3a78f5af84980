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

/*
 * Opens the service and returns a fresh, non-zero handle in *logHandle.
 * @param callbacks may be NULL; no callback is ever delivered.
 * @param version   [in/out] release 'A', major 2 is required (the minor version
 *                  is ignored); on return it holds the implemented A.02.01.
 * @return SA_AIS_OK, SA_AIS_ERR_VERSION, SA_AIS_ERR_INVALID_PARAM (NULL
 *         logHandle or version), SA_AIS_ERR_NO_MEMORY.
 */
SaAisErrorT saLogInitialize(SaLogHandleT* logHandle, const SaLogCallbacksT* callbacks,
                            SaVersionT* version);

/*
 * Opens the stream named by the DN logStreamName, e.g.
 * "safLgStr=TnNetworkLog,safApp=safLogService". The stream's file is
 * <SA_LOG_DIR>/<value of the first RDN>.log (SA_LOG_DIR defaults to
 * /var/log/saflog). A NULL logFileCreateAttributes with flags 0 opens an
 * already configured stream (its file must exist); create attributes with
 * SA_LOG_STREAM_CREATE create the file when it is missing. timeOut is unused.
 * @return SA_AIS_OK, SA_AIS_ERR_BAD_HANDLE, SA_AIS_ERR_INVALID_PARAM (NULL
 *         pointer, malformed DN, attributes and flag not given together),
 *         SA_AIS_ERR_BAD_FLAGS, SA_AIS_ERR_NOT_EXIST (unconfigured stream),
 *         SA_AIS_ERR_ACCESS, SA_AIS_ERR_NO_SPACE, SA_AIS_ERR_NO_RESOURCES,
 *         SA_AIS_ERR_NO_MEMORY, SA_AIS_ERR_LIBRARY.
 */
SaAisErrorT saLogStreamOpen_2(SaLogHandleT logHandle, const SaNameT* logStreamName,
                              const SaLogFileCreateAttributesT_2* logFileCreateAttributes,
                              SaLogStreamOpenFlagsT logStreamOpenFlags, SaTimeT timeOut,
                              SaLogStreamHandleT* logStreamHandle);

/*
 * Writes one record as one line "<UTC time> <severity> <user name> <text>"
 * before it returns. Only the generic header is supported. A logTimeStamp of
 * SA_TIME_UNKNOWN is replaced by the current time. No acknowledgement is ever
 * delivered.
 * @return SA_AIS_OK, SA_AIS_ERR_BAD_HANDLE, SA_AIS_ERR_INVALID_PARAM (NULL
 *         record, other header type, unknown severity, name longer than
 *         SA_MAX_NAME_LENGTH, NULL logBuf with a size), SA_AIS_ERR_BAD_FLAGS,
 *         SA_AIS_ERR_INIT (acknowledgement asked without a write callback),
 *         SA_AIS_ERR_NO_SPACE, SA_AIS_ERR_NO_MEMORY, SA_AIS_ERR_LIBRARY.
 */
SaAisErrorT saLogWriteLogAsync(SaLogStreamHandleT logStreamHandle, SaInvocationT invocation,
                               SaLogAckFlagsT ackFlags, const SaLogRecordT* logRecord);

/*
 * Closes the stream; its handle is invalid afterwards.
 * @return SA_AIS_OK, SA_AIS_ERR_BAD_HANDLE, SA_AIS_ERR_LIBRARY.
 */
SaAisErrorT saLogStreamClose(SaLogStreamHandleT logStreamHandle);

/*
 * Closes every stream of the handle and the service; all these handles are
 * invalid afterwards.
 * @return SA_AIS_OK, SA_AIS_ERR_BAD_HANDLE.
 */
SaAisErrorT saLogFinalize(SaLogHandleT logHandle);

#ifdef __cplusplus
}
#endif

#endif /* SA_LOG_H */
