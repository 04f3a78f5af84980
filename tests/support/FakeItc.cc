#include "FakeItc.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>

namespace twamp_test {
namespace {

// A signal the fake handed out: its own size and the sender written into it.
struct SignalInfo {
    std::size_t size;
    itc_mbox_id_t sender;
};

// One entry of the receive queue: a signal, or an empty receive with errno.
struct QueuedReceive {
    union itc_msg* signal;
    int errorNumber;
};

constexpr itc_mbox_id_t kDefaultMailboxId = 0x00010001;
constexpr int kDefaultFd = 42;

struct FakeItcState {
    int initResult = 0;
    itc_mbox_id_t mailboxId = kDefaultMailboxId;
    int fd = kDefaultFd;
    int allocErrno = 0;
    int sendErrno = 0;
    int createMailboxErrno = 0;
    std::map<const union itc_msg*, SignalInfo> live;
    std::deque<QueuedReceive> queue;
    std::vector<FakeItcInitCall> initCalls;
    std::vector<std::string> createdMailboxes;
    std::vector<itc_mbox_id_t> deletedMailboxes;
    std::vector<FakeItcReceiveCall> receiveCalls;
    std::vector<FakeItcSent> sent;
    std::vector<uint32_t> freedSignalNumbers;
    unsigned unknownSignalCalls = 0;
};

FakeItcState& state() {
    static FakeItcState fakeState;
    return fakeState;
}

// Exactly size bytes, so that AddressSanitizer sees any read past the signal.
union itc_msg* newSignal(std::size_t size, itc_mbox_id_t sender) {
    auto* signal = static_cast<union itc_msg*>(std::malloc(size));
    state().live[signal] = SignalInfo{size, sender};
    return signal;
}

const SignalInfo* findSignal(const union itc_msg* signal) {
    auto entry = state().live.find(signal);
    if (entry == state().live.end()) {
        return nullptr;
    }
    return &entry->second;
}

void releaseSignal(union itc_msg* signal) {
    state().live.erase(signal);
    std::free(signal);
}

}  // namespace

void FakeItc::reset() {
    for (auto& entry : state().live) {
        std::free(const_cast<union itc_msg*>(entry.first));
    }
    state() = FakeItcState();
}

void FakeItc::setInitResult(int result) {
    state().initResult = result;
}

void FakeItc::setMailboxId(itc_mbox_id_t id) {
    state().mailboxId = id;
}

void FakeItc::setFd(int fd) {
    state().fd = fd;
}

void FakeItc::failCreateMailbox(int errorNumber) {
    state().createMailboxErrno = errorNumber;
}

void FakeItc::failNextAlloc(int errorNumber) {
    state().allocErrno = errorNumber;
}

void FakeItc::failNextSend(int errorNumber) {
    state().sendErrno = errorNumber;
}

void FakeItc::queueSignal(const void* bytes, std::size_t size, itc_mbox_id_t sender) {
    union itc_msg* signal = newSignal(size, sender);
    std::memcpy(signal, bytes, size);
    state().queue.push_back(QueuedReceive{signal, 0});
}

void FakeItc::queueEmptyReceive(int errorNumber) {
    state().queue.push_back(QueuedReceive{nullptr, errorNumber});
}

const std::vector<FakeItcInitCall>& FakeItc::initCalls() {
    return state().initCalls;
}

const std::vector<std::string>& FakeItc::createdMailboxes() {
    return state().createdMailboxes;
}

const std::vector<itc_mbox_id_t>& FakeItc::deletedMailboxes() {
    return state().deletedMailboxes;
}

const std::vector<FakeItcReceiveCall>& FakeItc::receiveCalls() {
    return state().receiveCalls;
}

const std::vector<FakeItcSent>& FakeItc::sent() {
    return state().sent;
}

const std::vector<uint32_t>& FakeItc::freedSignalNumbers() {
    return state().freedSignalNumbers;
}

std::size_t FakeItc::liveSignals() {
    std::size_t count = state().live.size();
    for (const QueuedReceive& entry : state().queue) {
        if (entry.signal != nullptr) {
            --count;
        }
    }
    return count;
}

unsigned FakeItc::unknownSignalCalls() {
    return state().unknownSignalCalls;
}

}  // namespace twamp_test

using twamp_test::FakeItcInitCall;
using twamp_test::FakeItcReceiveCall;
using twamp_test::FakeItcSent;

extern "C" {

int itc_init(int32_t mailbox_count, int32_t alloc_scheme, const void* scheme_params,
             const char* name_space, uint32_t flags) {
    twamp_test::state().initCalls.push_back(
        FakeItcInitCall{mailbox_count, alloc_scheme, scheme_params, name_space, flags});
    return twamp_test::state().initResult;
}

itc_mbox_id_t itc_create_mailbox(const char* name, uint32_t /*flags*/) {
    twamp_test::state().createdMailboxes.push_back(name);
    if (twamp_test::state().createMailboxErrno != 0) {
        errno = twamp_test::state().createMailboxErrno;
        return ITC_NO_ID;
    }
    return twamp_test::state().mailboxId;
}

int itc_delete_mailbox(itc_mbox_id_t id) {
    twamp_test::state().deletedMailboxes.push_back(id);
    return 0;
}

itc_mbox_id_t itc_locate(const char* /*name*/) {
    return twamp_test::state().mailboxId;
}

itc_mbox_id_t itc_current_mbox(void) {
    return twamp_test::state().mailboxId;
}

int itc_get_fd(void) {
    if (twamp_test::state().fd < 0) {
        errno = EBADF;
    }
    return twamp_test::state().fd;
}

union itc_msg* itc_alloc(size_t size, uint32_t msgno) {
    if (twamp_test::state().allocErrno != 0) {
        errno = twamp_test::state().allocErrno;
        twamp_test::state().allocErrno = 0;
        return nullptr;
    }
    union itc_msg* signal = twamp_test::newSignal(size, ITC_NO_ID);
    std::memset(signal, twamp_test::kFakeItcAllocFill, size);
    std::memcpy(signal, &msgno, sizeof(msgno));
    return signal;
}

void itc_free(union itc_msg** msg) {
    if (msg == nullptr || *msg == nullptr) {
        return;
    }
    if (twamp_test::findSignal(*msg) == nullptr) {
        ++twamp_test::state().unknownSignalCalls;
        return;
    }
    uint32_t msgno = 0;
    std::memcpy(&msgno, *msg, sizeof(msgno));
    twamp_test::state().freedSignalNumbers.push_back(msgno);
    twamp_test::releaseSignal(*msg);
    *msg = nullptr;
}

int itc_send(union itc_msg** msg, itc_mbox_id_t to, itc_mbox_id_t from) {
    const twamp_test::SignalInfo* info = twamp_test::findSignal(*msg);
    if (info == nullptr) {
        ++twamp_test::state().unknownSignalCalls;
        errno = EINVAL;
        return -1;
    }
    if (twamp_test::state().sendErrno != 0) {
        errno = twamp_test::state().sendErrno;
        twamp_test::state().sendErrno = 0;
        twamp_test::releaseSignal(*msg);
        *msg = nullptr;
        return -1;
    }
    const auto* bytes = reinterpret_cast<const uint8_t*>(*msg);
    twamp_test::state().sent.push_back(
        FakeItcSent{to, from, std::vector<uint8_t>(bytes, bytes + info->size)});
    twamp_test::releaseSignal(*msg);
    *msg = nullptr;
    return 0;
}

union itc_msg* itc_receive(const uint32_t* filter, int32_t tmo, itc_mbox_id_t from) {
    twamp_test::state().receiveCalls.push_back(FakeItcReceiveCall{filter, tmo, from});
    if (twamp_test::state().queue.empty()) {
        errno = EAGAIN;
        return nullptr;
    }
    const twamp_test::QueuedReceive next = twamp_test::state().queue.front();
    twamp_test::state().queue.pop_front();
    if (next.signal == nullptr) {
        errno = next.errorNumber;
    }
    return next.signal;
}

itc_mbox_id_t itc_sender(union itc_msg* msg) {
    const twamp_test::SignalInfo* info = twamp_test::findSignal(msg);
    if (info == nullptr) {
        ++twamp_test::state().unknownSignalCalls;
        return ITC_NO_ID;
    }
    return info->sender;
}

itc_mbox_id_t itc_receiver(union itc_msg* msg) {
    return twamp_test::findSignal(msg) == nullptr ? ITC_NO_ID : twamp_test::state().mailboxId;
}

size_t itc_size(union itc_msg* msg) {
    const twamp_test::SignalInfo* info = twamp_test::findSignal(msg);
    return info == nullptr ? 0 : info->size;
}

}  // extern "C"
