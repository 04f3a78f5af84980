#include "RandomFd.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include <gtest/gtest.h>

namespace {

// The default source is /dev/urandom, open for reading.
TEST(RandomFdTest, OpensUrandomReadOnly) {
    RandomFd random;
    ASSERT_GE(random.getFd(), 0);
    EXPECT_EQ(O_RDONLY, fcntl(random.getFd(), F_GETFL) & O_ACCMODE);
    uint8_t bytes[16];
    EXPECT_EQ(16, read(random.getFd(), bytes, sizeof(bytes)));
}

// A source that cannot be opened leaves the descriptor at -1.
TEST(RandomFdTest, FailedOpenLeavesMinusOne) {
    RandomFd random("/nonexistent/urandom");
    EXPECT_EQ(-1, random.getFd());
}

// The destructor closes the descriptor.
TEST(RandomFdTest, DestructorCloses) {
    int fd = -1;
    {
        RandomFd random;
        fd = random.getFd();
        ASSERT_GE(fd, 0);
    }
    errno = 0;
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));
    EXPECT_EQ(EBADF, errno);
}

}  // namespace
