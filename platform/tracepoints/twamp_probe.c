/* Probe provider of the daemon's own events (libtn_trace_com_quorin_tn_twamp.so). */
#define TRACEPOINT_CREATE_PROBES
#include "com_quorin_tn_twamp.h"
