#include "ReceiverKey.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <string>

#include <gtest/gtest.h>

namespace {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "expected orders of native reads are written for a little-endian host");

ReceiverKey ipv4Key(const char* address, uint16_t port) {
    struct sockaddr_in ipv4 {};
    ipv4.sin_family = AF_INET;
    ipv4.sin_port = htons(port);
    inet_pton(AF_INET, address, &ipv4.sin_addr);
    return ReceiverKey(reinterpret_cast<const struct sockaddr*>(&ipv4), sizeof(ipv4));
}

ReceiverKey ipv6Key(const char* address, uint16_t port, uint32_t flowInfo = 0,
                    uint32_t scopeId = 0) {
    struct sockaddr_in6 ipv6 {};
    ipv6.sin6_family = AF_INET6;
    ipv6.sin6_port = htons(port);
    ipv6.sin6_flowinfo = flowInfo;
    ipv6.sin6_scope_id = scopeId;
    inet_pton(AF_INET6, address, &ipv6.sin6_addr);
    return ReceiverKey(reinterpret_cast<const struct sockaddr*>(&ipv6), sizeof(ipv6));
}

ReceiverKey unixKey(const char* path) {
    struct sockaddr_un local {};
    local.sun_family = AF_UNIX;
    std::strncpy(local.sun_path, path, sizeof(local.sun_path) - 1);
    return ReceiverKey(reinterpret_cast<const struct sockaddr*>(&local), sizeof(local));
}

bool equivalent(const ReceiverKey& a, const ReceiverKey& b) {
    return !(a < b) && !(b < a);
}

// A default key is all zero, of family AF_UNSPEC.
TEST(ReceiverKeyTest, DefaultKeyIsZero) {
    const ReceiverKey key;
    struct sockaddr_storage zero {};
    EXPECT_EQ(AF_UNSPEC, key.getFamily());
    EXPECT_EQ(0, std::memcmp(&zero, &key.getAddress(), sizeof(zero)));
}

// The family decides first: AF_INET (2) sorts before AF_INET6 (10).
TEST(ReceiverKeyTest, FamilyOrdersFirst) {
    EXPECT_TRUE(ipv4Key("255.255.255.255", 65535) < ipv6Key("::", 0));
    EXPECT_FALSE(ipv6Key("::", 0) < ipv4Key("255.255.255.255", 65535));
}

// IPv4 addresses compare as stored, read natively: 10.0.0.2 (0x0200000A)
// sorts before 9.0.0.3 (0x03000009), unlike their numeric order.
TEST(ReceiverKeyTest, Ipv4AddressReadNatively) {
    EXPECT_TRUE(ipv4Key("10.0.0.2", 862) < ipv4Key("9.0.0.3", 862));
    EXPECT_FALSE(ipv4Key("9.0.0.3", 862) < ipv4Key("10.0.0.2", 862));
}

// IPv4 ports of one address compare natively: 1024 (0x0004) before 862 (0x5E03).
TEST(ReceiverKeyTest, Ipv4PortReadNatively) {
    EXPECT_TRUE(ipv4Key("198.18.0.2", 1024) < ipv4Key("198.18.0.2", 862));
    EXPECT_FALSE(ipv4Key("198.18.0.2", 862) < ipv4Key("198.18.0.2", 1024));
}

// The IPv4 address decides before the port.
TEST(ReceiverKeyTest, Ipv4AddressBeforePort) {
    EXPECT_TRUE(ipv4Key("198.18.0.1", 65535) < ipv4Key("198.18.0.2", 1));
}

// Equal IPv4 address and port make equal keys.
TEST(ReceiverKeyTest, Ipv4EqualKeys) {
    EXPECT_TRUE(equivalent(ipv4Key("198.18.0.2", 862), ipv4Key("198.18.0.2", 862)));
}

// IPv6 addresses compare bytewise as unsigned bytes: fe80:: after 2001:db8::.
TEST(ReceiverKeyTest, Ipv6AddressBytesUnsigned) {
    EXPECT_TRUE(ipv6Key("2001:db8::", 862) < ipv6Key("fe80::", 862));
    EXPECT_FALSE(ipv6Key("fe80::", 862) < ipv6Key("2001:db8::", 862));
}

// The last address byte counts: ::1 before ::ff.
TEST(ReceiverKeyTest, Ipv6LastAddressByte) {
    EXPECT_TRUE(ipv6Key("2001:db8::1", 862) < ipv6Key("2001:db8::ff", 862));
}

// IPv6 ports of one address compare natively: 1024 before 862.
TEST(ReceiverKeyTest, Ipv6PortReadNatively) {
    EXPECT_TRUE(ipv6Key("2001:db8::2", 1024) < ipv6Key("2001:db8::2", 862));
    EXPECT_FALSE(ipv6Key("2001:db8::2", 862) < ipv6Key("2001:db8::2", 1024));
}

// Flow label and scope take no part: such keys are equal.
TEST(ReceiverKeyTest, Ipv6FlowInfoAndScopeIgnored) {
    EXPECT_TRUE(equivalent(ipv6Key("fe80::1", 862, 7, 3), ipv6Key("fe80::1", 862, 0, 0)));
}

// Two keys of another family are equal whatever they hold.
TEST(ReceiverKeyTest, OtherFamilyKeysAreEqual) {
    EXPECT_TRUE(equivalent(unixKey("/run/a"), unixKey("/run/b")));
}

// In a map, keys differing only in ignored fields share one entry.
TEST(ReceiverKeyTest, MapHoldsOneEntryPerAddressAndPort) {
    std::map<ReceiverKey, int> map;
    map.emplace(ipv6Key("2001:db8::2", 862, 1, 0), 1);
    map.emplace(ipv6Key("2001:db8::2", 862, 2, 5), 2);
    map.emplace(ipv6Key("2001:db8::2", 863), 3);
    ASSERT_EQ(2U, map.size());
    EXPECT_EQ(1, map.at(ipv6Key("2001:db8::2", 862)));
}

// Only the given length of an address is copied; the rest stays zero.
TEST(ReceiverKeyTest, CopiesOnlyGivenLength) {
    struct sockaddr_storage source;
    std::memset(&source, 0xFF, sizeof(source));
    source.ss_family = AF_INET;
    const ReceiverKey key(reinterpret_cast<const struct sockaddr*>(&source), 4);
    const uint8_t* bytes = reinterpret_cast<const uint8_t*>(&key.getAddress());
    EXPECT_EQ(AF_INET, key.getFamily());
    EXPECT_EQ(0xFF, bytes[2]);
    EXPECT_EQ(0xFF, bytes[3]);
    EXPECT_EQ(0x00, bytes[4]);
    EXPECT_EQ(0x00, bytes[127]);
}

// setIpv4 stores family, address and port in network byte order as given.
TEST(ReceiverKeyTest, SetIpv4StoresFields) {
    ReceiverKey key;
    key.setIpv4({198, 18, 0, 2}, {0x03, 0x5E});
    EXPECT_TRUE(equivalent(ipv4Key("198.18.0.2", 862), key));
    EXPECT_EQ(AF_INET, key.getFamily());
}

// setIpv6 stores family, address and port in network byte order as given.
TEST(ReceiverKeyTest, SetIpv6StoresFields) {
    ReceiverKey key;
    key.setIpv6({0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2}, {0x03, 0x5E});
    EXPECT_TRUE(equivalent(ipv6Key("2001:db8::2", 862), key));
    EXPECT_EQ(AF_INET6, key.getFamily());
}

}  // namespace
