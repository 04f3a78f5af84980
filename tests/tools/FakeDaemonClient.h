// A daemon client that answers from what the test set: a session list and
// one counters grid per session and kind of interval, or a failure.
#ifndef TWAMP_TESTS_TOOLS_FAKE_DAEMON_CLIENT_H
#define TWAMP_TESTS_TOOLS_FAKE_DAEMON_CLIENT_H

#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "CtlOptions.h"
#include "DaemonClient.h"

namespace tools_test {

class FakeDaemonClient : public DaemonClient {
  public:
    // A grid of all -2.
    static void clear(CounterGrid& counters) {
        for (auto& row : counters) {
            for (int64_t& value : row) {
                value = -2;
            }
        }
    }

    void setCounters(const std::string& idHex, bool completed, const CounterGrid& counters) {
        std::memcpy(grids[{idHex, completed}].values, counters, sizeof(CounterGrid));
    }

    // DaemonClient
    bool listSessions(std::vector<SessionListing>& listed, std::string& error) override {
        if (!daemonUp) {
            error = "no mailbox named 'twamp'";
            return false;
        }
        listed = sessions;
        return true;
    }
    bool fetchCounters(const uint8_t (&sessionId)[16], bool completedIntervalOnly,
                       CounterGrid& counters, std::string& error) override {
        requests.emplace_back(sessionIdHex(sessionId), completedIntervalOnly);
        if (onFetch) {
            onFetch();
        }
        const auto found = grids.find({sessionIdHex(sessionId), completedIntervalOnly});
        if (found == grids.end()) {
            error = "no counters reply";
            return false;
        }
        std::memcpy(counters, found->second.values, sizeof(CounterGrid));
        return true;
    }

    bool daemonUp = true;
    std::vector<SessionListing> sessions;
    // Requests in order: session id and completedIntervalOnly.
    std::vector<std::pair<std::string, bool>> requests;
    // Runs inside every counters request, e.g. to move a clock.
    std::function<void()> onFetch;

  private:
    struct Grid {
        CounterGrid values;
    };
    std::map<std::pair<std::string, bool>, Grid> grids;
};

}  // namespace tools_test

#endif  // TWAMP_TESTS_TOOLS_FAKE_DAEMON_CLIENT_H
