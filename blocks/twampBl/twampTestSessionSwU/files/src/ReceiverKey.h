// The socket address under which a message receiver is registered with the
// UDP socket: the reflector's address and port.
//
// The address is kept whole in sockaddr_storage form, but only family,
// address and port take part in comparisons; flow label, scope and padding
// never separate two keys.
#ifndef TWAMP_RECEIVER_KEY_H
#define TWAMP_RECEIVER_KEY_H

#include <sys/socket.h>

#include <cstdint>

class ReceiverKey {
  public:
    // A key of family AF_UNSPEC (0); every byte zero.
    ReceiverKey();
    // A copy of the first length bytes of address (at most 128), the rest zero.
    ReceiverKey(const struct sockaddr* address, socklen_t length);
    // A copy of a whole socket address.
    explicit ReceiverKey(const struct sockaddr_storage& address);

    // Makes the key an AF_INET address; both fields in network byte order.
    void setIpv4(const uint8_t (&address)[4], const uint8_t (&port)[2]);
    // Makes the key an AF_INET6 address; both fields in network byte order.
    void setIpv6(const uint8_t (&address)[16], const uint8_t (&port)[2]);

    // The address family (AF_INET, AF_INET6, ...).
    int getFamily() const;
    // The whole socket address.
    const struct sockaddr_storage& getAddress() const;

    // Strict ordering: family, then address, then port (see ReceiverKey.cc).
    bool operator<(const ReceiverKey& other) const;

  private:
    struct sockaddr_storage address;
};

#endif  // TWAMP_RECEIVER_KEY_H
