#include "ReceiverKey.h"

#include <netinet/in.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace {

// Fields are copied out with memcpy: a sockaddr_storage handed in by the
// kernel or a caller is aligned, but the field types must not be punned.
template <typename Field>
Field readField(const struct sockaddr_storage& address, std::size_t offset) {
    Field value{};
    std::memcpy(&value, reinterpret_cast<const uint8_t*>(&address) + offset, sizeof(value));
    return value;
}

// -1, 0 or 1 as a is below, equal to or above b.
template <typename Value>
int compareValues(Value a, Value b) {
    if (a < b) {
        return -1;
    }
    return (b < a) ? 1 : 0;
}

// Address then port of two AF_INET keys, each read natively as stored: the
// order is stable and cheap, but it is not the numeric order of addresses.
int compareIpv4(const struct sockaddr_storage& a, const struct sockaddr_storage& b) {
    const std::size_t addressOffset = offsetof(struct sockaddr_in, sin_addr);
    const std::size_t portOffset = offsetof(struct sockaddr_in, sin_port);
    const int byAddress =
        compareValues(readField<uint32_t>(a, addressOffset), readField<uint32_t>(b, addressOffset));
    if (byAddress != 0) {
        return byAddress;
    }
    return compareValues(readField<uint16_t>(a, portOffset), readField<uint16_t>(b, portOffset));
}

// The 16 address bytes as unsigned bytes, then the port read natively.
int compareIpv6(const struct sockaddr_storage& a, const struct sockaddr_storage& b) {
    const std::size_t addressOffset = offsetof(struct sockaddr_in6, sin6_addr);
    const std::size_t portOffset = offsetof(struct sockaddr_in6, sin6_port);
    const int byAddress =
        std::memcmp(reinterpret_cast<const uint8_t*>(&a) + addressOffset,
                    reinterpret_cast<const uint8_t*>(&b) + addressOffset, sizeof(struct in6_addr));
    if (byAddress != 0) {
        return (byAddress < 0) ? -1 : 1;
    }
    return compareValues(readField<uint16_t>(a, portOffset), readField<uint16_t>(b, portOffset));
}

}  // namespace

ReceiverKey::ReceiverKey() {
    std::memset(&address, 0, sizeof(address));
}

ReceiverKey::ReceiverKey(const struct sockaddr* source, socklen_t length) : ReceiverKey() {
    if (source != nullptr) {
        const std::size_t copied = std::min<std::size_t>(length, sizeof(address));
        std::memcpy(&address, source, copied);
    }
}

ReceiverKey::ReceiverKey(const struct sockaddr_storage& source) : address(source) {}

void ReceiverKey::setIpv4(const uint8_t (&ipAddress)[4], const uint8_t (&port)[2]) {
    struct sockaddr_in ipv4 {};
    ipv4.sin_family = AF_INET;
    std::memcpy(&ipv4.sin_addr, ipAddress, sizeof(ipAddress));
    std::memcpy(&ipv4.sin_port, port, sizeof(port));
    std::memset(&address, 0, sizeof(address));
    std::memcpy(&address, &ipv4, sizeof(ipv4));
}

void ReceiverKey::setIpv6(const uint8_t (&ipAddress)[16], const uint8_t (&port)[2]) {
    struct sockaddr_in6 ipv6 {};
    ipv6.sin6_family = AF_INET6;
    std::memcpy(&ipv6.sin6_addr, ipAddress, sizeof(ipAddress));
    std::memcpy(&ipv6.sin6_port, port, sizeof(port));
    std::memset(&address, 0, sizeof(address));
    std::memcpy(&address, &ipv6, sizeof(ipv6));
}

int ReceiverKey::getFamily() const {
    return address.ss_family;
}

const struct sockaddr_storage& ReceiverKey::getAddress() const {
    return address;
}

bool ReceiverKey::operator<(const ReceiverKey& other) const {
    if (address.ss_family != other.address.ss_family) {
        return address.ss_family < other.address.ss_family;
    }
    if (address.ss_family == AF_INET) {
        return compareIpv4(address, other.address) < 0;
    }
    if (address.ss_family == AF_INET6) {
        return compareIpv6(address, other.address) < 0;
    }
    // Keys of any other family carry nothing we route by: they are equal.
    return false;
}
