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
    // The one restart's gap as a time instead: requests arriving within this
    // many milliseconds after the restartAfter-th are dropped.
    double restartGapMs = 0.0;
    // Replies numbered with the sender's own sequence number, as a reflector
    // that keeps no state does.
    bool stateless = false;
    // Milliseconds added to the transmit timestamp T3 (negative writes it earlier).
    double skewMs = 0.0;
    // The Sender TTL written into every reply instead of the TTL the request
    // arrived with (0: a reflector that does not fill it in).
    bool senderTtlGiven = false;
    uint8_t senderTtl = 0;
    // Milliseconds added to the echoed sender timestamp (a corrupting reflector).
    double t1OffsetMs = 0.0;
    // After this many accepted requests the socket is closed for
    // unreachableMs milliseconds, so that the kernel answers the requests of
    // that while with port unreachable; 0 never.
    uint64_t unreachableAfter = 0;
    double unreachableMs = 1000.0;
    // Ground-truth file (JSON lines); empty writes none.
    std::string truthPath;
    bool quiet = false;
    bool help = false;
    bool version = false;
};

// Parses argv (without the program name); on failure returns false with a
// message in error. Options take their value as "--name VALUE" or "--name=VALUE".
bool parseReflectorOptions(const std::vector<std::string>& arguments, ReflectorOptions& options,
                           std::string& error);

// The usage text, every option with its default.
std::string reflectorUsage();

#endif  // TWAMP_REFLECTOR_OPTIONS_H
