// The 16 opaque bytes that name a test session in the control signals.
// Never interpreted; keys are ordered bytewise by memcmp over all 16 bytes.
#ifndef TWAMP_SESSION_KEY_H
#define TWAMP_SESSION_KEY_H

#include <cstdint>
#include <cstring>

struct SessionKey {
    static constexpr std::size_t kSize = 16;
    uint8_t bytes[kSize];

    bool operator<(const SessionKey& other) const {
        return std::memcmp(bytes, other.bytes, kSize) < 0;
    }
};

#endif  // TWAMP_SESSION_KEY_H
