// Messages of the socket's kernel queues built from fuzz input: a source
// address, the flags the kernel reports, the bytes and the control data.
#ifndef TWAMP_FUZZ_MESSAGES_H
#define TWAMP_FUZZ_MESSAGES_H

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "FuzzController.h"
#include "FuzzInput.h"
#include "ReceiverKey.h"
#include "ScriptedReceiveQueues.h"

namespace fuzz_messages {

// The reflector's address of the family, or another one, or one of any
// family from the input, as selected by the input's next byte.
inline ReceiverKey takeSource(FuzzInput& input, int family) {
    const uint8_t choice = input.takeByte();
    struct sockaddr_storage address;
    std::memset(&address, 0, sizeof(address));
    if (choice % 3 == 2) {
        address.ss_family = static_cast<sa_family_t>(input.takeU16());
        auto* bytes = reinterpret_cast<uint8_t*>(&address);
        const std::vector<uint8_t> rest = input.takeBytes(sizeof(struct sockaddr_in6) - 2);
        std::copy(rest.begin(), rest.end(), bytes + 2);
        return ReceiverKey(address);
    }
    const uint16_t port = htons(choice % 3 == 0 ? 862 : 863);
    if (family == AF_INET6) {
        auto& in6 = reinterpret_cast<struct sockaddr_in6&>(address);
        in6.sin6_family = AF_INET6;
        in6.sin6_port = port;
        const uint8_t reflector[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 7};
        std::memcpy(in6.sin6_addr.s6_addr, reflector, sizeof(reflector));
    } else {
        auto& in4 = reinterpret_cast<struct sockaddr_in&>(address);
        in4.sin_family = AF_INET;
        in4.sin_port = port;
        in4.sin_addr.s_addr = htonl(0xC0000207);  // 192.0.2.7
    }
    return ReceiverKey(address);
}

// The kernel's flags of a message from the input's next byte: truncated data,
// truncated control data, or both.
inline int takeFlags(FuzzInput& input) {
    const uint8_t bits = input.takeByte();
    int flags = 0;
    if ((bits & 1) != 0) {
        flags |= MSG_TRUNC;
    }
    if ((bits & 2) != 0) {
        flags |= MSG_CTRUNC;
    }
    return flags;
}

// One message: source, flags, bytes and control data.
inline twamp_test::ScriptedMessage takeMessage(FuzzInput& input, int family) {
    twamp_test::ScriptedMessage message;
    message.source = takeSource(input, family);
    message.flags = takeFlags(input);
    message.bytes = input.takeBlock();
    message.control = input.takeBlock();
    return message;
}

}  // namespace fuzz_messages

#endif  // TWAMP_FUZZ_MESSAGES_H
