// A forked process for the ITC tests: the other side of a mailbox exchange.
#ifndef ITC_TEST_ITC_CHILD_H
#define ITC_TEST_ITC_CHILD_H

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <functional>

namespace itc_test {

// Runs a body in a forked process that reports 64-bit values to the test through a
// pipe and may wait for the test's go-ahead. The child never returns into the test
// framework: it ends with _exit(0) after its body.
class ItcChild {
  public:
    ItcChild() = default;
    ItcChild(const ItcChild&) = delete;
    ItcChild& operator=(const ItcChild&) = delete;
    // Kills and reaps a child that is still running.
    ~ItcChild();

    // Forks and runs body in the child; false when the fork or a pipe fails.
    bool start(const std::function<void(ItcChild&)>& body);
    // Child side: sends one value to the test.
    void report(int64_t value);
    // Child side: blocks until the test calls release() or goes away.
    void awaitRelease();

    // Test side: the next reported value; false when none comes within timeoutMs.
    bool next(int64_t* value, int timeoutMs = 10000);
    // Test side: lets a child blocked in awaitRelease go on.
    void release();
    // Test side: sends a signal to the child.
    void kill(int signal);
    // Test side: waits up to timeoutMs for the child to end (killing it after that)
    // and returns its wait status; values it reported meanwhile stay for next().
    int finish(int timeoutMs = 10000);

  private:
    enum class ReadResult { kData, kEnded, kTimedOut };

    ReadResult readPending(int timeoutMs);
    void closeAll();

    pid_t pid_ = -1;
    int reportRead_ = -1;
    int reportWrite_ = -1;
    int releaseRead_ = -1;
    int releaseWrite_ = -1;
    std::deque<int64_t> values_;
    std::deque<unsigned char> partial_;
};

}  // namespace itc_test

#endif  // ITC_TEST_ITC_CHILD_H
