/*
 * Troubleshooting trace event shared by the node's transport-network functions:
 * provider com_quorin_tn_troubleshooting, event ERROR, with the same three text
 * fields as every other event (position, component, message).
 *
 * The library libtn_trace_com_quorin_tn_troubleshooting.so both defines the
 * tracepoint and provides its probe; users only include this header and
 * reference the event.
 */
#undef TRACEPOINT_PROVIDER
#define TRACEPOINT_PROVIDER com_quorin_tn_troubleshooting

#undef TRACEPOINT_INCLUDE
#define TRACEPOINT_INCLUDE "com_quorin_tn_troubleshooting.h"

#if !defined(COM_QUORIN_TN_TROUBLESHOOTING_H) || defined(TRACEPOINT_HEADER_MULTI_READ)
#define COM_QUORIN_TN_TROUBLESHOOTING_H

#include <lttng/tracepoint.h>

/* Failures inside a shared module, for example the operator log. */
TRACEPOINT_EVENT(com_quorin_tn_troubleshooting, ERROR,
                 TP_ARGS(const char*, position, const char*, component, const char*, message),
                 TP_FIELDS(ctf_string(position, position) ctf_string(component, component)
                               ctf_string(message, message)))

#endif /* COM_QUORIN_TN_TROUBLESHOOTING_H */

#include <lttng/tracepoint-event.h>
