// A light reflector for scenario tests: a thread with its own UDP socket on
// the loopback address that answers each test packet in the reflector layout,
// built on the project's packet views.
//
// Each request is held for a while before its Receive Timestamp T2 is taken,
// so every round trip lasts at least that long; T3 is taken just before the
// reply leaves. The reflector's own sequence number advances with every reply,
// so a request it drops is forward loss. It writes down every request it saw:
// sender sequence number, the sender's minute, TTL and TOS on arrival, and
// whether it was answered.
#ifndef TWAMP_TESTS_LOOPBACK_REFLECTOR_H
#define TWAMP_TESTS_LOOPBACK_REFLECTOR_H

#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "FileDescriptor.h"

namespace scenario_test {

// What the reflector saw of one request and what it did with it.
struct ReflectedRequest {
    uint32_t senderSeqNo = 0;
    uint64_t senderTimestamp = 0;  // T1 as sent, NTP
    uint32_t minute = 0;           // CLOCK_REALTIME minute number of T1
    int receivedTtl = -1;          // TTL or hop limit on arrival, -1 when not reported
    int receivedTos = -1;          // TOS or traffic class on arrival, -1 when not reported
    bool answered = false;
};

struct ReflectorSettings {
    int family = AF_INET;  // AF_INET binds 127.0.0.1, AF_INET6 binds ::1
    int replyTtl = 64;     // TTL or hop limit of the replies
    int replyTos = 0;      // TOS or traffic class of the replies
    std::chrono::microseconds hold{2000};
    // Requests for which it returns true are dropped unanswered; called on
    // the reflector's thread with the sender's sequence number and T1.
    std::function<bool(uint32_t senderSeqNo, uint64_t senderTimestamp)> drop;
};

class LoopbackReflector {
  public:
    explicit LoopbackReflector(ReflectorSettings settings);
    LoopbackReflector(const LoopbackReflector&) = delete;
    LoopbackReflector& operator=(const LoopbackReflector&) = delete;
    // Stops the thread.
    ~LoopbackReflector();

    // Binds a free port, configures the socket and starts answering; false
    // when the socket could not be set up.
    bool start();
    // Stops answering and joins the thread.
    void stop();
    // The bound port, host order.
    uint16_t getPort() const;
    // The loopback address as text.
    std::string getAddressText() const;
    // Every request seen so far, in arrival order.
    std::vector<ReflectedRequest> getRequests() const;
    // Sends the last reply once more, as a reply arriving after its session
    // is gone would; false when there was none or the send failed.
    bool resendLastReply();

  private:
    bool openSocket();
    bool configureSocket();
    void run();
    void serveOne();
    void readArrivalFields(const struct msghdr& message, ReflectedRequest& request) const;
    void reflect(std::vector<uint8_t>& packet, const ReflectedRequest& request,
                 const struct sockaddr_storage& peer, socklen_t peerLength);
    void record(const ReflectedRequest& request);

    ReflectorSettings settings;
    FileDescriptor socket;
    uint16_t port = 0;
    std::atomic<bool> running{false};
    std::thread thread;
    uint32_t sequenceNumber = 0;  // the reflector thread's own
    mutable std::mutex mutex;     // guards the members below
    std::vector<ReflectedRequest> requests;
    std::vector<uint8_t> lastReply;
    struct sockaddr_storage lastPeer {};
    socklen_t lastPeerLength = 0;
};

}  // namespace scenario_test

#endif  // TWAMP_TESTS_LOOPBACK_REFLECTOR_H
