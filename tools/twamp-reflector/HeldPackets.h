// What the reflector holds between receiving a request and sending its reply.
#ifndef TWAMP_REFLECTOR_HELD_PACKETS_H
#define TWAMP_REFLECTOR_HELD_PACKETS_H

#include <cstdint>
#include <vector>

#include "Impairments.h"
#include "ReflectorSocket.h"
#include "TruthWriter.h"

// A request held by the forward delay, before T2 is taken.
struct HeldRequest {
    ReceivedDatagram datagram;
    TruthPacket packet;
    int64_t forwardDelayNs = 0;
};

// A reply built and stamped with T3, held by the reverse delay or for reordering.
struct HeldReply {
    std::vector<uint8_t> bytes;
    PeerAddress peer;
    ReplyFate fate;
    // Filled but for copy and reordered, which are set as it is sent.
    ReplyTruth truth;
};

#endif  // TWAMP_REFLECTOR_HELD_PACKETS_H
