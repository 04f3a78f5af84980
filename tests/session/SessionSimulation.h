// One simulated run of a real TwampTestSession against a simulated path and
// reflector, on simulated time.
//
// An event queue orders what happens in true time: the expiries of the
// session's packet timer (at the rate and start the session armed it with,
// read through the faked timer descriptor), the transmit timestamps the
// kernel hands back, the packets' arrival at the reflector, the replies'
// arrival at the sender, and the disturbances of the run (reflector
// restarts, wall-clock steps, stalls of the event loop). The session reads
// the wall clock, which is true time plus an offset that a clock step
// changes. After every timer read the minutes whose finalisation has come
// are read from the session's records and checked: every minute against
// the rules of a finalised minute, clean minutes against the truth.
#ifndef TWAMP_TESTS_SESSION_SIMULATION_H
#define TWAMP_TESTS_SESSION_SIMULATION_H

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <queue>
#include <random>
#include <string>
#include <vector>

#include "FakeClock.h"
#include "MinuteOracle.h"
#include "ScriptedSystemCalls.h"
#include "SimulatedReflector.h"
#include "SimulationProfile.h"
#include "TwampTestSession.h"

class SessionSimulation {
  public:
    // What the checked minutes were.
    struct Totals {
        uint64_t runs = 0;
        uint64_t packets = 0;
        uint64_t minutesChecked = 0;
        uint64_t clean = 0;
        uint64_t inOrder = 0;
        uint64_t periodsCompared = 0;
        // Clean minutes whose lostPktsFwd was -2 after reordering on the way out.
        uint64_t lostForwardVoid = 0;
        // Minutes only checked against the rules, by why they were not clean.
        std::map<std::string, uint64_t> notClean;
        void add(const Totals& other);
    };

    // The run starts at true time startNs with the sender's clock right.
    SessionSimulation(const SimulationProfile& profile, uint64_t seed, int64_t startNs,
                      twamp_test::FakeClock& clock, twamp_test::ScriptedSystemCalls& systemCalls);
    SessionSimulation(const SessionSimulation&) = delete;
    SessionSimulation& operator=(const SessionSimulation&) = delete;
    ~SessionSimulation();

    // Runs the profile's minutes; false at the first minute that breaks a
    // rule or differs from the truth, which failure() then describes.
    bool run();
    const std::string& failure() const;
    const Totals& totals() const;
    // True time at which the run ended.
    int64_t endNs() const;
    // Records only the rare traces (ERROR, EXCEPTION, LAB) of the session,
    // for failure reports: the per-packet ones would cost the most time.
    static void recordRareTraces();

  private:
    enum class EventKind {
        kTimerRead,
        kTimestamp,
        kAtReflector,
        kReply,
        kClockStep,
        kStall,
        kRestart,
        kOutage,
        kReflectorClockStep
    };

    struct Event {
        int64_t atNs = 0;
        uint64_t order = 0;
        EventKind kind = EventKind::kTimerRead;
        uint32_t generation = 0;  // of the timer arming a read belongs to
        uint32_t seqNo = 0;
        uint64_t t1 = 0;
        // Wall-clock kernel time: T1' of a timestamp, T4 of a reply (taken
        // when the reply arrives, also if the loop is stalled then).
        int64_t kernelNs = 0;
        bool kernelTimeTaken = false;
        bool timestampAfterReply = false;
        uint32_t responderSeqNo = 0;
        uint64_t t2 = 0;
        uint64_t t3 = 0;
        uint8_t senderTtl = 0;
        uint8_t replyTtl = 0;
        uint8_t replyTos = 0;
        uint32_t incarnation = 0;  // of the reflector that sent a reply
        int64_t amountNs = 0;      // of a clock step, stall, restart or outage
    };
    struct Later {
        bool operator()(const Event& left, const Event& right) const {
            return left.atNs != right.atNs ? left.atNs > right.atNs : left.order > right.order;
        }
    };
    // The session's timer as the kernel keeps it: absolute wall-clock
    // expiries first + k * interval.
    struct Timer {
        int64_t firstWallNs = 0;
        int64_t intervalNs = 0;
        uint64_t nextExpiry = 0;
        bool cancelled = false;
        uint32_t generation = 0;
        std::size_t armingsSeen = 0;
    };

    bool startSession();
    void scheduleDisturbances();
    void push(Event event);
    void dispatch(Event& event);
    bool deferredByStall(Event& event);
    void observeArming();
    void scheduleTimerRead();
    void readTimer();
    void readCancelledTimer(int64_t wallNs);
    void collectSends(int64_t wallNs);
    void packetSent(uint32_t seqNo, uint64_t t1, int64_t wallNs);
    void scheduleTimestamp(int64_t atNs, uint32_t seqNo, uint64_t t1, int64_t t1PrimeWallNs);
    void atReflector(const Event& event);
    int scheduleReplies(const Event& arrival, uint32_t responderSeqNo, uint32_t incarnation,
                        int64_t residenceNs, int64_t& firstArrivalNs);
    void deliverTimestamp(const Event& event);
    void deliverReply(const Event& event);
    void stepClock(const Event& event);
    void checkDueMinutes(int64_t wallNs);
    void checkMinutesOfEpoch(uint32_t epoch);
    void checkMinute(const MinuteKey& minute);
    void checkFinalisedBinsUnchanged(const char* when);
    void compareWithTruth(const MinuteKey& minute, const MinuteVerdict& verdict,
                          const std::vector<int64_t>& bin);
    void keepRecentTraces();
    void fail(const MinuteKey& minute, const std::string& what, const std::vector<int64_t>& bin,
              const std::string& verdict);
    int64_t drawDelay(int64_t baseNs, int64_t jitterNs);
    bool drawLoss(double chance, int& burstLeft);
    void maybeChangeHeaders();
    int64_t uniform(int64_t low, int64_t high);
    bool chance(double probability);
    int64_t wallNow() const;

    SimulationProfile profile;
    std::mt19937_64 random;
    twamp_test::FakeClock& clock;
    twamp_test::ScriptedSystemCalls& systemCalls;
    std::unique_ptr<TwampTestSession> session;
    SimulatedReflector reflector;
    MinuteOracle oracle;
    std::priority_queue<Event, std::vector<Event>, Later> events;
    uint64_t nextOrder = 0;
    int64_t nowNs;
    int64_t runEndNs = 0;
    int64_t wallOffsetNs = 0;  // the sender's wall clock minus true time
    int64_t stalledUntilNs = 0;
    int64_t pathDownUntilNs = 0;
    uint32_t epoch = 0;
    uint32_t latestMinuteOfEpoch = 0;  // the latest wall minute a timer read saw
    Timer timer;
    int pendingSendFailures = 0;
    int forwardBurstLeft = 0;
    int reverseBurstLeft = 0;
    uint8_t replyDscp;
    uint8_t senderTtl;
    uint8_t replyTtl;
    Totals counts;
    std::deque<std::string> recentTraces;
    // Bins already checked, as they were then: a finalised minute keeps its
    // values until its bin is reused for a new interval.
    using FinalisedBin = std::pair<MinuteKey, std::vector<int64_t>>;
    std::vector<FinalisedBin> finalisedBins;
    std::string failureText;
};

#endif  // TWAMP_TESTS_SESSION_SIMULATION_H
