#include "ReceiveBatch.h"

#include <algorithm>
#include <cstring>

namespace {

// Control buffers are laid out in whole cmsghdr units, so each one starts
// aligned for the control-message headers the kernel writes into it.
std::size_t roundUpToHeaders(std::size_t size) {
    const std::size_t unit = sizeof(struct cmsghdr);
    return (size + unit - 1) / unit * unit;
}

}  // namespace

ReceiveBatch::ReceiveBatch(std::size_t capacity, std::size_t bufferSize, std::size_t controlSize)
    : bufferSize(bufferSize),
      controlStride(roundUpToHeaders(controlSize)),
      controlSize(controlSize),
      data(capacity * bufferSize),
      control(capacity * controlStride / sizeof(struct cmsghdr)),
      sources(capacity),
      ioVectors(capacity),
      headers(capacity) {
    std::memset(control.data(), 0, control.size() * sizeof(struct cmsghdr));
    std::memset(sources.data(), 0, sources.size() * sizeof(struct sockaddr_storage));
    std::memset(headers.data(), 0, headers.size() * sizeof(struct mmsghdr));
    for (std::size_t index = 0; index < capacity; ++index) {
        ioVectors[index].iov_base = data.data() + index * bufferSize;
        struct msghdr& header = headers[index].msg_hdr;
        header.msg_name = &sources[index];
        header.msg_iov = &ioVectors[index];
        header.msg_iovlen = 1;
        header.msg_control = reinterpret_cast<uint8_t*>(control.data()) + index * controlStride;
    }
}

ReceiveBatch::~ReceiveBatch() = default;

struct mmsghdr* ReceiveBatch::prepare(std::size_t count) {
    // Only the slots of the last receive are cleared: at low rates a call
    // brings one message, and clearing all of them would cost more than it.
    for (std::size_t index = 0; index < touched; ++index) {
        clearSlot(index);
    }
    touched = 0;
    // Members read once: the loop's stores could alias them.
    const std::size_t slots = std::min(count, headers.size());
    prepared = slots;
    struct mmsghdr* const first = headers.data();
    struct iovec* const vectors = ioVectors.data();
    const std::size_t controlLength = controlSize;
    const std::size_t dataLength = bufferSize;
    for (std::size_t index = 0; index < slots; ++index) {
        struct msghdr& header = first[index].msg_hdr;
        header.msg_namelen = sizeof(struct sockaddr_storage);
        header.msg_controllen = controlLength;
        header.msg_flags = 0;
        vectors[index].iov_len = dataLength;
        first[index].msg_len = 0;
    }
    return first;
}

void ReceiveBatch::settle(int received) {
    const std::size_t count = (received > 0) ? static_cast<std::size_t>(received) : 0;
    // A receive that failed part-way may have written one slot past the
    // messages it reports.
    touched = std::min(count + 1, prepared);
    for (std::size_t index = 0; index < std::min(count, prepared); ++index) {
        // The receiver sees exactly its datagram, never bytes of an earlier one.
        ioVectors[index].iov_len = length(index);
    }
}

struct msghdr* ReceiveBatch::message(std::size_t index) {
    return &headers.at(index).msg_hdr;
}

std::size_t ReceiveBatch::length(std::size_t index) const {
    // The kernel reports the bytes it copied; a larger count is not believed.
    return std::min<std::size_t>(headers.at(index).msg_len, bufferSize);
}

std::size_t ReceiveBatch::capacity() const {
    return headers.size();
}

void ReceiveBatch::clearSlot(std::size_t index) {
    std::memset(&sources[index], 0, sizeof(struct sockaddr_storage));
    std::memset(headers[index].msg_hdr.msg_control, 0, controlStride);
}
