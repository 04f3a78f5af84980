// Process entry of the daemon: command line, operator log, namespace join,
// the shared objects, the event loop; and the GLib default log handler.
#ifndef TWAMP_TEST_SESSION_MAIN_H
#define TWAMP_TEST_SESSION_MAIN_H

#include <glib.h>

#include "ResourceLimitSystemCalls.h"

// GLib default log handler: traces every GLib message (errors and criticals at
// ERROR, warnings, messages and infos at INFO, debug at LAB) and aborts after
// a fatal one, whether or not its event is enabled. userData is unused.
void twampTestSessionLoghandler(const gchar* logDomain, GLogLevelFlags logLevel,
                                const gchar* message, gpointer userData);

// Opens the network namespace selected by nsName: /var/run/netns/<nsName> when
// the name contains "fib", else /tmp/proc_1_ns_net (the initial namespace). A
// file that cannot be opened is a fatal start-up failure: restart request.
int getNsFd(const char* nsName);

// Closes the namespace descriptor; a failure is traced only.
void closeNs(int fd);

// The isIpsecTunnel argument: true exactly when strtoul in base 0 gives 1.
bool parseIsIpsecTunnel(const char* text);

// Raises the soft limit on open descriptors to the hard limit, since every
// test session costs one descriptor (its packet timer). The limit in force
// afterwards is traced at INFO; a failure is traced at ERROR, and start-up
// goes on under the old limit. True when the soft limit is the hard one.
bool raiseOpenFileLimit(ResourceLimitSystemCalls& systemCalls = ResourceLimitSystemCalls::real());

// True for the one argument --version: the operator asks which build this is.
// A daemon's command line always has five arguments, so no service name is
// ever taken for it.
bool isVersionRequest(int argc, char* argv[]);

// Prints "twampTestSession VERSION" on standard output.
void printVersion();

// The whole life of the daemon process; ends with exit(1) on a wrong argument
// count, exit(0) when the event loop ends, or waits for a restart after a
// fatal start-up failure. Never returns.
[[noreturn]] void runTwampTestSession(int argc, char* argv[]);

#endif  // TWAMP_TEST_SESSION_MAIN_H
