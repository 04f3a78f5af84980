// Prints the daemon's session list: a table with one row per session, or
// one JSON object with the raw values (-2 stays -2).
#ifndef TWAMP_CTL_SESSION_LIST_FORMATTER_H
#define TWAMP_CTL_SESSION_LIST_FORMATTER_H

#include <cstdint>
#include <string>
#include <vector>

#include "DaemonClient.h"

// The state's name: waiting, sending, refused, unresolved, or "state N".
std::string sessionStateName(uint32_t state);

std::string formatSessionTable(const std::vector<SessionListing>& sessions);
std::string formatSessionJson(const std::vector<SessionListing>& sessions);

#endif  // TWAMP_CTL_SESSION_LIST_FORMATTER_H
