#include "TwampTestSessionMain.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "IoMultiplexer.h"
#include "ItcDispatcher.h"
#include "PercentileVector.h"
#include "TraceFacade.h"
#include "TwampTestSessionController.h"
#include "TwampTestSessionFactory.h"
#include "TwampVersion.h"
#include "UdpSocket.h"
#include "tn_log_internal.h"

namespace {

constexpr int kExpectedArgc = 6;
// The entry's traces name the function main.
constexpr const char* kMain = "main";
constexpr const char* kNetnsDirectory = "/var/run/netns";
// The platform's handle of the initial network namespace.
constexpr const char* kDefaultNamespaceFile = "/tmp/proc_1_ns_net";
// Room for the 14 characters of the directory, the slash and the terminator.
constexpr std::size_t kNetnsPathExtra = 16;

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

// A daemon without its mailbox could never be told anything: a mailbox that
// cannot be opened is fatal, as the other start-up failures are.
void openMailbox(const char* serviceName) {
    if (!TwampTestSessionController::getInstance()->getItcDispatcher()->init(
            std::string(serviceName))) {
        const char* reason = std::strerror(errno);
        TRACE_ERROR_AS(kMain, "Unable to open mailbox '%s': %s.", serviceName, reason);
        FATAL_RESTART("Unable to open mailbox '%s': %s.", serviceName, reason);
    }
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

int getNsFd(const char* nsName) {
    if (std::strstr(nsName, "fib") != nullptr) {
        TRACE_LAB("Namespace: ns_name=[%s]", nsName);
        std::vector<char> path(std::strlen(nsName) + kNetnsPathExtra);
        std::snprintf(path.data(), path.size(), "%s/%s", kNetnsDirectory, nsName);
        const int fd = open(path.data(), O_RDONLY);
        if (fd < 0) {
            const char* reason = std::strerror(errno);
            TRACE_ERROR("Unable to open '%s': %s.", path.data(), reason);
            FATAL_RESTART("Unable to open '%s': %s.", path.data(), reason);
        }
        return fd;
    }
    TRACE_LAB("Namespace: ns_name=[default]");
    const int fd = open(kDefaultNamespaceFile, O_RDONLY);
    if (fd < 0) {
        const char* reason = std::strerror(errno);
        TRACE_ERROR("Unable to open '%s': %s.", kDefaultNamespaceFile, reason);
        FATAL_RESTART("Unable to open '%s': %s.", kDefaultNamespaceFile, reason);
    }
    return fd;
}

void closeNs(int fd) {
    if (close(fd) != 0) {
        TRACE_ERROR("Can't close namespace: errno=\"%s(%u)\"", std::strerror(errno),
                    static_cast<unsigned>(errno));
    }
}

bool parseIsIpsecTunnel(const char* text) {
    return std::strtoul(text, nullptr, 0) == 1;
}

bool raiseOpenFileLimit(ResourceLimitSystemCalls& systemCalls) {
    struct rlimit limit = {};
    if (systemCalls.getOpenFileLimit(&limit) != 0) {
        const int error = errno;
        TRACE_ERROR("Failed getrlimit RLIMIT_NOFILE: errno %d - %s", error, std::strerror(error));
        return false;
    }
    const auto current = static_cast<unsigned long long>(limit.rlim_cur);
    const auto hard = static_cast<unsigned long long>(limit.rlim_max);
    if (limit.rlim_cur == limit.rlim_max) {
        TRACE_INFO("Open descriptor limit %llu is the hard limit", hard);
        return true;
    }
    limit.rlim_cur = limit.rlim_max;
    if (systemCalls.setOpenFileLimit(&limit) != 0) {
        const int error = errno;
        TRACE_ERROR("Failed setrlimit RLIMIT_NOFILE from %llu to %llu: errno %d - %s", current,
                    hard, error, std::strerror(error));
        return false;
    }
    TRACE_INFO("Open descriptor limit raised from %llu to %llu", current, hard);
    return true;
}

bool isVersionRequest(int argc, char* argv[]) {
    return argc == 2 && std::strcmp(argv[1], "--version") == 0;
}

void printVersion() {
    std::printf("twampTestSession %s\n", TWAMP_VERSION);
}

void runTwampTestSession(int argc, char* argv[]) {
    std::fprintf(stderr, "argc= %u\n", static_cast<unsigned>(argc));
    for (int i = 0; i < argc; ++i) {
        TRACE_LAB_AS(kMain, "argv[%u] = %s", static_cast<unsigned>(i), argv[i]);
    }
    if (argc != kExpectedArgc) {
        TRACE_INFO_AS(
            kMain,
            "Usage: %s <service-name> <src-ip-addr> <src-udp-port> <name_space> <isIpsecTunnel>",
            argv[0]);
        std::exit(1);
    }
    if (!tn_log_init()) {
        TRACE_ERROR_AS(kMain, "tn_log_init failed ");
        FATAL_RESTART("tn_log_init failed ");
    }

    // Every session costs a descriptor: a router runs a couple of thousand.
    raiseOpenFileLimit();

    // The namespace is joined before the socket and the mailbox exist, so
    // that both live in it.
    const char* nsName = argv[4];
    const int nsFd = getNsFd(nsName);
    if (setns(nsFd, CLONE_NEWNET) != 0) {
        TRACE_ERROR_AS(kMain, "Can't join namespace: ns_name=%s, errno=\"%s(%u)\"", nsName,
                       std::strerror(errno), static_cast<unsigned>(errno));
    }
    closeNs(nsFd);
    const bool isIpsecTunnel = parseIsIpsecTunnel(argv[5]);

    // Lives in this frame for the whole life of the process.
    TwampTestSessionFactory factory;
    TwampTestSessionController::getInstance(nullptr, &factory);
    TwampTestSessionController::getInstance()->getUdpSocket().init(argv[2], argv[3], isIpsecTunnel);
    openMailbox(argv[1]);
    g_log_set_default_handler(twampTestSessionLoghandler, nullptr);
    if (!percentile_init()) {
        TRACE_ERROR_AS(kMain, "Can't initialize percentile");
    }

    while (TwampTestSessionController::getInstance()->getIoMultiplexer().handleEvents()) {
    }

    if (!percentile_uninit()) {
        TRACE_ERROR_AS(kMain, "Can't un-initialize percentile");
    }
    if (!tn_log_uninit()) {
        TRACE_ERROR_AS(kMain, "tn_log_uninit failed");
    }
    std::exit(0);
}

// Programs that reuse this file's functions (unit tests, tools) define
// TWAMP_NO_MAIN and bring their own main.
#ifndef TWAMP_NO_MAIN
int main(int argc, char* argv[]) {
    if (isVersionRequest(argc, argv)) {
        printVersion();
        std::exit(0);
    }
    runTwampTestSession(argc, argv);
}
#endif
