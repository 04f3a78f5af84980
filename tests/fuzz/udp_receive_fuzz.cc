// Reflected packets through the UDP socket into a session: any source, any
// length, any control data, any kernel flags, interleaved with error-queue
// messages and with the session's packet timer.
//
// Input: a family byte (bit 0: IPv6), then a list of steps, each a step byte
// and its arguments:
//   0 reply:    a message (source choice, flags, two-byte length and bytes,
//               two-byte length and control data) queued on the receive queue
//   1 frame:    such a message queued on the error queue
//   2 batch:    queue byte (bit 0: error queue); one recvmmsg ends here
//   3 failure:  queue byte, errno byte; a failing recvmmsg
//   4 read:     the socket's descriptor turns readable
//   5 time:     seconds byte, expiry count byte; the clock moves on and the
//               session's packet timer fires
// The session has sent 8 packets (sequence numbers 0 to 7, one a second
// from 22:08:00 on 2023-11-14) to 192.0.2.7 or 2001:db8::7, port 862. What
// is still queued at the end is read at the end.
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

#include "FuzzController.h"
#include "FuzzInput.h"
#include "FuzzMessages.h"

namespace {

void moveTime(FuzzController& controller, FuzzInput& input) {
    const uint8_t seconds = input.takeByte();
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
    FuzzInput input(data, size);
    const int family = (input.takeByte() & 1) != 0 ? AF_INET6 : AF_INET;
    controller.startReflectorSession(family);
    UdpSocket& socket = controller.getUdpSocket();
    twamp_test::ScriptedReceiveQueues& queues = controller.getSocketSystemCalls().queues();
    while (input.more()) {
        switch (input.takeByte() % 6) {
            case 0:
                queues.queue(false, fuzz_messages::takeMessage(input, family));
                break;
            case 1:
                queues.queue(true, fuzz_messages::takeMessage(input, family));
                break;
            case 2:
                queues.endBatch((input.takeByte() & 1) != 0);
                break;
            case 3: {
                const bool errQueue = (input.takeByte() & 1) != 0;
                queues.queueFailure(errQueue, input.takeByte());
                break;
            }
            case 4:
                socket.handleInput(socket.getSocketFd());
                break;
            default:
                moveTime(controller, input);
                break;
        }
    }
    while (queues.pending(true) != 0 || queues.pending(false) != 0) {
        socket.handleInput(socket.getSocketFd());
    }
    controller.finishInput();
    return 0;
}
