// A daemon's mailbox as the load manager's tests need it: it keeps every
// signal sent, refuses or fails sends on request, and answers each counters
// request with a reply whose first value is 1000 + the session's index. The
// replies wait in a queue like the manager's mailbox, whose longest length
// is recorded; an empty receive lets the clock run for its whole time-out.
#ifndef TWAMP_BENCH_TESTS_FAKE_CONTROL_CHANNEL_H
#define TWAMP_BENCH_TESTS_FAKE_CONTROL_CHANNEL_H

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <set>
#include <vector>

#include "ControlChannel.h"
#include "FakeLoadClock.h"
#include "LoadManager.h"

namespace load_test {

class FakeControlChannel : public ControlChannel {
  public:
    explicit FakeControlChannel(FakeLoadClock& clock) : clock(clock) {}

    // ControlChannel
    int send(const void* signal, std::size_t size) override {
        ++attempts;
        if (refusals > 0) {
            --refusals;
            return EAGAIN;
        }
        if (failure != 0) {
            return failure;
        }
        const auto* bytes = static_cast<const uint8_t*>(signal);
        sent.emplace_back(bytes, bytes + size);
        uint32_t number = 0;
        std::memcpy(&number, signal, sizeof(number));
        if (number == TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_REQ) {
            answer(*static_cast<const twtsiGetTwampTestSessionPmCountersReq*>(signal));
        }
        return 0;
    }

    bool receiveCounters(int32_t timeoutMs, twtsiGetTwampTestSessionPmCountersRsp& reply) override {
        if (waiting.empty()) {
            clock.advance(static_cast<int64_t>(timeoutMs) * 1000000);
            return false;
        }
        reply = waiting.front();
        waiting.pop_front();
        return true;
    }

    // Puts a reply into the manager's mailbox that no request asked for.
    void inject(const twtsiGetTwampTestSessionPmCountersRsp& reply) { waiting.push_back(reply); }

    // Signals accepted, as sent.
    std::vector<std::vector<uint8_t>> sent;
    // Every call of send, refused or not.
    uint64_t attempts = 0;
    // Sends still to refuse with EAGAIN.
    uint64_t refusals = 0;
    // When not 0, every send that is not refused fails with this errno.
    int failure = 0;
    // Sessions never answered.
    std::set<uint32_t> silent;
    // Sessions whose first request gets no reply.
    std::set<uint32_t> loseFirst;
    // Sessions whose first reply is held back until the next reply to any request.
    std::set<uint32_t> delayFirst;
    // The most replies that waited at once.
    std::size_t longestQueue = 0;
    // Counters requests per session.
    std::map<uint32_t, int> requestsOf;

  private:
    void answer(const twtsiGetTwampTestSessionPmCountersReq& request) {
        uint32_t index = 0;
        if (!LoadManager::indexOf(request.sessionId, index)) {
            return;
        }
        const int number = ++requestsOf[index];
        if (silent.count(index) != 0 || (number == 1 && loseFirst.count(index) != 0)) {
            return;
        }
        twtsiGetTwampTestSessionPmCountersRsp reply{};
        reply.sigNo = TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_RSP;
        std::memcpy(reply.sessionId, request.sessionId, sizeof(reply.sessionId));
        reply.counters[0][0] = 1000 + index;
        reply.counters[1][0] = request.completedIntervalOnly;
        if (number == 1 && delayFirst.count(index) != 0) {
            delayed.push_back(reply);
            return;
        }
        while (!delayed.empty()) {
            waiting.push_back(delayed.front());
            delayed.pop_front();
        }
        waiting.push_back(reply);
        longestQueue = std::max(longestQueue, waiting.size());
    }

    FakeLoadClock& clock;
    std::deque<twtsiGetTwampTestSessionPmCountersRsp> waiting;
    std::deque<twtsiGetTwampTestSessionPmCountersRsp> delayed;
};

}  // namespace load_test

#endif  // TWAMP_BENCH_TESTS_FAKE_CONTROL_CHANNEL_H
