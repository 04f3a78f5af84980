#include "ReceiveBatch.h"

#include <sys/socket.h>

#include <cstdint>
#include <cstring>
#include <set>

#include <gtest/gtest.h>

namespace {

// A batch of four messages of 100 data bytes and 64 control bytes.
class ReceiveBatchTest : public ::testing::Test {
  protected:
    // Writes into slot index what the kernel would: a name, control data and a byte count.
    void fill(std::size_t index, unsigned int length) {
        struct msghdr* msg = &headers[index].msg_hdr;
        std::memset(msg->msg_name, 0x11, 16);
        msg->msg_namelen = 16;
        std::memset(msg->msg_control, 0x22, 24);
        msg->msg_controllen = 24;
        msg->msg_flags = MSG_TRUNC;
        headers[index].msg_len = length;
    }

    // True when the first length bytes at data are all zero.
    static bool allZero(const void* data, std::size_t length) {
        const auto* bytes = static_cast<const uint8_t*>(data);
        for (std::size_t index = 0; index < length; ++index) {
            if (bytes[index] != 0) {
                return false;
            }
        }
        return true;
    }

    ReceiveBatch batch{4, 100, 64};
    struct mmsghdr* headers = batch.prepare(4);
};

// Prepared headers offer the whole name, data and control buffers, flags clear.
TEST_F(ReceiveBatchTest, PreparedHeadersOfferFullBuffers) {
    for (std::size_t index = 0; index < 4; ++index) {
        const struct msghdr& msg = headers[index].msg_hdr;
        EXPECT_EQ(sizeof(struct sockaddr_storage), msg.msg_namelen);
        EXPECT_EQ(1U, msg.msg_iovlen);
        EXPECT_EQ(100U, msg.msg_iov[0].iov_len);
        EXPECT_EQ(64U, msg.msg_controllen);
        EXPECT_EQ(0, msg.msg_flags);
        EXPECT_EQ(0U, headers[index].msg_len);
    }
}

// Every message has buffers of its own, and every control buffer is aligned
// for control-message headers.
TEST_F(ReceiveBatchTest, EveryMessageHasBuffersOfItsOwn) {
    std::set<const void*> buffers;
    for (std::size_t index = 0; index < 4; ++index) {
        const struct msghdr& msg = headers[index].msg_hdr;
        buffers.insert(msg.msg_name);
        buffers.insert(msg.msg_iov[0].iov_base);
        buffers.insert(msg.msg_control);
        EXPECT_EQ(0U, reinterpret_cast<uintptr_t>(msg.msg_control) % alignof(struct cmsghdr));
    }
    EXPECT_EQ(12U, buffers.size());
}

// After a receive each I/O vector holds exactly its message's byte count.
TEST_F(ReceiveBatchTest, SettleCutsEachVectorToItsMessage) {
    fill(0, 5);
    fill(1, 7);
    batch.settle(2);
    EXPECT_EQ(5U, batch.message(0)->msg_iov[0].iov_len);
    EXPECT_EQ(7U, batch.message(1)->msg_iov[0].iov_len);
    EXPECT_EQ(5U, batch.length(0));
    EXPECT_EQ(7U, batch.length(1));
    EXPECT_EQ(100U, batch.message(2)->msg_iov[0].iov_len);
}

// A byte count beyond the data buffer is cut to the buffer's size.
TEST_F(ReceiveBatchTest, ByteCountCutToTheBuffer) {
    fill(0, 500);
    batch.settle(1);
    EXPECT_EQ(100U, batch.length(0));
    EXPECT_EQ(100U, batch.message(0)->msg_iov[0].iov_len);
}

// The next prepare clears the names and control data of the last receive.
TEST_F(ReceiveBatchTest, PrepareClearsTheLastReceive) {
    fill(0, 5);
    fill(1, 7);
    batch.settle(2);
    batch.prepare(4);
    for (std::size_t index = 0; index < 2; ++index) {
        const struct msghdr* msg = batch.message(index);
        EXPECT_TRUE(allZero(msg->msg_name, sizeof(struct sockaddr_storage)));
        EXPECT_TRUE(allZero(msg->msg_control, 64));
        EXPECT_EQ(0, msg->msg_flags);
        EXPECT_EQ(100U, msg->msg_iov[0].iov_len);
    }
}

// A failed receive may have written its first slot: that one is cleared too.
TEST_F(ReceiveBatchTest, PrepareClearsTheSlotOfAFailedReceive) {
    fill(0, 5);
    batch.settle(-1);
    batch.prepare(4);
    EXPECT_TRUE(allZero(batch.message(0)->msg_name, sizeof(struct sockaddr_storage)));
    EXPECT_TRUE(allZero(batch.message(0)->msg_control, 64));
}

// A batch takes at most its capacity, however many are asked for.
TEST_F(ReceiveBatchTest, CapacityIsTheMessagesOfOneReceive) {
    EXPECT_EQ(4U, batch.capacity());
    batch.prepare(10);
    fill(3, 9);
    batch.settle(10);
    EXPECT_EQ(9U, batch.length(3));
}

}  // namespace
