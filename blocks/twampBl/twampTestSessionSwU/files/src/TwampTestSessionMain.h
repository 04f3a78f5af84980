// Process entry of the daemon and the GLib default log handler.
#ifndef TWAMP_TEST_SESSION_MAIN_H
#define TWAMP_TEST_SESSION_MAIN_H

#include <glib.h>

// GLib default log handler: traces every GLib message (errors and criticals at
// ERROR, warnings, messages and infos at INFO, debug at LAB) and aborts after
// a fatal one, whether or not its event is enabled. userData is unused.
void twampTestSessionLoghandler(const gchar* logDomain, GLogLevelFlags logLevel,
                                const gchar* message, gpointer userData);

#endif  // TWAMP_TEST_SESSION_MAIN_H
