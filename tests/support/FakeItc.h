// A fake of the ITC library for the control-path tests, linked instead of
// the real one: it records every call, hands out queued signals and keeps
// track of every signal it allocated so that a test can tell what was sent,
// what was freed and what is still held.
#ifndef TWAMP_TESTS_FAKE_ITC_H
#define TWAMP_TESTS_FAKE_ITC_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "itc.h"

namespace twamp_test {

// Byte written into every signal itc_alloc returns, so that a test can see
// which bytes the caller left alone.
constexpr uint8_t kFakeItcAllocFill = 0xA5;

// One itc_send call: receiver, sender and the signal's bytes as sent.
struct FakeItcSent {
    itc_mbox_id_t to;
    itc_mbox_id_t from;
    std::vector<uint8_t> bytes;
};

// The arguments of one itc_init call.
struct FakeItcInitCall {
    int32_t mailboxCount;
    int32_t allocScheme;
    const void* schemeParams;
    const char* nameSpace;
    uint32_t flags;
};

// The arguments of one itc_receive call.
struct FakeItcReceiveCall {
    const uint32_t* filter;
    int32_t tmo;
    itc_mbox_id_t from;
};

class FakeItc {
  public:
    // Frees everything still allocated, clears the records and restores the
    // defaults: itc_init succeeds, mailbox 0x00010001, descriptor 42.
    static void reset();

    // What itc_init returns.
    static void setInitResult(int result);
    // The id itc_create_mailbox and itc_current_mbox return.
    static void setMailboxId(itc_mbox_id_t id);
    // What itc_get_fd returns.
    static void setFd(int fd);
    // Makes itc_create_mailbox fail: ITC_NO_ID with errno set to errorNumber
    // (0: it succeeds again).
    static void failCreateMailbox(int errorNumber);

    // Makes the next itc_alloc return NULL with errno set to errorNumber.
    static void failNextAlloc(int errorNumber);
    // Makes the next itc_send free the signal and fail with errno set to
    // errorNumber, as for a manager that has gone.
    static void failNextSend(int errorNumber);

    // Queues a received signal of exactly size bytes (a copy of bytes) from sender.
    static void queueSignal(const void* bytes, std::size_t size, itc_mbox_id_t sender);
    template <typename Signal>
    static void queueSignal(const Signal& signal, itc_mbox_id_t sender) {
        queueSignal(&signal, sizeof(signal), sender);
    }
    // Queues an empty receive: itc_receive returns NULL with errno set to errorNumber.
    static void queueEmptyReceive(int errorNumber);

    static const std::vector<FakeItcInitCall>& initCalls();
    static const std::vector<std::string>& createdMailboxes();
    static const std::vector<itc_mbox_id_t>& deletedMailboxes();
    static const std::vector<FakeItcReceiveCall>& receiveCalls();
    static const std::vector<FakeItcSent>& sent();
    // Signal numbers of the signals passed to itc_free, in order.
    static const std::vector<uint32_t>& freedSignalNumbers();
    // Signals allocated or received and neither freed nor sent yet.
    static std::size_t liveSignals();
    // Calls that named a signal the fake never handed out.
    static unsigned unknownSignalCalls();
};

}  // namespace twamp_test

#endif  // TWAMP_TESTS_FAKE_ITC_H
