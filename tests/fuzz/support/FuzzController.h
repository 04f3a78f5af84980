// The root object of the fuzz targets, in place of the daemon's controller:
// the same parts and the same registry, but the sessions run on the fuzz
// clock and system calls, the socket on scripted kernel queues and the loop
// on a poller that watches nothing. One instance serves a whole fuzzing run;
// it adopts itself as the process-wide instance.
#ifndef TWAMP_FUZZ_CONTROLLER_H
#define TWAMP_FUZZ_CONTROLLER_H

#include <map>
#include <memory>

#include "FinalisationPacer.h"
#include "FuzzClock.h"
#include "FuzzSessionFactory.h"
#include "FuzzSessionSystemCalls.h"
#include "FuzzSocketSystemCalls.h"
#include "IoMultiplexer.h"
#include "ItcDispatcher.h"
#include "RandomFd.h"
#include "SessionKey.h"
#include "SocketHelper.h"
#include "TwampTestSession.h"
#include "TwampTestSessionControllerInterface.h"
#include "UdpSocket.h"

class FuzzController : public TwampTestSessionControllerInterface {
  public:
    // The one instance, built on first use with the percentile library running.
    static FuzzController& instance();

    FuzzController();
    FuzzController(const FuzzController&) = delete;
    FuzzController& operator=(const FuzzController&) = delete;
    ~FuzzController() override;

    // TwampTestSessionControllerInterface
    IoMultiplexer& getIoMultiplexer() override;
    ItcDispatcher* getItcDispatcher() override;
    UdpSocket& getUdpSocket() override;
    RandomFd& getRandomFd() override;
    SocketHelper& getSocketHelper() override;
    FinalisationPacer& getFinalisationPacer() override;
    void addTwampTestSession(const SessionKey& key, TwampTestSession* session) override;
    void deleteTwampTestSession(const SessionKey& key) override;
    TwampTestSession* getTwampTestSession(const SessionKey& key) override;

    // The clock of every session.
    FuzzClock& getClock();
    // The system calls of every session.
    FuzzSessionSystemCalls& getSessionSystemCalls();
    // The system calls of the socket.
    FuzzSocketSystemCalls& getSocketSystemCalls();
    // A session on the fuzz clock and system calls, not registered.
    std::unique_ptr<TwampTestSession> makeSession(const char* dstIpAddress, const char* dstUdpPort,
                                                  uint32_t packetsPerSecond, int32_t packetSize);
    // Fires the packet timer of every registered session once.
    void fireTimers();
    // Destroys every registered session, for the next input.
    void deleteAllSessions();

    // Every input starts from the same state: clock at kStartSeconds, no
    // sessions, empty kernel queues, no signals and no log records.
    void startInput();
    // Destroys what the input created and frees what it left in ITC.
    void finishInput();
    // Which of the two bound sockets (AF_INET or AF_INET6) getUdpSocket
    // hands out; chosen before any session of an input exists.
    void selectFamily(int family);
    // Creates and registers under kReflectorKey a session towards the
    // reflector of the family (kReflectorAddress4 or kReflectorAddress6, port
    // kReflectorPort), started at kStartSeconds, that has sent kSentPackets
    // packets: sequence number n at kFirstSendSeconds + n whole seconds.
    TwampTestSession& startReflectorSession(int family);

    // 2023-11-14 22:07:13: the sessions are armed in minute 7 of an hour.
    static constexpr time_t kStartSeconds = 1699999633;
    // 2023-11-14 22:08:00: the first packet goes in minute 8.
    static constexpr time_t kFirstSendSeconds = 1699999680;
    static constexpr uint32_t kSentPackets = 8;
    static constexpr const char* kReflectorAddress4 = "192.0.2.7";
    static constexpr const char* kReflectorAddress6 = "2001:db8::7";
    static constexpr const char* kReflectorPort = "862";
    static constexpr uint8_t kReflectorKeyByte = 0x5E;

  private:
    FuzzClock clock;
    FuzzSessionSystemCalls sessionSystemCalls;
    FuzzSocketSystemCalls socketSystemCalls;
    FuzzSessionFactory factory{clock, sessionSystemCalls};
    // Declared in this order so that the sessions go first, then the
    // dispatcher, then the socket and the multiplexer.
    IoMultiplexer ioMultiplexer;
    std::unique_ptr<ItcDispatcher> itcDispatcher;
    UdpSocket udpSocket4{&socketSystemCalls, clock};
    UdpSocket udpSocket6{&socketSystemCalls, clock};
    UdpSocket* udpSocket = &udpSocket4;
    RandomFd randomFd{"/dev/null"};
    SocketHelper socketHelper;
    FinalisationPacer finalisationPacer;
    std::map<SessionKey, std::unique_ptr<TwampTestSession>> sessions;
};

#endif  // TWAMP_FUZZ_CONTROLLER_H
