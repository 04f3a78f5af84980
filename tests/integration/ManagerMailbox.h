// The managing service's side of the daemon's control interface: a mailbox of
// its own on a thread of its own, as ITC allows one mailbox per thread and
// the test thread already holds the daemon's. Signals are sent from the
// test thread under this mailbox's id, so the daemon answers here; the
// thread only collects what arrives.
#ifndef TWAMP_TESTS_MANAGER_MAILBOX_H
#define TWAMP_TESTS_MANAGER_MAILBOX_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "itc.h"

namespace scenario_test {

// A copy of one received signal.
struct ReceivedSignal {
    uint32_t sigNo = 0;
    itc_mbox_id_t sender = ITC_NO_ID;
    std::vector<uint8_t> bytes;  // the whole signal, itc_size bytes
};

class ManagerMailbox {
  public:
    explicit ManagerMailbox(std::string name);
    ManagerMailbox(const ManagerMailbox&) = delete;
    ManagerMailbox& operator=(const ManagerMailbox&) = delete;
    // Stops the thread, which deletes the mailbox.
    ~ManagerMailbox();

    // Initialises ITC for mailboxCount mailboxes in the process and creates
    // the mailbox on the thread; false when that failed. Must run before any
    // other itc_init of the process, which would fix a smaller count.
    bool start(int32_t mailboxCount);
    // Stops collecting, deletes the mailbox and joins the thread.
    void stop();
    // The mailbox id, ITC_NO_ID before start.
    itc_mbox_id_t getId() const;
    // Sends msg (always taken) to receiver with this mailbox as sender.
    bool send(union itc_msg* msg, itc_mbox_id_t receiver) const;
    // Moves the oldest collected signal into signal; false when none waits.
    bool takeReceived(ReceivedSignal& signal);
    // Signals collected and not taken yet.
    std::size_t pendingCount() const;

  private:
    void run(int32_t mailboxCount, std::promise<bool> started);
    void collect(union itc_msg* msg);

    std::string name;
    std::atomic<itc_mbox_id_t> id{ITC_NO_ID};
    std::atomic<bool> running{false};
    std::thread thread;
    mutable std::mutex mutex;  // guards received
    std::deque<ReceivedSignal> received;
};

}  // namespace scenario_test

#endif  // TWAMP_TESTS_MANAGER_MAILBOX_H
