// Control signals through the ITC dispatcher: any number, any length, any
// bytes, from any sender, with the sessions they create running on the fuzz
// clock between the signals.
//
// Input: a list of steps, each a step byte and its arguments:
//   0 signal:   sender byte, signal kind byte (0 create, 1 delete, 2 counters
//               request, else the bytes' own first word), two-byte length, bytes
//   1 empty:    errno byte; the mailbox reports no signal with that errno
//   2 time:     two-byte signed seconds, expiry count byte; the clock moves
//               on (or back) and every session's packet timer fires
// A signal is handed out as the ITC library hands out every signal: at least
// 256 readable bytes, zero past the signal's own length.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "FakeItc.h"
#include "FuzzController.h"
#include "FuzzInput.h"
#include "TwtsiSignals.h"
#include "itc.h"

namespace {

constexpr std::size_t kMinimumReceivedSize = 256;
constexpr itc_mbox_id_t kManagerBase = 0x00020000;
constexpr uint32_t kSignalNumbers[] = {TWTSI_CREATE_TWAMP_TEST_SESSION,
                                       TWTSI_DELETE_TWAMP_TEST_SESSION,
                                       TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_REQ};

void queueSignal(FuzzInput& input) {
    const itc_mbox_id_t sender = kManagerBase | input.takeByte();
    const uint8_t kind = input.takeByte();
    std::vector<uint8_t> bytes = input.takeBlock();
    const std::size_t size = std::max(bytes.size(), kMinimumReceivedSize);
    bytes.resize(size, 0);
    if (kind < 3) {
        std::memcpy(bytes.data(), &kSignalNumbers[kind], sizeof(uint32_t));
    }
    twamp_test::FakeItc::queueSignal(bytes.data(), bytes.size(), sender);
}

void moveTime(FuzzController& controller, FuzzInput& input) {
    const auto seconds = static_cast<int16_t>(input.takeU16());
    const uint8_t expiries = input.takeByte();
    const struct timespec now = controller.getClock().get();
    controller.getClock().set(now.tv_sec + seconds, now.tv_nsec);
    controller.getSessionSystemCalls().setExpiries(expiries == 0 ? 1 : expiries);
    controller.fireTimers();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    FuzzController& controller = FuzzController::instance();
    controller.startInput();
    ItcDispatcher& dispatcher = *controller.getItcDispatcher();
    FuzzInput input(data, size);
    while (input.more()) {
        switch (input.takeByte() % 3) {
            case 0:
                queueSignal(input);
                dispatcher.handleInput(0);
                break;
            case 1:
                twamp_test::FakeItc::queueEmptyReceive(input.takeByte());
                dispatcher.handleInput(0);
                break;
            default:
                moveTime(controller, input);
                break;
        }
    }
    controller.finishInput();
    return 0;
}
