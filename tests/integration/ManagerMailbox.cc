#include "ManagerMailbox.h"

#include <cstring>
#include <utility>

#include "TwtsiSignals.h"

namespace scenario_test {

namespace {

// Receive time-out: how soon the thread notices stop().
constexpr int32_t kReceiveTimeoutMs = 20;

}  // namespace

ManagerMailbox::ManagerMailbox(std::string name) : name(std::move(name)) {}

ManagerMailbox::~ManagerMailbox() {
    stop();
}

bool ManagerMailbox::start(int32_t mailboxCount) {
    std::promise<bool> started;
    std::future<bool> result = started.get_future();
    running = true;
    thread = std::thread([this, mailboxCount, started = std::move(started)]() mutable {
        run(mailboxCount, std::move(started));
    });
    if (!result.get()) {
        stop();
        return false;
    }
    return true;
}

void ManagerMailbox::stop() {
    running = false;
    if (thread.joinable()) {
        thread.join();
    }
}

itc_mbox_id_t ManagerMailbox::getId() const {
    return id;
}

bool ManagerMailbox::send(union itc_msg* msg, itc_mbox_id_t receiver) const {
    return itc_send(&msg, receiver, id) == 0;
}

bool ManagerMailbox::takeReceived(ReceivedSignal& signal) {
    std::lock_guard<std::mutex> lock(mutex);
    if (received.empty()) {
        return false;
    }
    signal = std::move(received.front());
    received.pop_front();
    return true;
}

std::size_t ManagerMailbox::pendingCount() const {
    std::lock_guard<std::mutex> lock(mutex);
    return received.size();
}

void ManagerMailbox::run(int32_t mailboxCount, std::promise<bool> started) {
    if (itc_init(mailboxCount, 0, nullptr, nullptr, 0) != 0) {
        started.set_value(false);
        return;
    }
    id = itc_create_mailbox(name.c_str(), 0);
    started.set_value(id != ITC_NO_ID);
    if (id == ITC_NO_ID) {
        return;
    }
    while (running) {
        union itc_msg* msg = itc_receive(ITC_NOFILTER, kReceiveTimeoutMs, ITC_FROM_ALL);
        if (msg != nullptr) {
            collect(msg);
        }
    }
    // Deleted by its own thread, which is no longer inside itc_receive.
    itc_delete_mailbox(id);
    id = ITC_NO_ID;
}

void ManagerMailbox::collect(union itc_msg* msg) {
    ReceivedSignal signal;
    signal.sigNo = msg->sigNo;
    signal.sender = itc_sender(msg);
    const std::size_t size = itc_size(msg);
    signal.bytes.resize(size);
    std::memcpy(signal.bytes.data(), msg, size);
    itc_free(&msg);
    std::lock_guard<std::mutex> lock(mutex);
    received.push_back(std::move(signal));
}

}  // namespace scenario_test
