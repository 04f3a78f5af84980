// The ITC stand-in against real mailboxes; forked processes play the other side.
#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <grp.h>
#include <sched.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ItcChild.h"
#include "itc.h"
#include "itc_wire.h"

// Every application defines the signal union; these tests exchange one small signal.
struct TestSignal {
    uint32_t msgno;
    uint32_t value;
};

union itc_msg {
    uint32_t msgno;
    TestSignal test;
};

namespace {

using itc_test::ItcChild;
using Values = std::vector<int64_t>;
using Signal = std::pair<uint32_t, uint32_t>;  // signal number, value

constexpr uint32_t kPing = 0x00A10001;
constexpr uint32_t kPong = 0x00A10002;
constexpr uint32_t kOther = 0x00A10003;
constexpr uint32_t kNobody = 65534;
constexpr int64_t kFailed = -999;

int removeEntry(const char* path, const struct stat*, int, struct FTW*) {
    return remove(path);
}

bool isReadable(int fd) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    struct timeval zero = {0, 0};
    return select(fd + 1, &readable, nullptr, nullptr, &zero) == 1;
}

int sendTest(itc_mbox_id_t to, uint32_t msgno, uint32_t value, itc_mbox_id_t from) {
    union itc_msg* msg = itc_alloc(sizeof(TestSignal), msgno);
    if (msg == nullptr) {
        return -2;
    }
    msg->test.value = value;
    return itc_send(&msg, to, from);
}

// The number and value of the received signal, {0, 0} when none came.
Signal receiveTest(const uint32_t* filter, int32_t tmo, itc_mbox_id_t from) {
    union itc_msg* msg = itc_receive(filter, tmo, from);
    if (msg == nullptr) {
        return {0, 0};
    }
    Signal received = {msg->test.msgno, msg->test.value};
    itc_free(&msg);
    return received;
}

// Up to count values reported by a child; fewer when it stops reporting.
Values take(ItcChild& child, size_t count) {
    Values values;
    int64_t value = 0;
    while (values.size() < count && child.next(&value)) {
        values.push_back(value);
    }
    return values;
}

std::string socketName(itc_mbox_id_t id) {
    char name[16];
    std::snprintf(name, sizeof name, "mbox.%08x", static_cast<unsigned>(id));
    return name;
}

std::string readLink(const std::string& path) {
    char target[256];
    ssize_t length = readlink(path.c_str(), target, sizeof target - 1);
    return length < 0 ? std::string() : std::string(target, static_cast<size_t>(length));
}

// Drops every privilege of root in a forked child: user and group nobody, no others.
bool becomeNobody() {
    return setgroups(0, nullptr) == 0 && setgid(kNobody) == 0 && setuid(kNobody) == 0;
}

class ItcTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/itc_test_XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        base_ = pattern;
        // Others may pass through the base, so the run directory's own mode decides.
        ASSERT_EQ(0, chmod(base_.c_str(), 0755));
        rundir_ = base_ + "/run";
        ASSERT_EQ(0, setenv("ITC_RUNDIR", rundir_.c_str(), 1));
        ASSERT_EQ(0, itc_init(8, 0, nullptr, nullptr, 0));
    }

    void TearDown() override {
        itc_mbox_id_t own = itc_current_mbox();
        if (own != ITC_NO_ID) {
            itc_delete_mailbox(own);
        }
        unsetenv("ITC_RUNDIR");
        if (!base_.empty()) {
            nftw(base_.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
        }
    }

    std::string path(const std::string& entry) const { return rundir_ + "/" + entry; }

    std::string base_;
    std::string rundir_;
};

#define REQUIRE_ROOT()                                         \
    do {                                                       \
        if (geteuid() != 0) {                                  \
            GTEST_SKIP() << "needs root (namespaces, setuid)"; \
        }                                                      \
    } while (0)

// itc_init refuses a mailbox count below 1 with EINVAL.
TEST_F(ItcTest, InitRejectsMailboxCountBelowOne) {
    int result = itc_init(0, 0, nullptr, nullptr, 0);
    int error = errno;
    EXPECT_EQ(-1, result);
    EXPECT_EQ(EINVAL, error);
}

// itc_init refuses an allocation scheme other than 0 with EINVAL.
TEST_F(ItcTest, InitRejectsUnknownAllocationScheme) {
    int result = itc_init(1, 7, nullptr, nullptr, 0);
    int error = errno;
    EXPECT_EQ(-1, result);
    EXPECT_EQ(EINVAL, error);
}

// A second itc_init returns 0 and keeps the mailbox count of the first.
TEST_F(ItcTest, SecondInitKeepsFirstMailboxCount) {
    ItcChild child;
    ASSERT_TRUE(child.start([](ItcChild& self) {
        self.report(itc_init(1, 0, nullptr, nullptr, 0));
        self.report(itc_init(5, 0, nullptr, nullptr, 0));
        self.report(itc_create_mailbox("first", 0) != ITC_NO_ID);
        std::thread other([&self] {
            itc_mbox_id_t second = itc_create_mailbox("second", 0);
            int error = errno;
            self.report(second);
            self.report(error);
        });
        other.join();
    }));
    EXPECT_EQ((Values{0, 0, 1, ITC_NO_ID, ENOSPC}), take(child, 5));
    EXPECT_EQ(0, child.finish());
}

// Mailboxes beyond itc_init's count fail with ENOSPC.
TEST_F(ItcTest, CreateBeyondMailboxCountFailsWithEnospc) {
    ItcChild child;
    ASSERT_TRUE(child.start([](ItcChild& self) {
        itc_init(2, 0, nullptr, nullptr, 0);
        self.report(itc_create_mailbox("one", 0) != ITC_NO_ID);
        std::thread([&self] { self.report(itc_create_mailbox("two", 0) != ITC_NO_ID); }).join();
        std::thread([&self] {
            itc_mbox_id_t third = itc_create_mailbox("three", 0);
            int error = errno;
            self.report(third);
            self.report(error);
        }).join();
    }));
    EXPECT_EQ((Values{1, 1, ITC_NO_ID, ENOSPC}), take(child, 4));
    EXPECT_EQ(0, child.finish());
}

// A deleted mailbox gives its place back to a new one.
TEST_F(ItcTest, DeletedMailboxFreesItsPlace) {
    ItcChild child;
    ASSERT_TRUE(child.start([](ItcChild& self) {
        itc_init(1, 0, nullptr, nullptr, 0);
        self.report(itc_delete_mailbox(itc_create_mailbox("one", 0)));
        self.report(itc_create_mailbox("two", 0) != ITC_NO_ID);
    }));
    EXPECT_EQ((Values{0, 1}), take(child, 2));
    EXPECT_EQ(0, child.finish());
}

// Creating a mailbox before itc_init fails with EPERM.
TEST_F(ItcTest, CreateWithoutInitFailsWithEperm) {
    ItcChild child;
    ASSERT_TRUE(child.start([](ItcChild& self) {
        itc_mbox_id_t id = itc_create_mailbox("early", 0);
        int error = errno;
        self.report(id);
        self.report(error);
    }));
    EXPECT_EQ((Values{ITC_NO_ID, EPERM}), take(child, 2));
    EXPECT_EQ(0, child.finish());
}

// An empty name is refused with EINVAL.
TEST_F(ItcTest, CreateRejectsEmptyName) {
    itc_mbox_id_t id = itc_create_mailbox("", 0);
    int error = errno;
    EXPECT_EQ(static_cast<itc_mbox_id_t>(ITC_NO_ID), id);
    EXPECT_EQ(EINVAL, error);
}

// A NULL name is refused with EINVAL.
TEST_F(ItcTest, CreateRejectsNullName) {
    itc_mbox_id_t id = itc_create_mailbox(nullptr, 0);
    int error = errno;
    EXPECT_EQ(static_cast<itc_mbox_id_t>(ITC_NO_ID), id);
    EXPECT_EQ(EINVAL, error);
}

// A name with '/' is refused with EINVAL: it would leave the run directory.
TEST_F(ItcTest, CreateRejectsNameWithSlash) {
    itc_mbox_id_t id = itc_create_mailbox("../escape", 0);
    int error = errno;
    EXPECT_EQ(static_cast<itc_mbox_id_t>(ITC_NO_ID), id);
    EXPECT_EQ(EINVAL, error);
}

// A name of 250 bytes is accepted.
TEST_F(ItcTest, CreateAcceptsNameOf250Bytes) {
    const std::string name(250, 'n');
    itc_mbox_id_t id = itc_create_mailbox(name.c_str(), 0);
    EXPECT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), id);
    EXPECT_EQ(id, itc_locate(name.c_str()));
}

// A name of 251 bytes is refused with ENAMETOOLONG.
TEST_F(ItcTest, CreateRejectsNameOf251Bytes) {
    const std::string name(251, 'n');
    itc_mbox_id_t id = itc_create_mailbox(name.c_str(), 0);
    int error = errno;
    EXPECT_EQ(static_cast<itc_mbox_id_t>(ITC_NO_ID), id);
    EXPECT_EQ(ENAMETOOLONG, error);
}

// A run directory whose socket paths would not fit a Unix socket address is refused
// with ENAMETOOLONG before anything is created.
TEST_F(ItcTest, CreateRejectsRunDirectoryTooLongForSocketPaths) {
    const std::string longRundir = base_ + "/" + std::string(100, 'r');
    ASSERT_EQ(0, setenv("ITC_RUNDIR", longRundir.c_str(), 1));
    itc_mbox_id_t id = itc_create_mailbox("long", 0);
    int error = errno;
    EXPECT_EQ(static_cast<itc_mbox_id_t>(ITC_NO_ID), id);
    EXPECT_EQ(ENAMETOOLONG, error);
    EXPECT_EQ(-1, access(longRundir.c_str(), F_OK));
}

// A thread that already has a mailbox cannot create a second one (EBUSY).
TEST_F(ItcTest, CreateSecondMailboxInSameThreadFailsWithEbusy) {
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), itc_create_mailbox("first", 0));
    itc_mbox_id_t second = itc_create_mailbox("second", 0);
    int error = errno;
    EXPECT_EQ(static_cast<itc_mbox_id_t>(ITC_NO_ID), second);
    EXPECT_EQ(EBUSY, error);
}

// Two live mailboxes cannot share a name: the second gets EEXIST.
TEST_F(ItcTest, CreateNameOfLiveMailboxFailsWithEexist) {
    ItcChild child;
    ASSERT_TRUE(child.start([](ItcChild& self) {
        itc_init(1, 0, nullptr, nullptr, 0);
        self.report(itc_create_mailbox("shared", 0));
        self.awaitRelease();
    }));
    int64_t holder = 0;
    ASSERT_TRUE(child.next(&holder));
    ASSERT_NE(ITC_NO_ID, holder);
    itc_mbox_id_t id = itc_create_mailbox("shared", 0);
    int error = errno;
    EXPECT_EQ(static_cast<itc_mbox_id_t>(ITC_NO_ID), id);
    EXPECT_EQ(EEXIST, error);
    EXPECT_EQ(static_cast<itc_mbox_id_t>(holder), itc_locate("shared"));
    child.release();
    EXPECT_EQ(0, child.finish());
}

// The run directory is made 0770 and the socket 0660 whatever the umask; the name
// entry links to the socket.
TEST_F(ItcTest, CreateMakesRunDirectory0770AndSocket0660) {
    mode_t previous = umask(0077);
    itc_mbox_id_t id = itc_create_mailbox("modes", 0);
    umask(previous);
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), id);
    struct stat directory;
    struct stat socket;
    ASSERT_EQ(0, stat(rundir_.c_str(), &directory));
    ASSERT_EQ(0, lstat(path(socketName(id)).c_str(), &socket));
    EXPECT_EQ(static_cast<mode_t>(S_IFDIR | 0770), directory.st_mode);
    EXPECT_EQ(static_cast<mode_t>(S_IFSOCK | 0660), socket.st_mode);
    EXPECT_EQ(socketName(id), readLink(path("name.modes")));
}

// Each thread has its own current mailbox.
TEST_F(ItcTest, CurrentMailboxBelongsToCallingThread) {
    itc_mbox_id_t own = itc_create_mailbox("main_box", 0);
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), own);
    itc_mbox_id_t before = 1;
    itc_mbox_id_t created = ITC_NO_ID;
    itc_mbox_id_t current = ITC_NO_ID;
    std::thread([&] {
        before = itc_current_mbox();
        created = itc_create_mailbox("thread_box", 0);
        current = itc_current_mbox();
        itc_delete_mailbox(created);
    }).join();
    EXPECT_EQ(static_cast<itc_mbox_id_t>(ITC_NO_ID), before);
    EXPECT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), created);
    EXPECT_NE(own, created);
    EXPECT_EQ(created, current);
    EXPECT_EQ(own, itc_current_mbox());
}

// itc_locate finds another process's mailbox by its name.
TEST_F(ItcTest, LocateFindsMailboxOfOtherProcessByName) {
    ItcChild child;
    ASSERT_TRUE(child.start([](ItcChild& self) {
        itc_init(1, 0, nullptr, nullptr, 0);
        self.report(itc_create_mailbox("service", 0));
        self.awaitRelease();
    }));
    int64_t id = 0;
    ASSERT_TRUE(child.next(&id));
    ASSERT_NE(ITC_NO_ID, id);
    EXPECT_EQ(static_cast<itc_mbox_id_t>(id), itc_locate("service"));
    child.release();
    EXPECT_EQ(0, child.finish());
}

// itc_locate of a name nobody created gives ITC_NO_ID with ENOENT.
TEST_F(ItcTest, LocateMissingNameGivesNoIdWithEnoent) {
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), itc_create_mailbox("present", 0));
    itc_mbox_id_t id = itc_locate("absent");
    int error = errno;
    EXPECT_EQ(static_cast<itc_mbox_id_t>(ITC_NO_ID), id);
    EXPECT_EQ(ENOENT, error);
}

// A name entry that points anywhere but at a mailbox socket is not trusted.
TEST_F(ItcTest, LocateIgnoresEntryPointingOutsideMailboxSockets) {
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), itc_create_mailbox("anchor", 0));
    ASSERT_EQ(0, symlink("/etc/passwd", path("name.forged").c_str()));
    itc_mbox_id_t id = itc_locate("forged");
    int error = errno;
    EXPECT_EQ(static_cast<itc_mbox_id_t>(ITC_NO_ID), id);
    EXPECT_EQ(ENOENT, error);
}

// A new mailbox takes over a name whose entry points outside the mailbox sockets.
TEST_F(ItcTest, CreateReplacesEntryPointingOutsideMailboxSockets) {
    ASSERT_EQ(0, mkdir(rundir_.c_str(), 0770));
    ASSERT_EQ(0, symlink("/etc/passwd", path("name.forged").c_str()));
    itc_mbox_id_t id = itc_create_mailbox("forged", 0);
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), id);
    EXPECT_EQ(socketName(id), readLink(path("name.forged")));
}

// The descriptor is readable exactly while a signal waits.
TEST_F(ItcTest, DescriptorReadableExactlyWhileSignalWaits) {
    itc_mbox_id_t own = itc_create_mailbox("readable", 0);
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), own);
    int fd = itc_get_fd();
    ASSERT_GE(fd, 0);
    std::vector<bool> states;
    states.push_back(isReadable(fd));
    ASSERT_EQ(0, sendTest(own, kPing, 1, own));
    states.push_back(isReadable(fd));
    EXPECT_EQ(Signal(kPing, 1), receiveTest(ITC_NOFILTER, 0, ITC_FROM_ALL));
    states.push_back(isReadable(fd));
    EXPECT_EQ((std::vector<bool>{false, true, false}), states);
}

// The descriptor stays readable while a signal the filter left out is kept, and not
// after that signal was taken.
TEST_F(ItcTest, DescriptorReadableWhileFilteredOutSignalIsKept) {
    itc_mbox_id_t own = itc_create_mailbox("kept", 0);
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), own);
    int fd = itc_get_fd();
    ASSERT_EQ(0, sendTest(own, kPing, 1, own));
    const uint32_t onlyOther[] = {1, kOther};
    EXPECT_EQ(Signal(0, 0), receiveTest(onlyOther, 0, ITC_FROM_ALL));
    std::vector<bool> states;
    states.push_back(isReadable(fd));
    EXPECT_EQ(Signal(kPing, 1), receiveTest(ITC_NOFILTER, 0, ITC_FROM_ALL));
    states.push_back(isReadable(fd));
    EXPECT_EQ((std::vector<bool>{true, false}), states);
}

// Without a mailbox the thread has no descriptor: -1 with EBADF.
TEST_F(ItcTest, GetFdWithoutMailboxIsMinusOne) {
    int fd = itc_get_fd();
    int error = errno;
    EXPECT_EQ(-1, fd);
    EXPECT_EQ(EBADF, error);
}

// A receive with time-out 0 on an empty mailbox returns NULL with EAGAIN.
TEST_F(ItcTest, ReceiveWithZeroTimeoutOnEmptyMailboxReturnsNullWithEagain) {
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), itc_create_mailbox("empty", 0));
    union itc_msg* msg = itc_receive(ITC_NOFILTER, 0, ITC_FROM_ALL);
    int error = errno;
    EXPECT_EQ(nullptr, msg);
    EXPECT_EQ(EAGAIN, error);
}

// A receive with a positive time-out on an empty mailbox returns NULL with ETIMEDOUT.
TEST_F(ItcTest, ReceiveWithPositiveTimeoutOnEmptyMailboxReturnsNullWithEtimedout) {
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), itc_create_mailbox("empty", 0));
    union itc_msg* msg = itc_receive(ITC_NOFILTER, 20, ITC_FROM_ALL);
    int error = errno;
    EXPECT_EQ(nullptr, msg);
    EXPECT_EQ(ETIMEDOUT, error);
}

// A thread without a mailbox receives nothing: NULL with EBADF.
TEST_F(ItcTest, ReceiveWithoutMailboxReturnsNullWithEbadf) {
    union itc_msg* msg = itc_receive(ITC_NOFILTER, 0, ITC_FROM_ALL);
    int error = errno;
    EXPECT_EQ(nullptr, msg);
    EXPECT_EQ(EBADF, error);
}

// A time-out below ITC_NO_TMO is refused with EINVAL.
TEST_F(ItcTest, ReceiveRejectsTimeoutBelowNoTimeout) {
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), itc_create_mailbox("bad_tmo", 0));
    union itc_msg* msg = itc_receive(ITC_NOFILTER, -2, ITC_FROM_ALL);
    int error = errno;
    EXPECT_EQ(nullptr, msg);
    EXPECT_EQ(EINVAL, error);
}

// A receive without time-out waits for the signal another process sends and returns it.
// The waiting side is the child, so a receive that never returns cannot hang the test.
TEST_F(ItcTest, ReceiveWithoutTimeoutReturnsSignalSentLater) {
    ItcChild child;
    ASSERT_TRUE(child.start([](ItcChild& self) {
        itc_init(1, 0, nullptr, nullptr, 0);
        self.report(itc_create_mailbox("waiter", 0));
        union itc_msg* msg = itc_receive(ITC_NOFILTER, ITC_NO_TMO, ITC_FROM_ALL);
        self.report(msg != nullptr ? static_cast<int64_t>(msg->test.value) : kFailed);
        itc_free(&msg);
    }));
    int64_t waiter = 0;
    ASSERT_TRUE(child.next(&waiter));
    ASSERT_NE(ITC_NO_ID, waiter);
    ASSERT_EQ(0, sendTest(static_cast<itc_mbox_id_t>(waiter), kPing, 5, ITC_NO_ID));
    EXPECT_EQ((Values{5}), take(child, 1));
    EXPECT_EQ(0, child.finish());
}

// A short signal reads zeros past its own 8 bytes up to byte 255; itc_size gives 8.
TEST_F(ItcTest, ShortSignalReadsZerosUpToByte255) {
    itc_mbox_id_t own = itc_create_mailbox("short", 0);
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), own);
    ASSERT_EQ(0, sendTest(own, kPing, 0xFFFFFFFF, own));
    union itc_msg* msg = itc_receive(ITC_NOFILTER, 0, ITC_FROM_ALL);
    ASSERT_NE(nullptr, msg);
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(msg);
    EXPECT_EQ(8u, itc_size(msg));
    EXPECT_EQ(0xFFFFFFFFu, msg->test.value);
    EXPECT_EQ(std::vector<unsigned char>(248, 0),
              std::vector<unsigned char>(bytes + 8, bytes + 256));
    itc_free(&msg);
}

// A received signal names the sender given to itc_send and the receiving mailbox.
TEST_F(ItcTest, ReceivedSignalCarriesSenderAndReceiver) {
    itc_mbox_id_t own = itc_create_mailbox("addressed", 0);
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), own);
    ASSERT_EQ(0, sendTest(own, kPing, 1, 0x12345678));
    union itc_msg* msg = itc_receive(ITC_NOFILTER, 0, ITC_FROM_ALL);
    ASSERT_NE(nullptr, msg);
    EXPECT_EQ(0x12345678u, itc_sender(msg));
    EXPECT_EQ(own, itc_receiver(msg));
    itc_free(&msg);
}

// A signal of ITC_MAX_MSG_SIZE bytes arrives whole.
TEST_F(ItcTest, MaximumSizeSignalArrivesWhole) {
    itc_mbox_id_t own = itc_create_mailbox("large", 0);
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), own);
    union itc_msg* msg = itc_alloc(ITC_MAX_MSG_SIZE, kPing);
    ASSERT_NE(nullptr, msg);
    unsigned char* bytes = reinterpret_cast<unsigned char*>(msg);
    for (size_t index = 4; index < ITC_MAX_MSG_SIZE; ++index) {
        bytes[index] = static_cast<unsigned char>(index * 7);
    }
    std::vector<unsigned char> sent(bytes, bytes + ITC_MAX_MSG_SIZE);
    ASSERT_EQ(0, itc_send(&msg, own, own));
    union itc_msg* received = itc_receive(ITC_NOFILTER, 0, ITC_FROM_ALL);
    ASSERT_NE(nullptr, received);
    const unsigned char* got = reinterpret_cast<const unsigned char*>(received);
    EXPECT_EQ(static_cast<size_t>(ITC_MAX_MSG_SIZE), itc_size(received));
    EXPECT_EQ(sent, std::vector<unsigned char>(got, got + ITC_MAX_MSG_SIZE));
    itc_free(&received);
}

// A positive filter count takes the first listed number and keeps the others, in
// order, for later receives.
TEST_F(ItcTest, FilterKeepsNonMatchingSignalsInOrder) {
    itc_mbox_id_t own = itc_create_mailbox("filtered", 0);
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), own);
    ASSERT_EQ(0, sendTest(own, kPing, 1, own));
    ASSERT_EQ(0, sendTest(own, kOther, 2, own));
    ASSERT_EQ(0, sendTest(own, kPing, 3, own));
    ASSERT_EQ(0, sendTest(own, kPong, 4, own));
    const uint32_t otherOrPong[] = {2, kPong, kOther};
    const uint32_t onlyPong[] = {1, kPong};
    std::vector<Signal> received;
    received.push_back(receiveTest(otherOrPong, 0, ITC_FROM_ALL));
    received.push_back(receiveTest(onlyPong, 0, ITC_FROM_ALL));
    received.push_back(receiveTest(ITC_NOFILTER, 0, ITC_FROM_ALL));
    received.push_back(receiveTest(ITC_NOFILTER, 0, ITC_FROM_ALL));
    received.push_back(receiveTest(ITC_NOFILTER, 0, ITC_FROM_ALL));
    EXPECT_EQ((std::vector<Signal>{{kOther, 2}, {kPong, 4}, {kPing, 1}, {kPing, 3}, {0, 0}}),
              received);
}

// A negative filter count accepts every number except the listed ones.
TEST_F(ItcTest, NegativeFilterCountAcceptsAllButListedNumbers) {
    itc_mbox_id_t own = itc_create_mailbox("excluding", 0);
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), own);
    ASSERT_EQ(0, sendTest(own, kPing, 1, own));
    ASSERT_EQ(0, sendTest(own, kOther, 2, own));
    const uint32_t allButPing[] = {static_cast<uint32_t>(-1), kPing};
    std::vector<Signal> received;
    received.push_back(receiveTest(allButPing, 0, ITC_FROM_ALL));
    received.push_back(receiveTest(ITC_NOFILTER, 0, ITC_FROM_ALL));
    EXPECT_EQ((std::vector<Signal>{{kOther, 2}, {kPing, 1}}), received);
}

// A filter count of 0 accepts every number.
TEST_F(ItcTest, ZeroFilterCountAcceptsEveryNumber) {
    itc_mbox_id_t own = itc_create_mailbox("open", 0);
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), own);
    ASSERT_EQ(0, sendTest(own, kPing, 1, own));
    const uint32_t none[] = {0};
    EXPECT_EQ(Signal(kPing, 1), receiveTest(none, 0, ITC_FROM_ALL));
}

// Selecting a sender keeps the other senders' signals, in order, for later receives.
TEST_F(ItcTest, SenderSelectionKeepsOtherSendersSignalsInOrder) {
    itc_mbox_id_t own = itc_create_mailbox("selective", 0);
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), own);
    ASSERT_EQ(0, sendTest(own, kPing, 1, 0x1001));
    ASSERT_EQ(0, sendTest(own, kPing, 2, 0x1002));
    ASSERT_EQ(0, sendTest(own, kPing, 3, 0x1001));
    std::vector<Signal> received;
    received.push_back(receiveTest(ITC_NOFILTER, 0, 0x1002));
    received.push_back(receiveTest(ITC_NOFILTER, 0, 0x1002));
    received.push_back(receiveTest(ITC_NOFILTER, 0, ITC_FROM_ALL));
    received.push_back(receiveTest(ITC_NOFILTER, 0, ITC_FROM_ALL));
    EXPECT_EQ((std::vector<Signal>{{kPing, 2}, {0, 0}, {kPing, 1}, {kPing, 3}}), received);
}

// Datagrams that are not well-formed ITC signals for this mailbox are dropped and the
// good signal behind them is received.
TEST_F(ItcTest, MalformedDatagramsAreDroppedAndGoodSignalFollows) {
    itc_mbox_id_t own = itc_create_mailbox("guarded", 0);
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), own);
    int raw = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(raw, 0);
    struct sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path(socketName(own)).c_str());
    struct {
        itc_wire_header_t header;
        uint32_t payload[2];
    } datagram = {{ITC_WIRE_MAGIC, ITC_WIRE_VERSION, 0x77, own, 8}, {kPing, 9}};
    auto sendRaw = [&](size_t size) {
        return sendto(raw, &datagram, size, 0, reinterpret_cast<const sockaddr*>(&address),
                      sizeof address);
    };
    const size_t whole = sizeof datagram;
    std::vector<ssize_t> sent;
    sent.push_back(sendRaw(2));          // shorter than a header
    sent.push_back(sendRaw(whole - 1));  // length field says 8, 7 follow
    datagram.header.magic = 0x0BADF00D;
    sent.push_back(sendRaw(whole));  // wrong magic
    datagram.header.magic = ITC_WIRE_MAGIC;
    datagram.header.version = 2;
    sent.push_back(sendRaw(whole));  // unknown version
    datagram.header.version = ITC_WIRE_VERSION;
    datagram.header.receiver = own + 1;
    sent.push_back(sendRaw(whole));  // meant for another mailbox
    datagram.header.receiver = own;
    datagram.header.length = 2;
    sent.push_back(sendRaw(sizeof datagram.header + 2));  // signal shorter than its number
    close(raw);
    EXPECT_EQ((std::vector<ssize_t>{2, 27, 28, 28, 28, 22}), sent);
    ASSERT_EQ(0, sendTest(own, kPong, 10, own));
    EXPECT_EQ(Signal(kPong, 10), receiveTest(ITC_NOFILTER, 0, ITC_FROM_ALL));
    EXPECT_EQ(Signal(0, 0), receiveTest(ITC_NOFILTER, 0, ITC_FROM_ALL));
}

// itc_alloc refuses a size below the 4 bytes of the signal number with EINVAL.
TEST_F(ItcTest, AllocRejectsSizeBelowFour) {
    union itc_msg* msg = itc_alloc(3, kPing);
    int error = errno;
    EXPECT_EQ(nullptr, msg);
    EXPECT_EQ(EINVAL, error);
}

// itc_alloc refuses a size above ITC_MAX_MSG_SIZE with EINVAL.
TEST_F(ItcTest, AllocRejectsSizeAboveMaximum) {
    union itc_msg* msg = itc_alloc(ITC_MAX_MSG_SIZE + 1, kPing);
    int error = errno;
    EXPECT_EQ(nullptr, msg);
    EXPECT_EQ(EINVAL, error);
}

// itc_alloc writes the number into the first word and zeros into the rest.
TEST_F(ItcTest, AllocSetsNumberAndZeroFills) {
    union itc_msg* msg = itc_alloc(64, kPing);
    ASSERT_NE(nullptr, msg);
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(msg);
    EXPECT_EQ(kPing, msg->msgno);
    EXPECT_EQ(64u, itc_size(msg));
    EXPECT_EQ(static_cast<itc_mbox_id_t>(ITC_NO_ID), itc_sender(msg));
    EXPECT_EQ(std::vector<unsigned char>(60, 0), std::vector<unsigned char>(bytes + 4, bytes + 64));
    itc_free(&msg);
}

// itc_free frees the signal and clears the caller's pointer.
TEST_F(ItcTest, FreeClearsPointer) {
    union itc_msg* msg = itc_alloc(8, kPing);
    ASSERT_NE(nullptr, msg);
    itc_free(&msg);
    EXPECT_EQ(nullptr, msg);
}

// itc_free accepts a NULL address and a NULL signal.
TEST_F(ItcTest, FreeIgnoresNull) {
    union itc_msg* msg = nullptr;
    itc_free(nullptr);
    itc_free(&msg);
    EXPECT_EQ(nullptr, msg);
}

// itc_send of a NULL signal fails with EINVAL.
TEST_F(ItcTest, SendNullSignalFailsWithEinval) {
    itc_mbox_id_t own = itc_create_mailbox("null_target", 0);
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), own);
    union itc_msg* msg = nullptr;
    int nullSignal = itc_send(&msg, own, own);
    int nullSignalError = errno;
    int nullAddress = itc_send(nullptr, own, own);
    int nullAddressError = errno;
    EXPECT_EQ((std::vector<int>{-1, EINVAL, -1, EINVAL}),
              (std::vector<int>{nullSignal, nullSignalError, nullAddress, nullAddressError}));
}

// An oversized signal cannot be made, so its send fails with EINVAL.
TEST_F(ItcTest, SendOfOversizedSignalFailsWithEinval) {
    itc_mbox_id_t own = itc_create_mailbox("big_target", 0);
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), own);
    union itc_msg* msg = itc_alloc(ITC_MAX_MSG_SIZE + 1, kPing);
    int result = itc_send(&msg, own, own);
    int error = errno;
    EXPECT_EQ(-1, result);
    EXPECT_EQ(EINVAL, error);
    EXPECT_FALSE(isReadable(itc_get_fd()));
}

// A send to ITC_NO_ID fails with EINVAL and still frees the signal.
TEST_F(ItcTest, SendToNoIdFailsWithEinvalAndFreesSignal) {
    union itc_msg* msg = itc_alloc(8, kPing);
    ASSERT_NE(nullptr, msg);
    int result = itc_send(&msg, ITC_NO_ID, ITC_NO_ID);
    int error = errno;
    EXPECT_EQ(-1, result);
    EXPECT_EQ(EINVAL, error);
    EXPECT_EQ(nullptr, msg);
}

// A send to an id without a socket fails with ENOENT and frees the signal.
TEST_F(ItcTest, SendToMissingMailboxFailsWithEnoent) {
    itc_mbox_id_t own = itc_create_mailbox("lonely", 0);
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), own);
    union itc_msg* msg = itc_alloc(8, kPing);
    ASSERT_NE(nullptr, msg);
    int result = itc_send(&msg, own ^ 0x5A5A5A5A, own);
    int error = errno;
    EXPECT_EQ(-1, result);
    EXPECT_EQ(ENOENT, error);
    EXPECT_EQ(nullptr, msg);
}

// A send to the mailbox of a killed process returns at once with ECONNREFUSED and
// frees the signal.
TEST_F(ItcTest, SendToDeadMailboxFailsWithEconnrefusedAndFreesSignal) {
    ItcChild child;
    ASSERT_TRUE(child.start([](ItcChild& self) {
        itc_init(1, 0, nullptr, nullptr, 0);
        self.report(itc_create_mailbox("doomed", 0));
        self.awaitRelease();
    }));
    int64_t dead = 0;
    ASSERT_TRUE(child.next(&dead));
    ASSERT_NE(ITC_NO_ID, dead);
    child.kill(SIGKILL);
    ASSERT_TRUE(WIFSIGNALED(child.finish()));
    union itc_msg* msg = itc_alloc(8, kPing);
    ASSERT_NE(nullptr, msg);
    int result = itc_send(&msg, static_cast<itc_mbox_id_t>(dead), ITC_NO_ID);
    int error = errno;
    EXPECT_EQ(-1, result);
    EXPECT_EQ(ECONNREFUSED, error);
    EXPECT_EQ(nullptr, msg);
}

// A send to a mailbox whose queue is full fails at once with EAGAIN instead of blocking.
TEST_F(ItcTest, SendToFullMailboxFailsWithEagain) {
    itc_mbox_id_t own = itc_create_mailbox("full", 0);
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), own);
    int result = 0;
    int error = 0;
    for (uint32_t value = 0; value < 100000 && result == 0; ++value) {
        result = sendTest(own, kPing, value, own);
        error = errno;
    }
    EXPECT_EQ(-1, result);
    EXPECT_EQ(EAGAIN, error);
}

// A process without a mailbox, even without itc_init, can send.
TEST_F(ItcTest, ProcessWithoutMailboxCanSend) {
    itc_mbox_id_t own = itc_create_mailbox("reachable", 0);
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), own);
    ItcChild child;
    ASSERT_TRUE(child.start([own](ItcChild& self) {
        self.report(itc_current_mbox());
        self.report(sendTest(own, kPing, 6, ITC_NO_ID));
    }));
    EXPECT_EQ((Values{ITC_NO_ID, 0}), take(child, 2));
    EXPECT_EQ(0, child.finish());
    EXPECT_EQ(Signal(kPing, 6), receiveTest(ITC_NOFILTER, 10000, ITC_FROM_ALL));
}

// The name of a killed process's mailbox is not found any more.
TEST_F(ItcTest, LocateIgnoresEntryOfKilledProcess) {
    ItcChild child;
    ASSERT_TRUE(child.start([](ItcChild& self) {
        itc_init(1, 0, nullptr, nullptr, 0);
        self.report(itc_create_mailbox("svc", 0));
        self.awaitRelease();
    }));
    int64_t dead = 0;
    ASSERT_TRUE(child.next(&dead));
    ASSERT_EQ(static_cast<itc_mbox_id_t>(dead), itc_locate("svc"));
    child.kill(SIGKILL);
    ASSERT_TRUE(WIFSIGNALED(child.finish()));
    itc_mbox_id_t found = itc_locate("svc");
    int error = errno;
    EXPECT_EQ(static_cast<itc_mbox_id_t>(ITC_NO_ID), found);
    EXPECT_EQ(ENOENT, error);
}

// A new mailbox takes over the name of a killed process's mailbox, whose socket file
// is removed.
TEST_F(ItcTest, CreateReplacesEntryOfKilledProcess) {
    ItcChild child;
    ASSERT_TRUE(child.start([](ItcChild& self) {
        itc_init(1, 0, nullptr, nullptr, 0);
        self.report(itc_create_mailbox("svc", 0));
        self.awaitRelease();
    }));
    int64_t dead = 0;
    ASSERT_TRUE(child.next(&dead));
    ASSERT_NE(ITC_NO_ID, dead);
    child.kill(SIGKILL);
    ASSERT_TRUE(WIFSIGNALED(child.finish()));
    itc_mbox_id_t replacement = itc_create_mailbox("svc", 0);
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), replacement);
    EXPECT_EQ(replacement, itc_locate("svc"));
    EXPECT_EQ(-1, access(path(socketName(static_cast<itc_mbox_id_t>(dead))).c_str(), F_OK));
}

// Deleting a mailbox removes its socket and its name entry and leaves the thread
// without a mailbox.
TEST_F(ItcTest, DeleteMailboxRemovesSocketAndNameEntry) {
    itc_mbox_id_t own = itc_create_mailbox("gone", 0);
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), own);
    struct stat entry;
    EXPECT_EQ(0, itc_delete_mailbox(own));
    EXPECT_EQ(-1, access(path(socketName(own)).c_str(), F_OK));
    EXPECT_EQ(-1, lstat(path("name.gone").c_str(), &entry));
    EXPECT_EQ(static_cast<itc_mbox_id_t>(ITC_NO_ID), itc_current_mbox());
    EXPECT_EQ(-1, itc_get_fd());
}

// Deleting a mailbox the process does not hold fails with ENOENT.
TEST_F(ItcTest, DeleteUnknownMailboxFailsWithEnoent) {
    int result = itc_delete_mailbox(0x0000BEEF);
    int error = errno;
    EXPECT_EQ(-1, result);
    EXPECT_EQ(ENOENT, error);
}

// A forked child starts without the parent's ITC state, creates its own mailbox after
// itc_init and reaches the parent, whose mailbox stays intact.
TEST_F(ItcTest, ForkedChildDropsInheritedStateAndCreatesOwnMailbox) {
    itc_mbox_id_t parent = itc_create_mailbox("parent", 0);
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), parent);
    ItcChild child;
    ASSERT_TRUE(child.start([parent](ItcChild& self) {
        self.report(itc_current_mbox());
        self.report(itc_get_fd());
        itc_mbox_id_t early = itc_create_mailbox("child", 0);
        int error = errno;
        self.report(early);
        self.report(error);
        self.report(itc_init(1, 0, nullptr, nullptr, 0));
        itc_mbox_id_t own = itc_create_mailbox("child", 0);
        self.report(own != ITC_NO_ID);
        self.report(sendTest(parent, kPing, 3, own));
    }));
    EXPECT_EQ((Values{ITC_NO_ID, -1, ITC_NO_ID, EPERM, 0, 1, 0}), take(child, 7));
    EXPECT_EQ(0, child.finish());
    EXPECT_EQ(Signal(kPing, 3), receiveTest(ITC_NOFILTER, 10000, ITC_FROM_ALL));
    EXPECT_EQ(parent, itc_locate("parent"));
}

// A process running as nobody cannot send to a mailbox in root's run directory (EACCES).
TEST_F(ItcTest, UnprivilegedProcessCannotSendToRootMailbox) {
    REQUIRE_ROOT();
    itc_mbox_id_t own = itc_create_mailbox("root_svc", 0);
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), own);
    ItcChild child;
    ASSERT_TRUE(child.start([own](ItcChild& self) {
        if (!becomeNobody()) {
            self.report(kFailed);
            return;
        }
        union itc_msg* msg = itc_alloc(sizeof(TestSignal), kPing);
        int result = itc_send(&msg, own, ITC_NO_ID);
        int error = errno;
        self.report(result);
        self.report(error);
        self.report(msg == nullptr);
    }));
    EXPECT_EQ((Values{-1, EACCES, 1}), take(child, 3));
    EXPECT_EQ(0, child.finish());
    EXPECT_FALSE(isReadable(itc_get_fd()));
}

// A process running as nobody cannot create a mailbox in root's run directory (EACCES).
TEST_F(ItcTest, UnprivilegedProcessCannotCreateMailboxInRootRunDirectory) {
    REQUIRE_ROOT();
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), itc_create_mailbox("root_svc", 0));
    ItcChild child;
    ASSERT_TRUE(child.start([](ItcChild& self) {
        if (!becomeNobody()) {
            self.report(kFailed);
            return;
        }
        self.report(itc_init(1, 0, nullptr, nullptr, 0));
        itc_mbox_id_t id = itc_create_mailbox("intruder", 0);
        int error = errno;
        self.report(id);
        self.report(error);
    }));
    EXPECT_EQ((Values{0, ITC_NO_ID, EACCES}), take(child, 3));
    EXPECT_EQ(0, child.finish());
    EXPECT_EQ(-1, access(path("name.intruder").c_str(), F_OK));
}

// A process running as nobody cannot look up a mailbox in root's run directory (EACCES).
TEST_F(ItcTest, UnprivilegedProcessCannotLocateRootMailbox) {
    REQUIRE_ROOT();
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), itc_create_mailbox("root_svc", 0));
    ItcChild child;
    ASSERT_TRUE(child.start([](ItcChild& self) {
        if (!becomeNobody()) {
            self.report(kFailed);
            return;
        }
        itc_mbox_id_t id = itc_locate("root_svc");
        int error = errno;
        self.report(id);
        self.report(error);
    }));
    EXPECT_EQ((Values{ITC_NO_ID, EACCES}), take(child, 2));
    EXPECT_EQ(0, child.finish());
}

// A member of the run directory's group (set-group-id directory) reaches root's
// mailbox: the way an operator grants access.
TEST_F(ItcTest, RunDirectoryGroupMemberCanSendToRootMailbox) {
    REQUIRE_ROOT();
    ASSERT_EQ(0, mkdir(rundir_.c_str(), 0700));
    ASSERT_EQ(0, chown(rundir_.c_str(), 0, kNobody));
    ASSERT_EQ(0, chmod(rundir_.c_str(), 02770));
    itc_mbox_id_t own = itc_create_mailbox("group_svc", 0);
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), own);
    ItcChild child;
    ASSERT_TRUE(child.start([](ItcChild& self) {
        if (!becomeNobody()) {
            self.report(kFailed);
            return;
        }
        itc_mbox_id_t target = itc_locate("group_svc");
        self.report(target);
        self.report(sendTest(target, kPing, 7, ITC_NO_ID));
    }));
    EXPECT_EQ((Values{own, 0}), take(child, 2));
    EXPECT_EQ(0, child.finish());
    EXPECT_EQ(Signal(kPing, 7), receiveTest(ITC_NOFILTER, 10000, ITC_FROM_ALL));
}

class ItcNetnsTest : public ItcTest {
  protected:
    void SetUp() override {
        ItcTest::SetUp();
        if (HasFatalFailure()) {
            return;
        }
        if (geteuid() != 0) {
            GTEST_SKIP() << "network namespaces need root";
        }
        netns_ = "itc_test_" + std::to_string(getpid());
        ASSERT_EQ(0, runIp("add"));
        created_ = true;
    }

    void TearDown() override {
        if (created_) {
            EXPECT_EQ(0, runIp("delete"));
        }
        ItcTest::TearDown();
    }

    int runIp(const std::string& verb) const {
        const std::string command = "ip netns " + verb + " " + netns_ + " >/dev/null 2>&1";
        return std::system(command.c_str());
    }

    std::string netns_;
    bool created_ = false;
};

// A manager in the test's network namespace and a receiver that joined another one
// exchange a request and its reply, the reply going to the request's sender.
TEST_F(ItcNetnsTest, ManagerAndReceiverInOtherNetworkNamespaceExchangeSignals) {
    itc_mbox_id_t manager = itc_create_mailbox("manager", 0);
    ASSERT_NE(static_cast<itc_mbox_id_t>(ITC_NO_ID), manager);
    const std::string nsPath = "/var/run/netns/" + netns_;
    struct stat ownNs;
    struct stat otherNs;
    ASSERT_EQ(0, stat("/proc/self/ns/net", &ownNs));
    ASSERT_EQ(0, stat(nsPath.c_str(), &otherNs));
    ASSERT_NE(ownNs.st_ino, otherNs.st_ino);
    ItcChild child;
    ASSERT_TRUE(child.start([&nsPath](ItcChild& self) {
        int fd = open(nsPath.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat joined;
        if (fd < 0 || setns(fd, CLONE_NEWNET) != 0 || stat("/proc/self/ns/net", &joined) != 0) {
            self.report(kFailed);
            return;
        }
        close(fd);
        self.report(static_cast<int64_t>(joined.st_ino));
        itc_init(1, 0, nullptr, nullptr, 0);
        itc_mbox_id_t own = itc_create_mailbox("receiver", 0);
        self.report(own);
        union itc_msg* request = itc_receive(ITC_NOFILTER, 10000, ITC_FROM_ALL);
        if (request == nullptr) {
            self.report(kFailed);
            return;
        }
        self.report(itc_sender(request));
        union itc_msg* reply = itc_alloc(sizeof(TestSignal), kPong);
        reply->test.value = request->test.value + 1;
        self.report(itc_send(&reply, itc_sender(request), own));
        itc_free(&request);
    }));
    int64_t joined = 0;
    int64_t receiver = 0;
    ASSERT_TRUE(child.next(&joined));
    ASSERT_TRUE(child.next(&receiver));
    EXPECT_EQ(static_cast<int64_t>(otherNs.st_ino), joined);
    ASSERT_EQ(static_cast<itc_mbox_id_t>(receiver), itc_locate("receiver"));
    ASSERT_EQ(0, sendTest(static_cast<itc_mbox_id_t>(receiver), kPing, 41, manager));
    union itc_msg* reply = itc_receive(ITC_NOFILTER, 10000, static_cast<itc_mbox_id_t>(receiver));
    ASSERT_NE(nullptr, reply);
    EXPECT_EQ(Signal(kPong, 42), Signal(reply->test.msgno, reply->test.value));
    EXPECT_EQ(static_cast<itc_mbox_id_t>(receiver), itc_sender(reply));
    itc_free(&reply);
    EXPECT_EQ((Values{manager, 0}), take(child, 2));
    EXPECT_EQ(0, child.finish());
}

}  // namespace
