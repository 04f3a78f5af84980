// Looped-back frames of the socket's error queue with their timestamping
// control data: bare IPv4 and IPv6 headers, Ethernet and VLAN-tagged frames,
// IPv4 options, IPv6 extension headers, truncated frames and anything else.
//
// Input: a family byte (0: AF_INET, 1: AF_INET6, any other value is passed
// on as it is to the frame parsers, and selects IPv4 for the session), a
// two-byte length and the control data, then the frame itself.
// The frame is parsed directly, then read from the error queue of the
// socket, which hands it to the session when it is addressed to
// 192.0.2.7 or 2001:db8::7, port 862. The session has sent sequence numbers
// 0 to 7, one a second from 22:08:00 on 2023-11-14.
#include <sys/socket.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "FuzzController.h"
#include "FuzzInput.h"
#include "ReceiverKey.h"
#include "ScriptedReceiveQueues.h"
#include "SocketHelper.h"

namespace {

int familyOf(uint8_t selector) {
    if (selector == 0) {
        return AF_INET;
    }
    if (selector == 1) {
        return AF_INET6;
    }
    return selector;
}

// Each buffer is allocated at its exact size, so that the sanitizer sees
// every read past its end.
void parseDirectly(const std::vector<uint8_t>& frameBytes, const std::vector<uint8_t>& controlBytes,
                   int family) {
    std::unique_ptr<uint8_t[]> frame(new uint8_t[frameBytes.size()]);
    std::copy(frameBytes.begin(), frameBytes.end(), frame.get());
    std::unique_ptr<uint8_t[]> control(new uint8_t[controlBytes.size()]);
    std::copy(controlBytes.begin(), controlBytes.end(), control.get());

    if (isLoopedUdpFrame(frame.get(), frameBytes.size(), family)) {
        ReceiverKey key;
        getLoopedFrameDestination(key, frame.get(), frameBytes.size(), family);
    }
    getLoopedFrameHeaderLength(frame.get(), frameBytes.size(), family);

    struct iovec vector = {frame.get(), frameBytes.size()};
    struct msghdr msg;
    std::memset(&msg, 0, sizeof(msg));
    msg.msg_iov = &vector;
    msg.msg_iovlen = 1;
    msg.msg_control = control.get();
    msg.msg_controllen = controlBytes.size();
    getTxTimestamp(&msg);
    SocketHelper helper;
    helper.getDscp(&msg, family);
    helper.getTtl(&msg, family);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    FuzzController& controller = FuzzController::instance();
    controller.startInput();
    FuzzInput input(data, size);
    const int family = familyOf(input.takeByte());
    twamp_test::ScriptedMessage message;
    message.control = input.takeBlock();
    message.bytes = input.takeBytes(input.remaining());
    parseDirectly(message.bytes, message.control, family);

    controller.startReflectorSession(family == AF_INET6 ? AF_INET6 : AF_INET);
    UdpSocket& socket = controller.getUdpSocket();
    controller.getSocketSystemCalls().queues().queue(true, message);
    socket.handleInput(socket.getSocketFd());
    controller.finishInput();
    return 0;
}
