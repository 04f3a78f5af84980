#include <gtest/gtest.h>

#include <string>

#include "HoldQueue.h"

namespace {

// Items leave earliest first, equal times in arrival order, and only when due.
TEST(HoldQueueTest, ReleasesByDueTime) {
    HoldQueue<std::string> queue;
    queue.hold(300, "c");
    queue.hold(100, "a1");
    queue.hold(200, "b");
    queue.hold(100, "a2");
    EXPECT_EQ(4u, queue.size());
    EXPECT_EQ(100, queue.nextDueNs());
    std::string item;
    EXPECT_FALSE(queue.takeDue(99, item));
    ASSERT_TRUE(queue.takeDue(100, item));
    EXPECT_EQ("a1", item);
    ASSERT_TRUE(queue.takeDue(250, item));
    EXPECT_EQ("a2", item);
    ASSERT_TRUE(queue.takeDue(250, item));
    EXPECT_EQ("b", item);
    EXPECT_FALSE(queue.takeDue(250, item));
    ASSERT_TRUE(queue.takeFirst(item));
    EXPECT_EQ("c", item);
    EXPECT_TRUE(queue.empty());
    EXPECT_FALSE(queue.takeFirst(item));
}

}  // namespace
