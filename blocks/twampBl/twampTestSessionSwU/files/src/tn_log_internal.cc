#include "tn_log_internal.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "TraceFacade.h"

namespace {

struct TnLogStream {
    uint32_t mask;
    SaLogStreamHandleT handle;
    uint8_t open;
};

constexpr int kStreamCount = 2;
const char* const kStreamNames[kStreamCount] = {"TnApplicationLog", "TnNetworkLog"};

// Stream names and the user name are copied with this bound, and never past
// the end of the SaNameT that holds them.
constexpr std::size_t kNameBound = 600;
// Records carry at most this many characters of a message.
constexpr std::size_t kPieceLength = 300;
// The service's open time-out: one second in nanoseconds.
constexpr SaTimeT kStreamOpenTimeout = 1000000000;

uint8_t initialized = 0;
SaLogHandleT logHandle = 0;
TnLogStream streams[kStreamCount] = {};

std::size_t nameCapacity(const SaNameT& name) {
    return std::min(kNameBound, sizeof(name.value));
}

// Fills a SaNameT from format and text; its length is what was copied.
void fillName(SaNameT& name, const char* format, const char* text) {
    std::snprintf(reinterpret_cast<char*>(name.value), nameCapacity(name), format, text);
    name.length = static_cast<SaUint16T>(std::strlen(reinterpret_cast<char*>(name.value)));
}

SaAisErrorT openStream(int index) {
    SaNameT streamName;
    fillName(streamName, "safLgStr=%s,safApp=safLogService", kStreamNames[index]);
    return saLogStreamOpen_2(logHandle, &streamName, nullptr, 0, kStreamOpenTimeout,
                             &streams[index].handle);
}

SaAisErrorT tn_log_write_record(SaLogStreamHandleT streamHandle, SaLogSeverityT severity,
                                const char* userName, const char* text) {
    SaNtfClassIdT notificationClassId = {};
    SaNameT user;
    fillName(user, "%s", userName);
    SaLogBufferT buffer;
    buffer.logBufSize = std::strlen(text);
    buffer.logBuf = reinterpret_cast<SaUint8T*>(const_cast<char*>(text));

    SaLogRecordT record = {};
    record.logTimeStamp = SA_TIME_UNKNOWN;
    record.logHdrType = SA_LOG_GENERIC_HEADER;
    record.logHeader.genericHdr.notificationClassId = &notificationClassId;
    record.logHeader.genericHdr.logSvcUsrName = &user;
    record.logHeader.genericHdr.logSeverity = severity;
    record.logBuffer = &buffer;
    return saLogWriteLogAsync(streamHandle, 0, 0, &record);
}

// Writes one piece of at most 300 characters as one record; not retried.
void tn_internal_log_buffer(int index, SaLogSeverityT severity, const char* userName,
                            const char* piece, std::size_t length) {
    char text[kPieceLength + 1];
    const std::size_t copied = std::min(length, kPieceLength);
    std::memcpy(text, piece, copied);
    text[copied] = '\0';
    if (tn_log_write_record(streams[index].handle, severity, userName, text) != SA_AIS_OK) {
        TRACE_TROUBLESHOOTING_ERROR("Unable to write to %s", kStreamNames[index]);
    }
}

// Pieces of 300 characters; the last one holds the rest, an empty message
// gives one empty piece.
void writePieces(int index, SaLogSeverityT severity, const char* userName, const char* message) {
    const std::size_t length = std::strlen(message);
    std::size_t offset = 0;
    while (length - offset > kPieceLength) {
        tn_internal_log_buffer(index, severity, userName, message + offset, kPieceLength);
        offset += kPieceLength;
    }
    tn_internal_log_buffer(index, severity, userName, message + offset, length - offset);
}

}  // namespace

bool tn_log_init() {
    if (initialized) {
        return initialized;
    }
    for (TnLogStream& stream : streams) {
        stream.open = 0;
    }
    bool bothOpen = false;
    SaVersionT version = {'A', 2, 1};
    const SaAisErrorT result = saLogInitialize(&logHandle, nullptr, &version);
    if (result != SA_AIS_OK) {
        TRACE_TROUBLESHOOTING_ERROR(
            "Unable to initialize the log service, saLogInitialize returned error %d", result);
    } else {
        initialized = 1;
        streams[0].mask = kTnApplicationLogMask;
        bothOpen = true;
        for (int index = 0; index < kStreamCount && bothOpen; ++index) {
            const SaAisErrorT openResult = openStream(index);
            if (openResult != SA_AIS_OK) {
                TRACE_TROUBLESHOOTING_ERROR(
                    "Unable to initialize %s, saLogStreamOpen_2 returned error %d",
                    kStreamNames[index], openResult);
                bothOpen = false;
                continue;
            }
            streams[index].open = 1;
            if (index == 0) {
                streams[1].mask = kTnNetworkLogMask;
            }
        }
    }
    if (bothOpen) {
        return true;
    }
    // Clean-up after a failure: close whatever was opened.
    if (!tn_log_uninit()) {
        TRACE_TROUBLESHOOTING_ERROR("Unable to clean up after failed initialization");
    }
    return false;
}

bool tn_log_uninit() {
    if (!initialized) {
        return true;
    }
    bool result = true;
    for (int index = 0; index < kStreamCount; ++index) {
        if (!streams[index].open) {
            continue;
        }
        const SaAisErrorT closeResult = saLogStreamClose(streams[index].handle);
        streams[index].open = 0;
        if (closeResult != SA_AIS_OK) {
            TRACE_TROUBLESHOOTING_ERROR("Unable to close %s, saLogStreamClose returned error %d",
                                        kStreamNames[index], closeResult);
            result = false;
        }
    }
    const SaAisErrorT finalizeResult = saLogFinalize(logHandle);
    initialized = 0;
    if (finalizeResult != SA_AIS_OK) {
        TRACE_TROUBLESHOOTING_ERROR(
            "Unable to finalize the log service, saLogFinalize returned error %d", finalizeResult);
        return false;
    }
    return result;
}

void tn_log_internal_log(SaLogSeverityT severity, uint32_t streamMask, const char* userName,
                         const char* message) {
    if (!initialized) {
        TRACE_TROUBLESHOOTING_ERROR("TN operator logs not initialized, cannot write to log");
        return;
    }
    // A missing text is written as an empty one rather than read through.
    const char* text = message != nullptr ? message : "";
    const char* user = userName != nullptr ? userName : "";
    for (int index = 0; index < kStreamCount; ++index) {
        if ((streamMask & streams[index].mask) == 0) {
            continue;
        }
        if (!streams[index].open) {
            TRACE_TROUBLESHOOTING_ERROR("Unable to write to %s, missing handle",
                                        kStreamNames[index]);
            continue;
        }
        writePieces(index, severity, user, text);
    }
}

char* tn_log_format(const char* format, ...) {
    char* buffer = trace_log_format_buffer();
    if (format == nullptr) {
        return buffer;
    }
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer, kTraceBufferSize, format, args);
    va_end(args);
    return buffer;
}
