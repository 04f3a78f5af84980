// The per-packet change of a test packet's padding: every padding byte is
// XORed with one random byte, so the padding differs from packet to packet
// and the changes accumulate.
//
// The bytes are taken eight at a time: the result is the same as a loop over
// single bytes (XOR works byte by byte), with an eighth of the loads and
// stores where the compiler does not vectorise the loop itself, as in the
// sanitizer builds.
#ifndef TWAMP_PADDING_VARIATION_H
#define TWAMP_PADDING_VARIATION_H

#include <cstddef>
#include <cstdint>
#include <cstring>

// XORs bytes[begin] up to, not including, bytes[end] with randomByte.
inline void varyPaddingBytes(uint8_t* bytes, std::size_t begin, std::size_t end,
                             uint8_t randomByte) {
    const uint64_t everyByte = uint64_t{randomByte} * 0x0101010101010101ULL;
    std::size_t index = begin;
    for (; index + sizeof(uint64_t) <= end; index += sizeof(uint64_t)) {
        uint64_t word;
        std::memcpy(&word, bytes + index, sizeof(word));
        word ^= everyByte;
        std::memcpy(bytes + index, &word, sizeof(word));
    }
    for (; index < end; ++index) {
        bytes[index] ^= randomByte;
    }
}

#endif  // TWAMP_PADDING_VARIATION_H
