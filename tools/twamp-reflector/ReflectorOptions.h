// Command line of twamp-reflector: where to listen, how to answer and which
// lab impairments to apply, parsed with a clear message for every mistake.
#ifndef TWAMP_REFLECTOR_OPTIONS_H
#define TWAMP_REFLECTOR_OPTIONS_H

#include <cstdint>
#include <string>
#include <vector>

struct ReflectorOptions {
    // Where the reflector listens: "::" is dual-stack (IPv4 arrives mapped).
    std::string listenAddress = "::";
    uint16_t port = 862;
    // TTL (IPv4) or hop limit (IPv6) of every reply.
    uint8_t replyTtl = 255;
    // The random source of every impairment; drawn at start-up when not given.
    uint64_t seed = 0;
    bool seedGiven = false;
    // Percentages in [0, 100].
    double forwardLossPercent = 0.0;
    double reverseLossPercent = 0.0;
    double duplicatePercent = 0.0;
    double reorderPercent = 0.0;
    // Milliseconds; each hold is the delay plus a uniform draw in [0, jitter].
    double forwardDelayMs = 0.0;
    double forwardJitterMs = 0.0;
    double reverseDelayMs = 0.0;
    double reverseJitterMs = 0.0;
    // After this many accepted packets the reflector sequence number restarts at 0; 0 never.
    uint64_t restartEvery = 0;
    // One restart as a real reflector goes through it: after restartAfter
    // accepted packets the next restartGap requests are dropped (the reflector
    // is down), then the sequence number starts again at 0; restartAfter 0 never.
    uint64_t restartAfter = 0;
    uint64_t restartGap = 0;
    // Milliseconds added to the transmit timestamp T3 (negative writes it earlier).
    double skewMs = 0.0;
    // Ground-truth file (JSON lines); empty writes none.
    std::string truthPath;
    bool quiet = false;
    bool help = false;
};

// Parses argv (without the program name); on failure returns false with a
// message in error. Options take their value as "--name VALUE" or "--name=VALUE".
bool parseReflectorOptions(const std::vector<std::string>& arguments, ReflectorOptions& options,
                           std::string& error);

// The usage text, every option with its default.
std::string reflectorUsage();

#endif  // TWAMP_REFLECTOR_OPTIONS_H
