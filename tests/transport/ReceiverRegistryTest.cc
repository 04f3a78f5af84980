#include "ReceiverRegistry.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "MockMessageReceiver.h"

namespace {

using ::testing::_;
using ::testing::NiceMock;
using ::testing::Return;
using ::testing::StrictMock;
using twamp_test::MockMessageReceiver;

ReceiverKey ipv4Key(const char* address, uint16_t port) {
    struct sockaddr_in ipv4 {};
    ipv4.sin_family = AF_INET;
    ipv4.sin_port = htons(port);
    inet_pton(AF_INET, address, &ipv4.sin_addr);
    return ReceiverKey(reinterpret_cast<const struct sockaddr*>(&ipv4), sizeof(ipv4));
}

// A registry and three receivers; the reflector key 198.18.0.2 port 862.
class ReceiverRegistryTest : public ::testing::Test {
  protected:
    using Receivers = std::vector<MessageReceiver*>;

    ReceiverRegistry registry;
    const ReceiverKey key = ipv4Key("198.18.0.2", 862);
    struct msghdr msg {};
    NiceMock<MockMessageReceiver> first;
    NiceMock<MockMessageReceiver> second;
    NiceMock<MockMessageReceiver> third;
};

// Receivers of one key are kept in the order they registered.
TEST_F(ReceiverRegistryTest, KeepsRegistrationOrder) {
    registry.add(key, &first);
    registry.add(key, &second);
    registry.add(key, &third);
    EXPECT_EQ((Receivers{&first, &second, &third}), registry.receiversOf(key));
}

// A receiver registered twice under one key has one entry.
TEST_F(ReceiverRegistryTest, AddingTwiceKeepsOneEntry) {
    registry.add(key, &first);
    registry.add(key, &second);
    registry.add(key, &first);
    EXPECT_EQ((Receivers{&first, &second}), registry.receiversOf(key));
}

// Keys differing in the port hold their receivers apart.
TEST_F(ReceiverRegistryTest, KeysAreSeparate) {
    registry.add(key, &first);
    registry.add(ipv4Key("198.18.0.2", 863), &second);
    EXPECT_EQ((Receivers{&first}), registry.receiversOf(key));
    EXPECT_EQ((Receivers{&second}), registry.receiversOf(ipv4Key("198.18.0.2", 863)));
}

// Removing a receiver takes only its own entry, whatever its place.
TEST_F(ReceiverRegistryTest, RemoveTakesOnlyThatReceiver) {
    registry.add(key, &first);
    registry.add(key, &second);
    registry.add(key, &third);
    registry.remove(key, &first);
    EXPECT_EQ((Receivers{&second, &third}), registry.receiversOf(key));
}

// Removing a receiver that is not registered under the key changes nothing.
TEST_F(ReceiverRegistryTest, RemovingAStrangerChangesNothing) {
    registry.add(key, &first);
    registry.remove(key, &second);
    registry.remove(ipv4Key("198.18.0.3", 862), &first);
    EXPECT_EQ((Receivers{&first}), registry.receiversOf(key));
}

// A key without receivers finds none, also after its last one left.
TEST_F(ReceiverRegistryTest, EmptyKeyFindsNothing) {
    registry.add(key, &first);
    registry.remove(key, &first);
    EXPECT_EQ(nullptr, registry.findForMessage(key, &msg));
    EXPECT_EQ(nullptr, registry.findForErrQueueMessage(key, &msg, 60));
    EXPECT_EQ(Receivers{}, registry.receiversOf(key));
}

// A lone receiver is found without being asked.
TEST_F(ReceiverRegistryTest, LoneReceiverNotAsked) {
    StrictMock<MockMessageReceiver> lone;
    registry.add(key, &lone);
    EXPECT_EQ(&lone, registry.findForMessage(key, &msg));
    EXPECT_EQ(&lone, registry.findForErrQueueMessage(key, &msg, 60));
}

// Among several, the first that owns the reply is found; later ones are not asked.
TEST_F(ReceiverRegistryTest, FirstOwnerOfAReplyFound) {
    StrictMock<MockMessageReceiver> owner;
    registry.add(key, &first);
    registry.add(key, &owner);
    registry.add(key, &third);
    EXPECT_CALL(first, ownsMessage(&msg)).WillOnce(Return(false));
    EXPECT_CALL(owner, ownsMessage(&msg)).WillOnce(Return(true));
    EXPECT_CALL(third, ownsMessage(_)).Times(0);
    EXPECT_EQ(&owner, registry.findForMessage(key, &msg));
}

// Among several, the owner of a looped-back frame is asked with its byte count.
TEST_F(ReceiverRegistryTest, OwnerOfALoopedFrameFound) {
    registry.add(key, &first);
    registry.add(key, &second);
    EXPECT_CALL(first, ownsErrQueueMessage(&msg, 60)).WillOnce(Return(false));
    EXPECT_CALL(second, ownsErrQueueMessage(&msg, 60)).WillOnce(Return(true));
    EXPECT_EQ(&second, registry.findForErrQueueMessage(key, &msg, 60));
}

// A message nobody owns goes to the first receiver registered.
TEST_F(ReceiverRegistryTest, UnownedMessageGoesToTheFirst) {
    registry.add(key, &first);
    registry.add(key, &second);
    EXPECT_EQ(&first, registry.findForMessage(key, &msg));
    EXPECT_EQ(&first, registry.findForErrQueueMessage(key, &msg, 60));
}

}  // namespace
