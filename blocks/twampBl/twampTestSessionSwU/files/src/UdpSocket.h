// The daemon's one UDP socket, shared by all test sessions.
//
// It binds to the source address and port of the command line (30 blocking
// rounds at start-up, then one round every 10 seconds driven by a timer),
// configures kernel timestamping and the receive options, and routes what
// arrives: reflected packets to the receiver registered for their source
// address, transmit timestamps from the error queue to the receiver
// registered for the destination of the looped-back frame (among several
// receivers of one address, to the one whose packet it is). Each readiness
// drains both queues in batches, up to a bound per queue.
#ifndef TWAMP_UDP_SOCKET_H
#define TWAMP_UDP_SOCKET_H

#include <netdb.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <set>
#include <vector>

#include "Clock.h"
#include "IoHandler.h"
#include "MessageReceiver.h"
#include "ReceiveBatch.h"
#include "ReceiverKey.h"
#include "ReceiverRegistry.h"
#include "SystemCalls.h"
#include "SystemClock.h"

class IoMultiplexer;

class UdpSocket : public IoHandler {
  public:
    static constexpr std::size_t kReceiveBufferSize = 10000;
    static constexpr std::size_t kControlBufferSize = 256;
    // Messages read by one recvmmsg call.
    static constexpr unsigned int kBatchSize = 64;
    // Messages of each queue read in one readiness event at most.
    static constexpr unsigned int kMaxMessagesPerReadiness = 256;
    static constexpr int kStartUpBindAttempts = 30;
    static constexpr time_t kBindRetrySeconds = 10;

    // systemCalls: null for the real system calls; otherwise not owned and
    // must outlive the socket, like clock, which times the bind retries.
    explicit UdpSocket(SystemCalls* systemCalls = nullptr, Clock& clock = SystemClock::instance());
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;
    ~UdpSocket() override;

    // IoHandler
    // The bound socket and the bind timer, whichever exist.
    std::set<int> getReadFds() const override;
    // Bind timer: one bind round. Socket: rounds of error-queue messages, then
    // packets, in batches, while they keep coming, up to a bound per queue.
    bool handleInput(int fd) override;

    // The bound socket, -1 when not bound.
    virtual int getSocketFd() const;
    // Stores the source address, port and tunnel flag and binds (30 rounds).
    virtual bool init(const char* srcIpAddress, const char* srcUdpPort, bool isIpsecTunnel);
    // Non-blocking mode, timestamping, receive options; registers for reading.
    virtual bool socketConfiguration();
    // One bind round, on expiry of the bind timer.
    virtual bool retryBind();
    // Routes packets of key to receiver too, behind the receivers already there.
    virtual void addMessageReceiver(const ReceiverKey& key, MessageReceiver* receiver);
    // Stops routing packets of key to receiver; the other receivers of key stay.
    virtual void removeMessageReceiver(const ReceiverKey& key, MessageReceiver* receiver);
    // One recvmmsg (flags | MSG_DONTWAIT) of at most limit messages (at most
    // kBatchSize) into the batch; how many came, -1 on failure.
    virtual int receiveMessage(int flags, unsigned int limit);
    // Resolution hints: passive, datagram, any family.
    virtual void getHints(struct addrinfo* hints) const;
    // Family of the bound socket (first resolved address), 0 before.
    virtual int getFamily() const;
    // The source address text given to init.
    virtual const char* getSrcIpAddress() const;
    // The source port text given to init.
    virtual const char* getSrcUdpPort() const;
    // The tunnel flag given to init; it changes no behaviour.
    virtual bool isIpsecTunnel() const;
    // The IP_TOS value last set on the socket; -1 before any and after a failed set.
    virtual int getAppliedTos() const;
    // Records the IP_TOS value just set on the socket, -1 when the set failed.
    virtual void setAppliedTos(int tos);

    // Up to attempts rounds over the resolved addresses, one second apart;
    // schedules a retry when all fail.
    bool getBoundSocket(int attempts);
    // Creates the bind timer when needed and arms it 10 s ahead.
    void scheduleNextBindAttempt();
    // Disarms the bind timer.
    void stopBindTimer();
    // Closes the bind timer.
    void closeBindTimer();

    // The bind timer, -1 when none.
    int getBindTimerFd() const;
    // Packets received so far.
    uint64_t getMessageCount() const;
    // Error-queue messages received so far.
    uint64_t getErrQueueMessageCount() const;

  private:
    int bindInRounds(const struct addrinfo* addresses, int attempts, int& failedRounds,
                     int& lastErrno);
    int bindFirstAddress(const struct addrinfo* addresses, int& lastErrno);
    bool makeNonBlocking();
    bool enableTimestamping();
    void enlargeReceiveBuffer();
    void enableDropCounts();
    void noteReceiveQueueDrops(const struct msghdr* msg);
    bool setIpv4Options();
    bool setIpv6Options();
    bool setIntOption(int level, int name, int value);
    void registerWithMultiplexer();
    bool drainBatch(int flags, unsigned int& left);
    void handleErrQueueMessage(struct msghdr* msg, std::size_t length);
    void handleMessage(struct msghdr* msg, std::size_t length);

    SystemCalls* systemCalls;
    Clock& clock;
    ReceiveBatch batch;
    const char* srcIpAddress = nullptr;  // the caller's string, not copied
    const char* srcUdpPort = nullptr;    // the caller's string, not copied
    bool ipsecTunnel = false;
    int socketFd = -1;
    int bindTimerFd = -1;
    std::set<int> readFds;
    int family = 0;
    // Sessions share the socket's one TOS byte; knowing it spares a
    // setsockopt before every packet when the value would not change.
    int appliedTos = -1;
    uint64_t messageCount = 0;
    uint64_t errQueueMessageCount = 0;
    // The kernel's count of datagrams the full receive queue dropped, as the
    // last packet read carried it (SO_RXQ_OVFL).
    uint32_t receiveQueueDrops = 0;
    ReceiverRegistry receivers;
    IoMultiplexer* multiplexer = nullptr;  // where the socket registered, if anywhere
};

#endif  // TWAMP_UDP_SOCKET_H
