// Emits every trace event of the daemon through the production trace facade
// and prints, for each, the event and the source position it was emitted
// from, so that a test can compare them with what the tracer recorded.
#include <cstdio>

#include <glib.h>

#include "TraceFacade.h"
#include "TwampTestSessionMain.h"

namespace {

int disabledArgumentEvaluations = 0;

const char* countEvaluation() {
    ++disabledArgumentEvaluations;
    return "evaluated";
}

}  // namespace

// The statement and the report share one expansion, hence one line number.
#define EMIT_AND_REPORT(statement, provider, event, ...)                  \
    do {                                                                  \
        statement(__VA_ARGS__);                                           \
        std::printf("%s:%s %s\n", provider, event, TWAMP_TRACE_POSITION); \
    } while (0)

int main() {
    EMIT_AND_REPORT(TRACE_ERROR, "com_quorin_tn_twamp", "ERROR", "error event %d", 1);
    EMIT_AND_REPORT(TRACE_INFO, "com_quorin_tn_twamp", "INFO", "info event %s", "two");
    EMIT_AND_REPORT(TRACE_LAB, "com_quorin_tn_twamp", "LAB", "argv[%u] = %s", 0u, "emitter");
    EMIT_AND_REPORT(TRACE_PACKET, "com_quorin_tn_twamp", "PACKET", "seq %u", 4u);
    EMIT_AND_REPORT(TRACE_EXCEPTION, "com_quorin_tn_twamp", "EXCEPTION", "exception %s",
                    countEvaluation());
    EMIT_AND_REPORT(TRACE_TROUBLESHOOTING_ERROR, "com_quorin_tn_troubleshooting", "ERROR",
                    "Unable to write to %s", "TnNetworkLog");

    // The GLib handler traces from its own source position.
    g_log_set_default_handler(twampTestSessionLoghandler, nullptr);
    g_log("emitter", G_LOG_LEVEL_WARNING, "glib %s", "warning");

    std::printf("exception arguments evaluated: %d\n", disabledArgumentEvaluations);
    return 0;
}
