// The one builder of control messages in the tests: a zero-filled control
// buffer with messages placed by hand or appended the way the kernel lays
// them out, SCM_TIMESTAMPING items included.
#ifndef TWAMP_TESTS_CONTROL_BUFFER_H
#define TWAMP_TESTS_CONTROL_BUFFER_H

#include <sys/socket.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <vector>

namespace twamp_test {

// The bytes of an int in native order.
inline std::vector<uint8_t> intBytes(int value) {
    std::vector<uint8_t> bytes(sizeof(value));
    std::memcpy(bytes.data(), &value, sizeof(value));
    return bytes;
}

// The bytes of timespecs in native layout, as an SCM_TIMESTAMPING item holds them.
inline std::vector<uint8_t> timespecBytes(const std::vector<struct timespec>& times) {
    std::vector<uint8_t> bytes(times.size() * sizeof(struct timespec));
    std::memcpy(bytes.data(), times.data(), bytes.size());
    return bytes;
}

// A zero-filled control buffer of exactly the given size (so that the
// sanitizer sees any read past it) and a message header pointing at it.
class ControlBuffer {
  public:
    explicit ControlBuffer(std::size_t length) : bytes(length, 0) {
        msg.msg_control = bytes.data();
        msg.msg_controllen = length;
    }
    ControlBuffer(const ControlBuffer&) = delete;
    ControlBuffer& operator=(const ControlBuffer&) = delete;

    // Writes a header claiming messageLength bytes at offset, and data behind it.
    void put(std::size_t offset, std::size_t messageLength, int level, int type,
             const std::vector<uint8_t>& data = {}) {
        put(offset, messageLength, level, type, data.data(), data.size());
    }
    void put(std::size_t offset, std::size_t messageLength, int level, int type, const void* data,
             std::size_t dataLength) {
        struct cmsghdr header {};
        header.cmsg_len = messageLength;
        header.cmsg_level = level;
        header.cmsg_type = type;
        std::memcpy(bytes.data() + offset, &header, sizeof(header));
        if (dataLength != 0) {
            std::memcpy(bytes.data() + offset + sizeof(header), data, dataLength);
        }
    }

    // Appends a message of data at the next 8-byte aligned offset (where the
    // kernel puts it: CMSG_SPACE of the ones before); its offset.
    std::size_t append(int level, int type, const std::vector<uint8_t>& data) {
        return append(level, type, data.data(), data.size());
    }
    // The same without a vector, for the benchmarks' timed loops.
    std::size_t append(int level, int type, const void* data, std::size_t dataLength) {
        const std::size_t offset = next;
        put(offset, sizeof(struct cmsghdr) + dataLength, level, type, data, dataLength);
        next = offset + (sizeof(struct cmsghdr) + dataLength + 7) / 8 * 8;
        return offset;
    }

    // Appends an SCM_TIMESTAMPING message with its three timespecs: the
    // software time, the legacy slot and the raw hardware time; its offset.
    std::size_t appendTimestamping(const struct timespec& software, const struct timespec& legacy,
                                   const struct timespec& hardware) {
        const struct timespec times[3] = {software, legacy, hardware};
        return append(SOL_SOCKET, SCM_TIMESTAMPING, times, sizeof(times));
    }

    // Zeroes the buffer and starts appending from its beginning again.
    void clear() {
        std::fill(bytes.begin(), bytes.end(), 0);
        next = 0;
    }

    // The message header's length field of the message at offset.
    std::size_t lengthAt(std::size_t offset) const {
        struct cmsghdr header {};
        std::memcpy(&header, bytes.data() + offset, sizeof(header));
        return header.cmsg_len;
    }

    // The bytes the appended messages take with their padding, as the
    // kernel reports them in msg_controllen.
    std::size_t appendedLength() const { return next; }

    std::vector<uint8_t> bytes;
    struct msghdr msg {};

  private:
    std::size_t next = 0;
};

}  // namespace twamp_test

#endif  // TWAMP_TESTS_CONTROL_BUFFER_H
