// Defines the daemon's own tracepoints (provider com_quorin_tn_twamp) and
// registers them with the tracing runtime before main runs; the probe comes
// from libtn_trace_com_quorin_tn_twamp.so, which the daemon is linked against.
// The troubleshooting event is defined by its own library and only referenced.
#define TRACEPOINT_DEFINE
#include "com_quorin_tn_twamp.h"
