/*
 * Operator-log service stand-in: each configured log stream is a file
 * <SA_LOG_DIR>/<stream id>.log and each record one line appended to it with a
 * single write(2). On the node the platform's own libSaLog.so replaces this
 * library; the daemon is not rebuilt.
 *
 * Every call runs under one mutex, the write of a record included: a
 * concurrent close never closes a descriptor under a writer, and records are
 * appended in the order they were stamped. Operator records are rare; the
 * serialisation costs nothing.
 */
#define _GNU_SOURCE
#include "saLog.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#define SALOG_API __attribute__((visibility("default")))

#define SALOG_DEFAULT_DIR "/var/log/saflog"
#define SALOG_FILE_SUFFIX ".log"
#define SALOG_FILE_MODE 0640

enum {
    SUPPORTED_RELEASE = 'A',
    SUPPORTED_MAJOR = 2,
    SUPPORTED_MINOR = 1,
    /* "2026-11-20T23:12:01.123456Z" with room for years beyond 9999. */
    TIME_TEXT_CAPACITY = 64,
    /* A byte is at most four bytes once escaped ("\xHH"). */
    ESCAPE_FACTOR = 4,
};

/* ------------------------------------------------------------------------ */
/* Handle tables                                                             */
/* ------------------------------------------------------------------------ */

typedef struct {
    SaLogHandleT handle;
    bool hasWriteCallback;
} service_t;

typedef struct {
    SaLogStreamHandleT handle;
    SaLogHandleT service;
    int fd;
    /* The file the stream's name gives, kept to follow it (follow_stream_file). */
    char* path;
} stream_t;

static pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;

static service_t* g_services;
static size_t g_service_count;
static size_t g_service_capacity;

static stream_t* g_streams;
static size_t g_stream_count;
static size_t g_stream_capacity;

/* One counter for both kinds: a handle is never handed out twice, so a stale
 * handle kept after a close or finalise is always recognised as bad. */
static uint64_t g_next_handle = 1;

/* The table with room for one more element: items itself while it has room,
 * else a grown copy; NULL when out of memory (items is then unchanged). */
static void* table_with_room(void* items, size_t* capacity, size_t count, size_t elementSize) {
    if (count < *capacity) {
        return items;
    }
    size_t newCapacity = *capacity == 0 ? 8 : *capacity * 2;
    if (newCapacity < *capacity || newCapacity > SIZE_MAX / elementSize) {
        return NULL;
    }
    void* grown = realloc(items, newCapacity * elementSize);
    if (grown != NULL) {
        *capacity = newCapacity;
    }
    return grown;
}

static service_t* find_service(SaLogHandleT handle) {
    for (size_t i = 0; i < g_service_count; ++i) {
        if (g_services[i].handle == handle) {
            return &g_services[i];
        }
    }
    return NULL;
}

static stream_t* find_stream(SaLogStreamHandleT handle) {
    for (size_t i = 0; i < g_stream_count; ++i) {
        if (g_streams[i].handle == handle) {
            return &g_streams[i];
        }
    }
    return NULL;
}

/* Closes the stream's file and removes it from the table (the last entry
 * takes its place). Returns close's result. */
static int remove_stream(stream_t* stream) {
    int result = close(stream->fd);
    free(stream->path);
    *stream = g_streams[g_stream_count - 1];
    --g_stream_count;
    return result;
}

/* ------------------------------------------------------------------------ */
/* Stream names and files                                                    */
/* ------------------------------------------------------------------------ */

/* The bytes a name really holds: length bytes, cut at a NUL when a caller
 * counted the terminator or left one inside. */
static size_t name_length(const SaNameT* name) {
    const void* nul = memchr(name->value, '\0', name->length);
    return nul == NULL ? name->length : (size_t)((const SaUint8T*)nul - name->value);
}

static bool is_stream_id_byte(unsigned char c) {
    return c >= 0x20 && c != 0x7f && c != '/' && c != '\\' && c != '=' && c != ',';
}

/* Finds the stream id in a DN such as "safLgStr=TnNetworkLog,safApp=safLogService":
 * the value of the first RDN, between its '=' and the first ','. The rest of
 * the DN is not interpreted. The id becomes a file name, so it must be
 * non-empty, short enough for "<id>.log" and free of '/', '\', '=' and
 * control bytes. */
static bool parse_stream_id(const SaNameT* name, const char** id, size_t* idLength) {
    if (name->length > SA_MAX_NAME_LENGTH) {
        return false;
    }
    const char* text = (const char*)name->value;
    size_t length = name_length(name);
    const char* equals = memchr(text, '=', length);
    if (equals == NULL || equals == text) {
        return false;
    }
    const char* start = equals + 1;
    const char* end = start;
    while (end < text + length && *end != ',') {
        if (!is_stream_id_byte((unsigned char)*end)) {
            return false;
        }
        ++end;
    }
    size_t valueLength = (size_t)(end - start);
    if (valueLength == 0 || valueLength + strlen(SALOG_FILE_SUFFIX) > NAME_MAX) {
        return false;
    }
    *id = start;
    *idLength = valueLength;
    return true;
}

static const char* log_directory(void) {
    const char* directory = getenv("SA_LOG_DIR");
    return (directory != NULL && directory[0] != '\0') ? directory : SALOG_DEFAULT_DIR;
}

/* "<directory>/<id>.log", allocated; NULL when out of memory. */
static char* stream_file_path(const char* id, size_t idLength) {
    char* path = NULL;
    if (asprintf(&path, "%s/%.*s%s", log_directory(), (int)idLength, id, SALOG_FILE_SUFFIX) < 0) {
        return NULL;
    }
    return path;
}

static SaAisErrorT open_error(int error) {
    switch (error) {
        case ENOENT:
        case ENOTDIR:
            return SA_AIS_ERR_NOT_EXIST;
        case EACCES:
        case EPERM:
        case EROFS:
            return SA_AIS_ERR_ACCESS;
        case ENOSPC:
        case EDQUOT:
            return SA_AIS_ERR_NO_SPACE;
        case EMFILE:
        case ENFILE:
            return SA_AIS_ERR_NO_RESOURCES;
        case ENOMEM:
            return SA_AIS_ERR_NO_MEMORY;
        default:
            return SA_AIS_ERR_LIBRARY;
    }
}

/* Opens the stream's file for appending; creates it only when asked. The open
 * does not block: a FIFO without a reader fails instead of hanging the caller.
 * Writes block again once the file is open. */
static SaAisErrorT open_stream_file(const char* path, bool create, int* fd) {
    int flags = O_WRONLY | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | (create ? O_CREAT : 0);
    int opened = open(path, flags, SALOG_FILE_MODE);
    int openErrno = errno;
    if (opened < 0) {
        return open_error(openErrno);
    }
    if (fcntl(opened, F_SETFL, O_APPEND) < 0) {
        close(opened);
        return SA_AIS_ERR_LIBRARY;
    }
    *fd = opened;
    return SA_AIS_OK;
}

/* ------------------------------------------------------------------------ */
/* Records                                                                   */
/* ------------------------------------------------------------------------ */

typedef struct {
    char* text;
    size_t length;
} line_t;

static const char* const k_severity_names[] = {
    "EMERGENCY", "ALERT", "CRITICAL", "ERROR", "WARNING", "NOTICE", "INFO",
};

static bool is_known_severity(SaLogSeverityT severity) {
    return (unsigned)severity < sizeof(k_severity_names) / sizeof(k_severity_names[0]);
}

/* Bytes escaped so that a record stays one line: newline, CR, backslash and
 * other control bytes; in the user name also the space, which separates the
 * fields. */
static size_t escaped_byte(unsigned char c, bool escapeSpace, char* out) {
    if (c == '\n') {
        memcpy(out, "\\n", 2);
        return 2;
    }
    if (c == '\r') {
        memcpy(out, "\\r", 2);
        return 2;
    }
    if (c == '\\') {
        memcpy(out, "\\\\", 2);
        return 2;
    }
    if (c < 0x20 || c == 0x7f || (escapeSpace && c == ' ')) {
        static const char k_hex[] = "0123456789abcdef";
        out[0] = '\\';
        out[1] = 'x';
        out[2] = k_hex[c >> 4];
        out[3] = k_hex[c & 0x0f];
        return 4;
    }
    out[0] = (char)c;
    return 1;
}

static void append_escaped(line_t* line, const SaUint8T* bytes, size_t count, bool escapeSpace) {
    for (size_t i = 0; i < count; ++i) {
        line->length += escaped_byte(bytes[i], escapeSpace, line->text + line->length);
    }
}

static void append_text(line_t* line, const char* text) {
    size_t length = strlen(text);
    memcpy(line->text + line->length, text, length);
    line->length += length;
}

/* Floor division, so that times before 1970 still get a microsecond part in 0..999999. */
static bool format_time(SaTimeT timeStamp, char* out, size_t capacity) {
    int64_t seconds = timeStamp / SA_TIME_ONE_SECOND;
    int64_t nanoseconds = timeStamp % SA_TIME_ONE_SECOND;
    if (nanoseconds < 0) {
        nanoseconds += SA_TIME_ONE_SECOND;
        --seconds;
    }
    time_t clockSeconds = (time_t)seconds;
    struct tm utc;
    if (gmtime_r(&clockSeconds, &utc) == NULL) {
        return false;
    }
    int written = snprintf(out, capacity, "%04d-%02d-%02dT%02d:%02d:%02d.%06dZ", utc.tm_year + 1900,
                           utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                           (int)(nanoseconds / SA_TIME_ONE_MICROSECOND));
    return written > 0 && (size_t)written < capacity;
}

static SaTimeT now(void) {
    struct timespec clock;
    clock_gettime(CLOCK_REALTIME, &clock);
    return (SaTimeT)clock.tv_sec * SA_TIME_ONE_SECOND + clock.tv_nsec;
}

/* Checks what the record carries; the caller then formats it. */
static SaAisErrorT check_record(const SaLogRecordT* record) {
    if (record == NULL || record->logHdrType != SA_LOG_GENERIC_HEADER) {
        return SA_AIS_ERR_INVALID_PARAM;
    }
    const SaLogGenericLogHeaderT* header = &record->logHeader.genericHdr;
    if (!is_known_severity(header->logSeverity)) {
        return SA_AIS_ERR_INVALID_PARAM;
    }
    if (header->logSvcUsrName != NULL && header->logSvcUsrName->length > SA_MAX_NAME_LENGTH) {
        return SA_AIS_ERR_INVALID_PARAM;
    }
    const SaLogBufferT* buffer = record->logBuffer;
    if (buffer != NULL && buffer->logBuf == NULL && buffer->logBufSize > 0) {
        return SA_AIS_ERR_INVALID_PARAM;
    }
    return SA_AIS_OK;
}

/* "<time> <severity> <user name> <text>\n" in one allocated buffer. */
static SaAisErrorT format_record(const SaLogRecordT* record, line_t* line) {
    const SaLogGenericLogHeaderT* header = &record->logHeader.genericHdr;
    const SaLogBufferT* buffer = record->logBuffer;
    size_t textLength = buffer == NULL ? 0 : (size_t)buffer->logBufSize;
    size_t userLength = header->logSvcUsrName == NULL ? 0 : name_length(header->logSvcUsrName);

    char timeText[TIME_TEXT_CAPACITY];
    SaTimeT stamp = record->logTimeStamp == SA_TIME_UNKNOWN ? now() : record->logTimeStamp;
    if (!format_time(stamp, timeText, sizeof(timeText))) {
        return SA_AIS_ERR_INVALID_PARAM;
    }

    size_t fixed = sizeof(timeText) + 16 + ESCAPE_FACTOR * SA_MAX_NAME_LENGTH;
    if (textLength > (SIZE_MAX - fixed) / ESCAPE_FACTOR) {
        return SA_AIS_ERR_NO_MEMORY;
    }
    line->text = malloc(fixed + ESCAPE_FACTOR * textLength);
    if (line->text == NULL) {
        return SA_AIS_ERR_NO_MEMORY;
    }
    line->length = 0;
    append_text(line, timeText);
    append_text(line, " ");
    append_text(line, k_severity_names[header->logSeverity]);
    append_text(line, " ");
    if (userLength == 0) {
        append_text(line, "-");
    } else {
        append_escaped(line, header->logSvcUsrName->value, userLength, true);
    }
    append_text(line, " ");
    if (textLength > 0) {
        append_escaped(line, buffer->logBuf, textLength, false);
    }
    append_text(line, "\n");
    return SA_AIS_OK;
}

/* One write on an O_APPEND descriptor keeps the line whole next to other
 * writers; only a short write (far beyond any operator record) continues. */
static SaAisErrorT write_line(int fd, const line_t* line) {
    size_t done = 0;
    while (done < line->length) {
        ssize_t written = write(fd, line->text + done, line->length - done);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0) {
            return (errno == ENOSPC || errno == EDQUOT) ? SA_AIS_ERR_NO_SPACE : SA_AIS_ERR_LIBRARY;
        }
        done += (size_t)written;
    }
    return SA_AIS_OK;
}

/* ------------------------------------------------------------------------ */
/* Service interface                                                         */
/* ------------------------------------------------------------------------ */

static bool is_supported_version(const SaVersionT* version) {
    return version->releaseCode == SUPPORTED_RELEASE && version->majorVersion == SUPPORTED_MAJOR;
}

SALOG_API SaAisErrorT saLogInitialize(SaLogHandleT* logHandle, const SaLogCallbacksT* callbacks,
                                      SaVersionT* version) {
    if (logHandle == NULL || version == NULL) {
        return SA_AIS_ERR_INVALID_PARAM;
    }
    bool supported = is_supported_version(version);
    /* Either way the caller learns the version this library implements. */
    version->releaseCode = SUPPORTED_RELEASE;
    version->majorVersion = SUPPORTED_MAJOR;
    version->minorVersion = SUPPORTED_MINOR;
    if (!supported) {
        return SA_AIS_ERR_VERSION;
    }

    pthread_mutex_lock(&g_lock);
    SaAisErrorT result = SA_AIS_ERR_NO_MEMORY;
    service_t* services =
        table_with_room(g_services, &g_service_capacity, g_service_count, sizeof(service_t));
    if (services != NULL) {
        g_services = services;
        service_t* service = &g_services[g_service_count++];
        service->handle = g_next_handle++;
        service->hasWriteCallback = callbacks != NULL && callbacks->saLogWriteLogCallback != NULL;
        *logHandle = service->handle;
        result = SA_AIS_OK;
    }
    pthread_mutex_unlock(&g_lock);
    return result;
}

/* Create attributes and the create flag come together or not at all. */
static SaAisErrorT check_open_flags(const SaLogFileCreateAttributesT_2* createAttributes,
                                    SaLogStreamOpenFlagsT flags) {
    if ((flags & ~SA_LOG_STREAM_CREATE) != 0) {
        return SA_AIS_ERR_BAD_FLAGS;
    }
    bool create = (flags & SA_LOG_STREAM_CREATE) != 0;
    if (create != (createAttributes != NULL)) {
        return SA_AIS_ERR_INVALID_PARAM;
    }
    return SA_AIS_OK;
}

/* Registers an open file as a new stream of the service, which then owns the
 * path. */
static SaAisErrorT add_stream(SaLogHandleT service, int fd, char* path,
                              SaLogStreamHandleT* streamHandle) {
    stream_t* streams =
        table_with_room(g_streams, &g_stream_capacity, g_stream_count, sizeof(stream_t));
    if (streams == NULL) {
        return SA_AIS_ERR_NO_MEMORY;
    }
    g_streams = streams;
    stream_t* stream = &g_streams[g_stream_count++];
    stream->handle = g_next_handle++;
    stream->service = service;
    stream->fd = fd;
    stream->path = path;
    *streamHandle = stream->handle;
    return SA_AIS_OK;
}

/* Opens the stream's file and registers it; the lock is held. */
static SaAisErrorT open_stream(SaLogHandleT logHandle, const SaNameT* logStreamName,
                               const SaLogFileCreateAttributesT_2* createAttributes,
                               SaLogStreamOpenFlagsT flags, SaLogStreamHandleT* logStreamHandle) {
    if (find_service(logHandle) == NULL) {
        return SA_AIS_ERR_BAD_HANDLE;
    }
    if (logStreamName == NULL || logStreamHandle == NULL) {
        return SA_AIS_ERR_INVALID_PARAM;
    }
    SaAisErrorT result = check_open_flags(createAttributes, flags);
    if (result != SA_AIS_OK) {
        return result;
    }
    const char* id = NULL;
    size_t idLength = 0;
    if (!parse_stream_id(logStreamName, &id, &idLength)) {
        return SA_AIS_ERR_INVALID_PARAM;
    }
    char* path = stream_file_path(id, idLength);
    if (path == NULL) {
        return SA_AIS_ERR_NO_MEMORY;
    }
    int fd = -1;
    result = open_stream_file(path, createAttributes != NULL, &fd);
    if (result == SA_AIS_OK) {
        result = add_stream(logHandle, fd, path, logStreamHandle);
        if (result != SA_AIS_OK) {
            close(fd);
        }
    }
    if (result != SA_AIS_OK) {
        free(path);
    }
    return result;
}

/* The time-out is not used: every call completes before it returns. The
 * create attributes only ask for creation; the file is always named after the
 * stream id. */
SALOG_API SaAisErrorT saLogStreamOpen_2(SaLogHandleT logHandle, const SaNameT* logStreamName,
                                        const SaLogFileCreateAttributesT_2* logFileCreateAttributes,
                                        SaLogStreamOpenFlagsT logStreamOpenFlags, SaTimeT timeOut,
                                        SaLogStreamHandleT* logStreamHandle) {
    (void)timeOut;
    pthread_mutex_lock(&g_lock);
    SaAisErrorT result = open_stream(logHandle, logStreamName, logFileCreateAttributes,
                                     logStreamOpenFlags, logStreamHandle);
    pthread_mutex_unlock(&g_lock);
    return result;
}

/* Acknowledgements are never delivered (there is no dispatch), but asking for
 * one without a write callback is refused as the service would. */
static SaAisErrorT check_ack_flags(const stream_t* stream, SaLogAckFlagsT ackFlags) {
    if ((ackFlags & ~(SaLogAckFlagsT)SA_LOG_RECORD_WRITE_ACK) != 0) {
        return SA_AIS_ERR_BAD_FLAGS;
    }
    const service_t* service = find_service(stream->service);
    if ((ackFlags & SA_LOG_RECORD_WRITE_ACK) != 0 &&
        (service == NULL || !service->hasWriteCallback)) {
        return SA_AIS_ERR_INIT;
    }
    return SA_AIS_OK;
}

/* A stream writes to the file its name gives. When that file was removed or
 * replaced while the stream was open (by hand, or by a rotation that renames
 * it), the name is opened again, and created when missing: records written to
 * a removed file would be lost without a word. When that fails the record
 * fails with it, so the caller learns of it; the next record tries again. */
static SaAisErrorT follow_stream_file(stream_t* stream) {
    struct stat named;
    struct stat opened;
    if (fstat(stream->fd, &opened) == 0 && stat(stream->path, &named) == 0 &&
        named.st_dev == opened.st_dev && named.st_ino == opened.st_ino) {
        return SA_AIS_OK;
    }
    int fd = -1;
    SaAisErrorT result = open_stream_file(stream->path, true, &fd);
    if (result != SA_AIS_OK) {
        return result;
    }
    close(stream->fd);
    stream->fd = fd;
    return SA_AIS_OK;
}

/* Checks, formats and writes one record; the lock is held, so a record the
 * service stamps is never appended after a later one. */
static SaAisErrorT write_record(SaLogStreamHandleT logStreamHandle, SaLogAckFlagsT ackFlags,
                                const SaLogRecordT* logRecord) {
    stream_t* stream = find_stream(logStreamHandle);
    if (stream == NULL) {
        return SA_AIS_ERR_BAD_HANDLE;
    }
    SaAisErrorT result = check_record(logRecord);
    if (result != SA_AIS_OK) {
        return result;
    }
    result = check_ack_flags(stream, ackFlags);
    if (result != SA_AIS_OK) {
        return result;
    }
    line_t line = {NULL, 0};
    result = format_record(logRecord, &line);
    if (result == SA_AIS_OK) {
        result = follow_stream_file(stream);
    }
    if (result == SA_AIS_OK) {
        result = write_line(stream->fd, &line);
    }
    free(line.text);
    return result;
}

SALOG_API SaAisErrorT saLogWriteLogAsync(SaLogStreamHandleT logStreamHandle,
                                         SaInvocationT invocation, SaLogAckFlagsT ackFlags,
                                         const SaLogRecordT* logRecord) {
    (void)invocation;
    pthread_mutex_lock(&g_lock);
    SaAisErrorT result = write_record(logStreamHandle, ackFlags, logRecord);
    pthread_mutex_unlock(&g_lock);
    return result;
}

SALOG_API SaAisErrorT saLogStreamClose(SaLogStreamHandleT logStreamHandle) {
    pthread_mutex_lock(&g_lock);
    SaAisErrorT result = SA_AIS_ERR_BAD_HANDLE;
    stream_t* stream = find_stream(logStreamHandle);
    if (stream != NULL) {
        /* The handle is gone even when close reports an error: the descriptor
         * is released all the same on Linux. */
        result = remove_stream(stream) == 0 ? SA_AIS_OK : SA_AIS_ERR_LIBRARY;
    }
    pthread_mutex_unlock(&g_lock);
    return result;
}

SALOG_API SaAisErrorT saLogFinalize(SaLogHandleT logHandle) {
    pthread_mutex_lock(&g_lock);
    SaAisErrorT result = SA_AIS_ERR_BAD_HANDLE;
    service_t* service = find_service(logHandle);
    if (service != NULL) {
        size_t i = 0;
        while (i < g_stream_count) {
            if (g_streams[i].service == logHandle) {
                /* The last entry moves into slot i: look at it next. */
                remove_stream(&g_streams[i]);
            } else {
                ++i;
            }
        }
        *service = g_services[g_service_count - 1];
        --g_service_count;
        result = SA_AIS_OK;
    }
    pthread_mutex_unlock(&g_lock);
    return result;
}
