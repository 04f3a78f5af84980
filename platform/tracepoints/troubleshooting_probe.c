/*
 * libtn_trace_com_quorin_tn_troubleshooting.so: the probe provider and the
 * tracepoint definition of the troubleshooting event, in one library, so that
 * a user only references the event.
 */
#define TRACEPOINT_CREATE_PROBES
#define TRACEPOINT_DEFINE
#include "com_quorin_tn_troubleshooting.h"
