// Big-endian fields of packets, read and written byte-wise through memcpy:
// a packet buffer may sit at any alignment.
#ifndef TWAMP_NETWORK_BYTE_ORDER_H
#define TWAMP_NETWORK_BYTE_ORDER_H

#include <endian.h>

#include <cstdint>
#include <cstring>

inline uint16_t readBigEndian16(const uint8_t* field) {
    uint16_t value = 0;
    std::memcpy(&value, field, sizeof(value));
    return be16toh(value);
}

inline uint32_t readBigEndian32(const uint8_t* field) {
    uint32_t value = 0;
    std::memcpy(&value, field, sizeof(value));
    return be32toh(value);
}

inline uint64_t readBigEndian64(const uint8_t* field) {
    uint64_t value = 0;
    std::memcpy(&value, field, sizeof(value));
    return be64toh(value);
}

inline void writeBigEndian16(uint8_t* field, uint16_t hostValue) {
    const uint16_t value = htobe16(hostValue);
    std::memcpy(field, &value, sizeof(value));
}

inline void writeBigEndian32(uint8_t* field, uint32_t hostValue) {
    const uint32_t value = htobe32(hostValue);
    std::memcpy(field, &value, sizeof(value));
}

inline void writeBigEndian64(uint8_t* field, uint64_t hostValue) {
    const uint64_t value = htobe64(hostValue);
    std::memcpy(field, &value, sizeof(value));
}

#endif  // TWAMP_NETWORK_BYTE_ORDER_H
