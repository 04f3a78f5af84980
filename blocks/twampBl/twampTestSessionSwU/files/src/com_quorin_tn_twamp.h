/*
 * Trace events of the daemon: provider com_quorin_tn_twamp.
 *
 * Every event carries three text fields: the source position ("File.cc:123"),
 * the component ("TWAMP") and the formatted message ("function(): text").
 * The probe provider built from this header is libtn_trace_com_quorin_tn_twamp.so;
 * the daemon defines the tracepoints themselves (TwampTracepoints.cc).
 */
#undef TRACEPOINT_PROVIDER
#define TRACEPOINT_PROVIDER com_quorin_tn_twamp

#undef TRACEPOINT_INCLUDE
#define TRACEPOINT_INCLUDE "com_quorin_tn_twamp.h"

#if !defined(COM_QUORIN_TN_TWAMP_H) || defined(TRACEPOINT_HEADER_MULTI_READ)
#define COM_QUORIN_TN_TWAMP_H

#include <lttng/tracepoint.h>

TRACEPOINT_EVENT_CLASS(com_quorin_tn_twamp, text_event,
                       TP_ARGS(const char*, position, const char*, component, const char*, message),
                       TP_FIELDS(ctf_string(position, position) ctf_string(component, component)
                                     ctf_string(message, message)))

/* Failures of system calls, bad input, failed initialisation; GLib errors. */
TRACEPOINT_EVENT_INSTANCE(com_quorin_tn_twamp, text_event, ERROR,
                          TP_ARGS(const char*, position, const char*, component, const char*,
                                  message))
/* Notable normal events; GLib warnings, messages and infos. */
TRACEPOINT_EVENT_INSTANCE(com_quorin_tn_twamp, text_event, INFO,
                          TP_ARGS(const char*, position, const char*, component, const char*,
                                  message))
/* Detailed diagnostics; GLib debug messages. */
TRACEPOINT_EVENT_INSTANCE(com_quorin_tn_twamp, text_event, LAB,
                          TP_ARGS(const char*, position, const char*, component, const char*,
                                  message))
/* Per-packet detail of each answered test packet. */
TRACEPOINT_EVENT_INSTANCE(com_quorin_tn_twamp, text_event, PACKET,
                          TP_ARGS(const char*, position, const char*, component, const char*,
                                  message))
/* Unexpected conditions the process survives. */
TRACEPOINT_EVENT_INSTANCE(com_quorin_tn_twamp, text_event, EXCEPTION,
                          TP_ARGS(const char*, position, const char*, component, const char*,
                                  message))

#endif /* COM_QUORIN_TN_TWAMP_H */

#include <lttng/tracepoint-event.h>
