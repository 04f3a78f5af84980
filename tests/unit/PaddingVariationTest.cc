// The word-wise padding change against the byte loop it replaced: the same
// bytes for every start, end, buffer alignment and random byte.
#include "PaddingVariation.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace {

// The byte loop the daemon used before.
void referenceVary(uint8_t* bytes, std::size_t begin, std::size_t end, uint8_t randomByte) {
    for (std::size_t index = begin; index < end; ++index) {
        bytes[index] ^= randomByte;
    }
}

// Both versions on copies of one random buffer; the copies start at offset
// bytes into their storage, so unaligned words are covered too.
void expectSameResult(std::mt19937& random, std::size_t offset, std::size_t begin, std::size_t end,
                      uint8_t randomByte) {
    std::vector<uint8_t> original(offset + end + 16);
    for (uint8_t& byte : original) {
        byte = static_cast<uint8_t>(random());
    }
    std::vector<uint8_t> expected = original;
    std::vector<uint8_t> actual = original;
    referenceVary(expected.data() + offset, begin, end, randomByte);
    varyPaddingBytes(actual.data() + offset, begin, end, randomByte);
    ASSERT_EQ(expected, actual) << "offset " << offset << " begin " << begin << " end " << end
                                << " byte " << static_cast<int>(randomByte);
}

// Every packet size from the smallest to 300 bytes and around each word
// boundary up to the largest (65507), at every alignment, with every byte.
TEST(PaddingVariationTest, SameAsTheByteLoopForEverySizeAndByte) {
    std::mt19937 random(20261123);
    std::vector<std::size_t> sizes;
    for (std::size_t size = 0; size <= 300; ++size) {
        sizes.push_back(size);
    }
    for (std::size_t size : {1023u, 1024u, 1025u, 1452u, 1453u, 4095u, 65499u, 65500u, 65507u}) {
        sizes.push_back(size);
    }
    for (std::size_t size : sizes) {
        for (std::size_t offset = 0; offset < 8; ++offset) {
            const std::size_t begin = size < 14 ? size : 14;
            expectSameResult(random, offset, begin, size, static_cast<uint8_t>(random()));
        }
    }
    for (int byte = 0; byte < 256; ++byte) {
        expectSameResult(random, 3, 14, 117, static_cast<uint8_t>(byte));
    }
}

// Random starts and ends: the result never differs from the byte loop.
TEST(PaddingVariationTest, SameAsTheByteLoopForRandomRanges) {
    const unsigned seed = std::random_device()();
    std::printf("PaddingVariationTest seed %u\n", seed);
    std::mt19937 random(seed);
    for (int round = 0; round < 2000; ++round) {
        const std::size_t end = random() % 2048;
        const std::size_t begin = end == 0 ? 0 : random() % (end + 1);
        expectSameResult(random, random() % 8, begin, end, static_cast<uint8_t>(random()));
    }
}

// The changes accumulate: the same byte twice restores the padding, and the
// bytes before the start are never touched.
TEST(PaddingVariationTest, TwiceTheSameByteRestoresAndTheHeaderStays) {
    std::vector<uint8_t> packet(64);
    for (std::size_t index = 0; index < packet.size(); ++index) {
        packet[index] = static_cast<uint8_t>(index);
    }
    const std::vector<uint8_t> original = packet;
    varyPaddingBytes(packet.data(), 14, packet.size(), 0xA5);
    EXPECT_EQ(std::vector<uint8_t>(original.begin(), original.begin() + 14),
              std::vector<uint8_t>(packet.begin(), packet.begin() + 14));
    EXPECT_EQ(original[14] ^ 0xA5, packet[14]);
    EXPECT_EQ(original[63] ^ 0xA5, packet[63]);
    varyPaddingBytes(packet.data(), 14, packet.size(), 0xA5);
    EXPECT_EQ(original, packet);
}

}  // namespace
