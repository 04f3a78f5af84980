#include "SessionListFormatter.h"

#include <cstdio>

#include "CtlOptions.h"
#include "TwtsiSignals.h"

namespace {

std::string padRight(const std::string& text, std::size_t width) {
    return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

std::string padLeft(const std::string& text, std::size_t width) {
    return text.size() >= width ? text : std::string(width - text.size(), ' ') + text;
}

std::string countText(int64_t value) {
    return value == TWTSI_PM_NOT_AVAILABLE ? "n/a" : std::to_string(value);
}

std::string ageText(int64_t seconds) {
    return seconds == TWTSI_PM_NOT_AVAILABLE ? "n/a" : "<" + std::to_string(seconds) + " s";
}

// JSON string escaping for the address text, which a manager wrote.
std::string jsonString(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof(escaped), "\\u%04x", static_cast<unsigned>(c));
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

}  // namespace

std::string sessionStateName(uint32_t state) {
    switch (state) {
        case TWTSI_SESSION_STATE_WAITING:
            return "waiting";
        case TWTSI_SESSION_STATE_SENDING:
            return "sending";
        case TWTSI_SESSION_STATE_REFUSED:
            return "refused";
        case TWTSI_SESSION_STATE_UNRESOLVED:
            return "unresolved";
        default:
            return "state " + std::to_string(state);
    }
}

std::string formatSessionTable(const std::vector<SessionListing>& sessions) {
    std::string out = padRight("session id", 34) + padRight("destination", 40) +
                      padLeft("port", 6) + padLeft("rate", 7) + padLeft("dscp", 5) +
                      padLeft("size", 6) + "  " + padRight("state", 11) +
                      padLeft("last reply", 11) + padLeft("sent", 8) + padLeft("received", 9) +
                      "\n";
    for (const SessionListing& session : sessions) {
        out += padRight(sessionIdHex(session.sessionId), 34) + padRight(session.dstIpAddress, 40) +
               padLeft(std::to_string(session.dstUdpPort), 6) +
               padLeft(std::to_string(session.packetsPerSecond), 7) +
               padLeft(std::to_string(session.dscp), 5) +
               padLeft(std::to_string(session.packetSize), 6) + "  " +
               padRight(sessionStateName(session.state), 11) +
               padLeft(ageText(session.lastReplyAgeSeconds), 11) +
               padLeft(countText(session.minuteSentPkts), 8) +
               padLeft(countText(session.minuteReceivedPkts), 9) + "\n";
    }
    out += std::to_string(sessions.size()) + (sessions.size() == 1 ? " session\n" : " sessions\n");
    return out;
}

std::string formatSessionJson(const std::vector<SessionListing>& sessions) {
    std::string out = "{\"sessions\": [";
    for (std::size_t index = 0; index < sessions.size(); ++index) {
        const SessionListing& session = sessions[index];
        out += std::string(index == 0 ? "" : ", ") + "{\"sessionId\": \"" +
               sessionIdHex(session.sessionId) +
               "\", \"dstIpAddress\": " + jsonString(session.dstIpAddress) +
               ", \"dstUdpPort\": " + std::to_string(session.dstUdpPort) +
               ", \"packetsPerSecond\": " + std::to_string(session.packetsPerSecond) +
               ", \"dscp\": " + std::to_string(session.dscp) +
               ", \"packetSize\": " + std::to_string(session.packetSize) + ", \"state\": \"" +
               sessionStateName(session.state) +
               "\", \"lastReplyAgeSeconds\": " + std::to_string(session.lastReplyAgeSeconds) +
               ", \"minuteSentPkts\": " + std::to_string(session.minuteSentPkts) +
               ", \"minuteReceivedPkts\": " + std::to_string(session.minuteReceivedPkts) + "}";
    }
    out += "]}\n";
    return out;
}
