// Sessions at the edge of the daemon's descriptors, through its real parts:
// the controller with its epoll loop, the shared UDP socket on the loopback
// address, the ITC dispatcher with a mailbox in a private run directory, the
// sessions on a clock set just before a minute ends, and a loopback reflector.
//
// The process's low descriptors are taken by copies of /dev/null, so that the
// session's packet timer lands at 1024 or above, where select() could never
// watch it; or the soft limit on open descriptors is reached, so that a
// session cannot get its timer at all and must be refused where the operator
// sees it.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FakeSaLog.h"
#include "IoMultiplexer.h"
#include "ItcDispatcher.h"
#include "LoopDaemon.h"
#include "LoopHeartbeat.h"
#include "LoopbackReflector.h"
#include "PercentileVector.h"
#include "ScenarioSessionFactory.h"
#include "FileDescriptor.h"
#include "SessionKey.h"
#include "ShiftedClock.h"
#include "TimestampSource.h"
#include "TraceRecorder.h"
#include "TwampTestSession.h"
#include "TwampTestSessionController.h"
#include "TwampTestSessionPeer.h"
#include "TwtsiSignals.h"
#include "itc.h"
#include "tn_log_internal.h"

namespace scenario_test {
namespace {

using twamp_test::FakeSaLog;
using twamp_test::TraceRecorder;

constexpr char kServiceName[] = "high_fd_twamp";
constexpr long kHeartbeatMs = 20;
// The first descriptor number select() cannot watch.
constexpr int kSelectLimit = 1024;
// Descriptors the test may hold: room above the select limit.
constexpr rlim_t kWantedLimit = 2048;
// Longest wait for any one step; a session sends its first packet within a second.
constexpr auto kStepLimit = std::chrono::seconds(15);
// The sanitizers' runtime checks an object's type through a pipe it opens for
// the purpose; with every descriptor taken that check fails and reports a
// sound object as broken, so the refusal at the limit runs without them.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif
// Half a second before a minute ends (2023-11-14 22:00:59.5 UTC): a session
// starts sending at the first whole minute after its creation, so the
// sessions' clock is set just before one instead of waiting up to a minute.
constexpr int64_t kJustBeforeMinuteNs = 1699999259LL * kNanosecondsPerSecond + 500000000;

// Raises (or lowers) the soft descriptor limit for the test and restores it afterwards.
class ScopedOpenFileLimit {
  public:
    explicit ScopedOpenFileLimit(rlim_t wanted) {
        getrlimit(RLIMIT_NOFILE, &saved);
        struct rlimit changed = saved;
        if (wanted <= changed.rlim_max) {
            changed.rlim_cur = wanted;
            setrlimit(RLIMIT_NOFILE, &changed);
        }
        struct rlimit now = {};
        getrlimit(RLIMIT_NOFILE, &now);
        available = now.rlim_cur == wanted;
    }
    ~ScopedOpenFileLimit() { setrlimit(RLIMIT_NOFILE, &saved); }
    ScopedOpenFileLimit(const ScopedOpenFileLimit&) = delete;
    ScopedOpenFileLimit& operator=(const ScopedOpenFileLimit&) = delete;

    bool available = false;

  private:
    struct rlimit saved = {};
};

// The daemon's parts on this thread, the reflector on its own.
class HighDescriptorSessionTest : public ::testing::Test {
  protected:
    void SetUp() override {
        TraceRecorder::reset();
        FakeSaLog::reset();
        ASSERT_TRUE(tn_log_init());
        char pattern[] = "/tmp/high_fd_session.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        runDirectory = pattern;
        setenv("ITC_RUNDIR", runDirectory.c_str(), 1);
        // Loopback takes no hardware timestamps; read when the socket is configured.
        setenv(TimestampSource::kEnvironmentVariable, "software", 1);
        ASSERT_TRUE(percentile_init());
        ReflectorSettings settings;
        reflector = std::make_unique<LoopbackReflector>(settings);
        ASSERT_TRUE(reflector->start());
    }

    void TearDown() override {
        reflector.reset();
        heartbeat.reset();
        if (controller != nullptr) {
            // The sessions reach the controller through the instance while they go.
            delete controller;
            TwampTestSessionController::resetInstanceForTest();
        }
        fillers.clear();
        EXPECT_TRUE(percentile_uninit());
        tn_log_uninit();
        FakeSaLog::reset();
        unsetenv(TimestampSource::kEnvironmentVariable);
        TimestampSource::setCurrent(TimestampSource());
        unsetenv("ITC_RUNDIR");
        std::filesystem::remove_all(runDirectory);
    }

    // The daemon as its start-up builds it, with its socket bound to a free
    // loopback port.
    ::testing::AssertionResult startDaemon() {
        clock.jumpTo(kJustBeforeMinuteNs);
        return startLoopDaemon(factory, "127.0.0.1", kServiceName, kHeartbeatMs, controller,
                               heartbeat, daemonMailbox);
    }

    // Takes every free descriptor below upTo, so that the next one opened is
    // upTo; or every one there is, when upTo is the soft limit.
    ::testing::AssertionResult takeDescriptorsBelow(int upTo) {
        const int nullFd = open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (nullFd < 0) {
            return ::testing::AssertionFailure() << "cannot open /dev/null";
        }
        fillers.push_back(std::make_unique<FileDescriptor>(nullFd));
        while (true) {
            const int fd = fcntl(nullFd, F_DUPFD_CLOEXEC, 0);
            if (fd < 0 && errno == EMFILE) {
                return ::testing::AssertionSuccess();
            }
            if (fd < 0) {
                return ::testing::AssertionFailure() << "F_DUPFD failed: " << strerror(errno);
            }
            if (fd >= upTo) {
                close(fd);
                return ::testing::AssertionSuccess();
            }
            fillers.push_back(std::make_unique<FileDescriptor>(fd));
        }
    }

    // Sends a create for the session named label, towards the reflector.
    bool sendCreate(const char* label) {
        union itc_msg* msg = createSignalTowards(*reflector, keyOf(label).bytes, 10, 64, 0);
        if (msg == nullptr) {
            return false;
        }
        // No reply comes for a create: any sender will do.
        return itc_send(&msg, daemonMailbox, ITC_NO_ID) == 0;
    }

    static SessionKey keyOf(const char* label) {
        SessionKey key;
        std::memset(key.bytes, 0, sizeof(key.bytes));
        std::memcpy(key.bytes, label, std::strlen(label));
        return key;
    }

    static std::string hexOf(const char* label) {
        static const char kDigits[] = "0123456789abcdef";
        std::string text;
        for (const uint8_t byte : keyOf(label).bytes) {
            text.push_back(kDigits[byte >> 4]);
            text.push_back(kDigits[byte & 0x0F]);
        }
        return text;
    }

    TwampTestSession* session(const char* label) {
        return controller->getTwampTestSession(keyOf(label));
    }

    // Requests the reflector saw from the session's timer so far.
    std::size_t requestsSeen() const { return reflector->getRequests().size(); }

    // Drives the daemon's event loop until done() holds; false when the
    // step limit passes first or the loop fails.
    bool runUntil(const std::function<bool()>& done) {
        return runLoopUntil(*controller, done, kStepLimit);
    }

    std::string runDirectory;
    ShiftedClock clock;
    ScenarioSessionFactory factory{clock};
    TwampTestSessionControllerInterface* controller = nullptr;
    std::unique_ptr<LoopHeartbeat> heartbeat;
    std::unique_ptr<LoopbackReflector> reflector;
    itc_mbox_id_t daemonMailbox = ITC_NO_ID;
    std::vector<std::unique_ptr<FileDescriptor>> fillers;
};

// A session whose packet timer is numbered 1024 or above is watched by the
// loop and sends its packets.
TEST_F(HighDescriptorSessionTest, TimerAboveSelectLimitIsWatchedAndSends) {
    const ScopedOpenFileLimit limit(kWantedLimit);
    if (!limit.available) {
        GTEST_SKIP() << "the hard descriptor limit is below " << kWantedLimit;
    }
    ASSERT_TRUE(startDaemon());
    ASSERT_TRUE(takeDescriptorsBelow(kSelectLimit + 100));

    ASSERT_TRUE(sendCreate("high"));
    ASSERT_TRUE(runUntil([this] { return session("high") != nullptr; }));
    EXPECT_LE(kSelectLimit + 100, TwampTestSessionPeer::getTimerFd(*session("high")));
    ASSERT_TRUE(runUntil([this] { return requestsSeen() >= 3; }));

    EXPECT_TRUE(TraceRecorder::twampMessages("ERROR").empty());
}

// A session that cannot get its packet timer (the descriptor limit is
// reached) is refused where the operator sees it: an ERROR trace and a
// TnApplicationLog record naming it, and no session; the session running
// already keeps sending.
TEST_F(HighDescriptorSessionTest, SessionWithoutTimerRefusedVisibly) {
    if (kSanitized) {
        GTEST_SKIP() << "the sanitizers need a free descriptor to check object types";
    }
    const ScopedOpenFileLimit limit(kWantedLimit);
    if (!limit.available) {
        GTEST_SKIP() << "the hard descriptor limit is below " << kWantedLimit;
    }
    ASSERT_TRUE(startDaemon());
    ASSERT_TRUE(sendCreate("running"));
    ASSERT_TRUE(runUntil([this] { return session("running") != nullptr; }));
    ASSERT_TRUE(takeDescriptorsBelow(static_cast<int>(kWantedLimit)));

    ASSERT_TRUE(sendCreate("refused"));
    const std::string expected = "handleTwtsiCreateTwampTestSession(): Session " +
                                 hexOf("refused") + " for dstIpAddress 127.0.0.1, dstUdpPort " +
                                 std::to_string(reflector->getPort()) +
                                 " refused: timerfd_create failed: Too many open files";
    ASSERT_TRUE(runUntil([] { return !TraceRecorder::twampMessages("ERROR").empty(); }));
    EXPECT_EQ(nullptr, session("refused"));
    EXPECT_NE(std::vector<std::string>{}, TraceRecorder::twampMessages("ERROR"));
    EXPECT_EQ(expected, TraceRecorder::twampMessages("ERROR").back());
    ASSERT_EQ(1u, FakeSaLog::records().size());
    EXPECT_EQ("TnApplicationLog", FakeSaLog::records()[0].streamName);
    EXPECT_EQ("TwampTestSession: create of sessionId " + hexOf("refused") +
                  " for dstIpAddress 127.0.0.1, dstUdpPort " +
                  std::to_string(reflector->getPort()) +
                  " refused: timerfd_create failed: Too many open files",
              FakeSaLog::records()[0].text);

    const std::size_t seen = requestsSeen();
    ASSERT_TRUE(runUntil([this, seen] { return requestsSeen() >= seen + 3; }));
}

}  // namespace
}  // namespace scenario_test
