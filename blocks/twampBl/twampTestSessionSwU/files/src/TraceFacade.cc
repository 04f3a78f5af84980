#include "TraceFacade.h"

#include <cstdarg>
#include <cstdio>

#include "qrn_ng.h"

namespace {

// Each thread owns 2048 bytes: the trace buffer, then the operator-log buffer.
thread_local char threadTextArea[2 * kTraceBufferSize];

// Restart level handed to the platform: restart this process.
constexpr int kRestartLevelProcess = 1;

}  // namespace

const char* trace_format(const char* prefixFormat, const char* functionName,
                         const char* messageFormat, ...) {
    char* buffer = threadTextArea;
    std::size_t prefixLength = 0;
    if (functionName != nullptr) {
        int written = std::snprintf(buffer, kTracePrefixLimit, prefixFormat, functionName);
        if (written < 0) {
            written = 0;
        }
        prefixLength = static_cast<std::size_t>(written);
        if (prefixLength > kTracePrefixLimit - 1) {
            prefixLength = kTracePrefixLimit - 1;
        }
    }
    if (messageFormat != nullptr) {
        va_list args;
        va_start(args, messageFormat);
        std::vsnprintf(buffer + prefixLength, kTraceBufferSize - prefixLength, messageFormat, args);
        va_end(args);
    }
    return buffer;
}

char* trace_log_format_buffer() {
    return threadTextArea + kTraceBufferSize;
}

void fatal_restart(int line, const char* file, const char* format, ...) {
    char message[kRestartMessageSize];
    va_list args;
    va_start(args, format);
    std::vsnprintf(message, sizeof(message), format, args);
    va_end(args);

    qrn_ng_restart_request_line_and_file(line, file, kRestartLevelProcess, message, 0, 0);

    // Wait here until the platform restarts the process. The empty asm keeps
    // the loop a loop: an endless loop without side effects would be undefined.
    for (;;) {
        __asm__ __volatile__("" ::: "memory");
    }
}
