// Test seam of the trace facade: with TWAMP_TRACE_SEAM defined, the enabled
// check and the emission of every trace statement call these two functions,
// which the unit tests implement. Never part of the daemon's own build.
#ifndef TWAMP_TRACE_SEAM_H
#define TWAMP_TRACE_SEAM_H

// Whether the event of the provider is enabled.
bool twampTraceSeamEnabled(const char* provider, const char* event);

// Emits the event with its three fields.
void twampTraceSeamEmit(const char* provider, const char* event, const char* position,
                        const char* component, const char* message);

#endif  // TWAMP_TRACE_SEAM_H
