// The fuzzer's bytes read front to back as the values a target needs. Past
// the end every value reads as zero, so any input, also an empty one, is a
// complete description of what a target does; seeds are easy to write by hand.
#ifndef TWAMP_FUZZ_INPUT_H
#define TWAMP_FUZZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <vector>

class FuzzInput {
  public:
    FuzzInput(const uint8_t* data, std::size_t size) : data(data), size(size) {}

    // True while unread bytes are left.
    bool more() const { return offset < size; }
    // How many bytes are left.
    std::size_t remaining() const { return size - offset; }
    // The next byte, 0 past the end.
    uint8_t takeByte() { return offset < size ? data[offset++] : 0; }
    // The next two bytes, little-endian.
    uint16_t takeU16() {
        const uint16_t low = takeByte();
        return static_cast<uint16_t>(low | (takeByte() << 8));
    }
    // The next four bytes, little-endian.
    uint32_t takeU32() {
        const uint32_t low = takeU16();
        return low | (static_cast<uint32_t>(takeU16()) << 16);
    }
    // The next count bytes, fewer when the input ends first.
    std::vector<uint8_t> takeBytes(std::size_t count) {
        const std::size_t taken = count < remaining() ? count : remaining();
        std::vector<uint8_t> bytes(data + offset, data + offset + taken);
        offset += taken;
        return bytes;
    }
    // A block with a two-byte length in front of it.
    std::vector<uint8_t> takeBlock() { return takeBytes(takeU16()); }

  private:
    const uint8_t* data;
    std::size_t size;
    std::size_t offset = 0;
};

#endif  // TWAMP_FUZZ_INPUT_H
