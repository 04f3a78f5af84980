// Send-time lateness of captured test packets: T1, the send time each packet
// carries, minus the instant of the timer expiry that sent it. A session's
// expiries fall on the grid
//   first minute + start slot * spreading + k * interval,   k = 0, 1, 2, ...
// and each packet uses the next expiry after the previous packet's, with one
// exception, which is the daemon's: a timer read that reports more than 8
// expiries sends 8 packets and drops the rest. A packet is therefore given
// the later of (the previous packet's expiry + 1) and (the last expiry
// before its T1 - 7); the difference, when positive, is counted as dropped
// expiries. Of a burst after dropped expiries, the 8 packets sent are taken
// for the newest 8 expiries, the reading most favourable to the daemon.
//
// Besides the reported minutes as a whole, the report singles out the
// finalisation seconds: second 4 of each minute that follows a reported
// minute, when the daemon finalises the minute before (the last reported
// minute's finalisation thus lies just after them).
#ifndef TWAMP_BENCH_LATENESS_REPORT_H
#define TWAMP_BENCH_LATENESS_REPORT_H

#include <cstdint>
#include <cstdio>
#include <vector>

// One test packet as captured on the reflector's side.
struct CapturedRequest {
    uint32_t session;  // index of the session: its start slot
    uint32_t seqNo;
    uint64_t t1;  // NTP
};

// The sessions' common timeline.
struct SendSchedule {
    int64_t firstMinuteNs;  // the first whole minute of sending, ns since 1970
    int64_t minutes;        // whole minutes reported on
    int64_t intervalNs;     // 10^9 / packets per second, truncated as the daemon does
    int64_t spreadingNs;    // start slot width
};

class LatenessReport {
  public:
    explicit LatenessReport(const SendSchedule& schedule) : schedule(schedule) {}

    // Keeps a captured packet for the report.
    void add(const CapturedRequest& request) { requests.push_back(request); }
    // One line of key=value pairs: packets whose expiry lies in the reported
    // minutes, packets outside them, dropped expiries, packets later than
    // one interval, and p50, p99, max and mean lateness in microseconds; then
    // the same for the finalisation seconds, prefixed fin_ (no mean, no outside).
    void print(std::FILE* out);
    // The kept packets, one "session sequence-number T1" line each (T1 as
    // NTP in hex), for a closer look.
    void dump(std::FILE* out) const;
    // p50, p99 and max of lateness values (ns) as " PREFIXp50_us=..." pairs,
    // n/a for none; sorts the values.
    static void printLateness(std::FILE* out, const char* prefix, std::vector<int64_t>& lateness);

  private:
    // The packets of one stretch of time.
    struct Share {
        std::vector<int64_t> latenessNs;
        uint64_t droppedExpiries = 0;
        uint64_t beyondInterval = 0;
    };
    struct Totals {
        Share reported;
        Share finalisation;
        uint64_t outside = 0;
    };

    // Assigns expiries to the packets of one session (sorted by sequence number).
    void bookSession(std::size_t begin, std::size_t end, Totals& totals) const;
    // Books one packet's lateness and the expiries dropped before it.
    void bookPacket(int64_t latenessNs, uint64_t dropped, Share& share) const;
    // Whether a scheduled instant lies in a finalisation second.
    bool inFinalisationSecond(int64_t scheduledNs) const;

    SendSchedule schedule;
    std::vector<CapturedRequest> requests;
};

#endif  // TWAMP_BENCH_LATENESS_REPORT_H
