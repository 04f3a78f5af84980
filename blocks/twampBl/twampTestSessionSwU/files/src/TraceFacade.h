// The one way every trace statement of the daemon is formed.
//
// A trace statement first checks whether its event is enabled; only then is
// the message formatted ("function(): text") into the thread's trace buffer
// and emitted with the source position ("File.cc:123") and the component.
// A disabled event costs the test of its enabled state and nothing else: the
// arguments of the message are not even evaluated.
//
// Unit tests build the same statements with TWAMP_TRACE_SEAM defined; the
// enabled check and the emission then go to the test's recorder instead of
// the LTTng-UST tracepoint, and the order check, format, emit is unchanged.
#ifndef TWAMP_TRACE_FACADE_H
#define TWAMP_TRACE_FACADE_H

#include <cstddef>

#ifdef TWAMP_TRACE_SEAM
#include "TraceSeam.h"
#define TWAMP_TRACEPOINT_ENABLED(provider, event) twampTraceSeamEnabled(#provider, #event)
#define TWAMP_TRACEPOINT_EMIT(provider, event, position, component, message) \
    twampTraceSeamEmit(#provider, #event, position, component, message)
#else
#include "com_quorin_tn_twamp.h"
#include "com_quorin_tn_troubleshooting.h"
#define TWAMP_TRACEPOINT_ENABLED(provider, event) lttng_ust_tracepoint_enabled(provider, event)
#define TWAMP_TRACEPOINT_EMIT(provider, event, position, component, message) \
    lttng_ust_do_tracepoint(provider, event, position, component, message)
// The tracing headers' compatibility name for a log level, unused here: the
// name belongs to the INFO trace statement below.
#undef TRACE_INFO
#endif

// Size of each of the two thread-local text buffers (trace, operator log).
constexpr std::size_t kTraceBufferSize = 1024;
// snprintf limit of the "function(): " prefix; longer prefixes count as 255.
constexpr std::size_t kTracePrefixLimit = 256;
// Buffer of the fatal restart message: at most 127 characters.
constexpr std::size_t kRestartMessageSize = 128;

// Formats "<prefix with function name><message>" into the thread's trace
// buffer and returns it; valid until the next message of the same thread.
const char* trace_format(const char* prefixFormat, const char* functionName,
                         const char* messageFormat, ...) __attribute__((format(printf, 3, 4)));

// The thread's operator-log formatting buffer (second half of the area).
char* trace_log_format_buffer();

// Asks the platform for a restart with line, source path and message, then
// spins until the platform restarts the process. Never returns.
[[noreturn]] void fatal_restart(int line, const char* file, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

#define TWAMP_TRACE_STRINGIFY_(x) #x
#define TWAMP_TRACE_STRINGIFY(x) TWAMP_TRACE_STRINGIFY_(x)
#define TWAMP_TRACE_POSITION __FILE_NAME__ ":" TWAMP_TRACE_STRINGIFY(__LINE__)

// Check, format, emit: the shape of every trace statement, on behalf of the
// named function.
#define TWAMP_TRACE_STATEMENT_AS(provider, event, component, function, ...)                 \
    do {                                                                                    \
        if (TWAMP_TRACEPOINT_ENABLED(provider, event)) {                                    \
            const char* twampTraceMessage_ = trace_format("%s(): ", function, __VA_ARGS__); \
            TWAMP_TRACEPOINT_EMIT(provider, event, TWAMP_TRACE_POSITION, component,         \
                                  twampTraceMessage_);                                      \
        }                                                                                   \
    } while (0)

// A trace statement of the calling function.
#define TWAMP_TRACE_STATEMENT(provider, event, component, ...) \
    TWAMP_TRACE_STATEMENT_AS(provider, event, component, __func__, __VA_ARGS__)

// Events of com_quorin_tn_twamp, component "TWAMP".
#define TRACE_ERROR(...) TWAMP_TRACE_STATEMENT(com_quorin_tn_twamp, ERROR, "TWAMP", __VA_ARGS__)
#define TRACE_INFO(...) TWAMP_TRACE_STATEMENT(com_quorin_tn_twamp, INFO, "TWAMP", __VA_ARGS__)
#define TRACE_LAB(...) TWAMP_TRACE_STATEMENT(com_quorin_tn_twamp, LAB, "TWAMP", __VA_ARGS__)
#define TRACE_PACKET(...) TWAMP_TRACE_STATEMENT(com_quorin_tn_twamp, PACKET, "TWAMP", __VA_ARGS__)
#define TRACE_EXCEPTION(...) \
    TWAMP_TRACE_STATEMENT(com_quorin_tn_twamp, EXCEPTION, "TWAMP", __VA_ARGS__)

// Events traced on behalf of another function: the daemon's entry runs in a
// function of its own but traces as main.
#define TRACE_ERROR_AS(function, ...) \
    TWAMP_TRACE_STATEMENT_AS(com_quorin_tn_twamp, ERROR, "TWAMP", function, __VA_ARGS__)
#define TRACE_INFO_AS(function, ...) \
    TWAMP_TRACE_STATEMENT_AS(com_quorin_tn_twamp, INFO, "TWAMP", function, __VA_ARGS__)
#define TRACE_LAB_AS(function, ...) \
    TWAMP_TRACE_STATEMENT_AS(com_quorin_tn_twamp, LAB, "TWAMP", function, __VA_ARGS__)
#define TRACE_PACKET_AS(function, ...) \
    TWAMP_TRACE_STATEMENT_AS(com_quorin_tn_twamp, PACKET, "TWAMP", function, __VA_ARGS__)
#define TRACE_EXCEPTION_AS(function, ...) \
    TWAMP_TRACE_STATEMENT_AS(com_quorin_tn_twamp, EXCEPTION, "TWAMP", function, __VA_ARGS__)

// The troubleshooting event, component "GENERAL" (operator-log module).
#define TRACE_TROUBLESHOOTING_ERROR(...) \
    TWAMP_TRACE_STATEMENT(com_quorin_tn_troubleshooting, ERROR, "GENERAL", __VA_ARGS__)

// Fatal start-up failure: restart request with this call's line and source path.
#define FATAL_RESTART(...) fatal_restart(__LINE__, __FILE__, __VA_ARGS__)

#endif  // TWAMP_TRACE_FACADE_H
