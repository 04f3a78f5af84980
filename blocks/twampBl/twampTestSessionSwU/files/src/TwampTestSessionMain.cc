#include "TwampTestSessionMain.h"

#include <cstdlib>

#include "TraceFacade.h"

namespace {

enum class GlibTraceEvent { Error, Info, Lab };

struct GlibLevelName {
    int level;
    const char* name;
    GlibTraceEvent event;
};

// The RECURSION row is never chosen: the flag bits are cleared before the
// lookup. It stays in the table all the same.
constexpr GlibLevelName kGlibLevelNames[] = {
    {G_LOG_LEVEL_ERROR, "ERROR", GlibTraceEvent::Error},
    {G_LOG_LEVEL_CRITICAL, "CRITICAL", GlibTraceEvent::Error},
    {G_LOG_LEVEL_WARNING, "WARNING", GlibTraceEvent::Info},
    {G_LOG_LEVEL_MESSAGE, "MESSAGE", GlibTraceEvent::Info},
    {G_LOG_LEVEL_INFO, "INFO", GlibTraceEvent::Info},
    {G_LOG_LEVEL_DEBUG, "DEBUG", GlibTraceEvent::Lab},
    {G_LOG_FLAG_RECURSION, "RECURSION", GlibTraceEvent::Error},
};

// Name and event of a level without its flag bits; no name for a level
// outside the table (0, or several levels at once), which is traced at ERROR.
GlibLevelName lookUpGlibLevel(int levelProper) {
    for (const GlibLevelName& entry : kGlibLevelNames) {
        if (entry.level == levelProper) {
            return entry;
        }
    }
    return {levelProper, nullptr, GlibTraceEvent::Error};
}

}  // namespace

void twampTestSessionLoghandler(const gchar* logDomain, GLogLevelFlags logLevel,
                                const gchar* message, gpointer /*userData*/) {
    const bool fatal = (logLevel & G_LOG_FLAG_FATAL) != 0;
    const int levelProper = logLevel & ~(G_LOG_FLAG_RECURSION | G_LOG_FLAG_FATAL);
    const GlibLevelName level = lookUpGlibLevel(levelProper);

    if (level.name != nullptr) {
        switch (level.event) {
            case GlibTraceEvent::Error:
                TRACE_ERROR(fatal ? "FATAL %s: %s: %s" : "%s: %s: %s", level.name, logDomain,
                            message);
                break;
            case GlibTraceEvent::Info:
                TRACE_INFO(fatal ? "FATAL %s: %s: %s" : "%s: %s: %s", level.name, logDomain,
                           message);
                break;
            case GlibTraceEvent::Lab:
                TRACE_LAB(fatal ? "FATAL %s: %s: %s" : "%s: %s: %s", level.name, logDomain,
                          message);
                break;
        }
    } else {
        TRACE_ERROR(
            fatal ? "FATAL UNKNOWN_GLIB_LOG_LEVEL=%d: %s: %s" : "UNKNOWN_GLIB_LOG_LEVEL=%d: %s: %s",
            levelProper, logDomain, message);
    }

    if (fatal) {
        std::abort();
    }
}
