// The load driver's manager of the daemon: creates, reads and deletes a block
// of sessions through the daemon's mailbox, fast enough for thousands.
//
// Session i (first <= i < first + count) is named by the text label "load<i>"
// (zero-padded to 16 bytes, as twamp-ctl does), sends to port basePort + i (or
// basePort for all) and has start slot i.
//
// Creates and deletes are never answered: they are sent back to back, and a
// send the daemon's full mailbox refuses is repeated after a short pause.
// Counters requests are answered, and the daemon drops a reply when the
// manager's mailbox is full, so only a window of requests is in flight at a
// time; a request without a reply in time is sent again, and given up after
// a number of attempts.
#ifndef TWAMP_BENCH_LOAD_MANAGER_H
#define TWAMP_BENCH_LOAD_MANAGER_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "ControlChannel.h"
#include "LoadClock.h"

// The block of sessions and what each is created with.
struct SessionBlock {
    uint32_t first = 0;
    uint32_t count = 0;
    std::string destination;
    uint16_t basePort = 0;
    bool onePort = false;
    uint32_t packetsPerSecond = 1;
    int32_t packetSize = 64;
    uint32_t dscp = 0;
    uint32_t spreadingBase = 0;
};

// How counters are read.
struct ReadSettings {
    bool completedIntervalOnly = false;
    // Requests in flight at most; below the mailbox's queue of about ten.
    uint32_t window = 8;
    // A busy daemon serves its mailbox once per round of its loop: at 1000
    // sessions of 10 packets/s, about 6 requests a second.
    int64_t replyTimeoutNs = 10000000000LL;
    uint32_t attempts = 3;
};

// Signals sent for creates or deletes.
struct SendTally {
    uint64_t sent = 0;
    // Sends the daemon's full mailbox refused and that were repeated.
    uint64_t refusals = 0;
    // Signals given up: refused for too long, or failed otherwise.
    uint64_t failed = 0;
    int lastErrno = 0;
    int64_t elapsedNs = 0;
};

// The counters read of a block.
struct CountersTally {
    uint64_t requests = 0;
    uint64_t replies = 0;
    // Requests that got no reply within the time-out (each was retried or given up).
    uint64_t timeouts = 0;
    // Sessions whose counters never came.
    uint64_t missing = 0;
    // Replies not used: a retried request answered twice, or a key of no session of the block.
    uint64_t strays = 0;
    uint64_t refusals = 0;
    int lastErrno = 0;
    int64_t elapsedNs = 0;
};

// One session's counters, when they came.
struct SessionCounters {
    uint32_t index = 0;
    bool received = false;
    twtsiGetTwampTestSessionPmCountersRsp reply{};
};

class LoadManager {
  public:
    using SessionId = std::array<uint8_t, TWTSI_SESSION_ID_SIZE>;

    // A refused send is repeated after this pause ...
    static constexpr int64_t kRefusalPauseNs = 200000;
    // ... and given up once refusals have lasted this long without a success.
    static constexpr int64_t kRefusalLimitNs = 5000000000LL;

    LoadManager(ControlChannel& channel, LoadClock& clock) : channel(channel), clock(clock) {}

    // Whether the daemon accepts the block (slots, rate, size, DSCP, ports, address
    // length); false with error set.
    static bool checkBlock(const SessionBlock& block, std::string& error);
    // Sends one create signal per session of the block.
    SendTally createSessions(const SessionBlock& block);
    // Sends one delete signal per session of the block.
    SendTally deleteSessions(const SessionBlock& block);
    // Reads the counters of every session of the block into out (one entry per
    // session, in index order).
    CountersTally readCounters(const SessionBlock& block, const ReadSettings& settings,
                               std::vector<SessionCounters>& out);

    // The key of session index: the label "load<index>", zero-padded.
    static SessionId sessionId(uint32_t index);
    // The index of a key made by sessionId; false for any other key.
    static bool indexOf(const uint8_t* sessionId, uint32_t& index);

  private:
    struct InFlight {
        uint32_t index;
        int64_t deadlineNs;
    };

    // Sends one signal, repeating it while the daemon's mailbox is full.
    bool sendPatiently(const void* signal, std::size_t size, SendTally& tally);
    // Sends requests until the window is full, skipping sessions already read;
    // false when the mailbox refused one.
    bool fillWindow(const ReadSettings& settings, CountersTally& tally,
                    const std::vector<SessionCounters>& out);
    // Takes one reply, waiting at most until the oldest request's deadline.
    void awaitReply(const SessionBlock& block, CountersTally& tally,
                    std::vector<SessionCounters>& out);
    // Requests past their deadline are queued again or given up.
    void expire(const ReadSettings& settings, CountersTally& tally,
                const std::vector<SessionCounters>& out);

    ControlChannel& channel;
    LoadClock& clock;
    // State of one readCounters call.
    std::vector<uint32_t> queue;
    std::size_t queueHead = 0;
    std::vector<InFlight> inFlight;
    std::vector<uint32_t> attemptsMade;
    bool completedIntervalOnly = false;
    uint32_t blockFirst = 0;
};

#endif  // TWAMP_BENCH_LOAD_MANAGER_H
