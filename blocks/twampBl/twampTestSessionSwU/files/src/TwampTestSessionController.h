// The daemon's single root object: the multiplexer, the ITC dispatcher, the
// shared UDP socket, the random source, the socket helper, the finalisation
// pacer and the registry of test sessions by their 16-byte key. Everything
// else reaches these parts through the process-wide instance of getInstance().
#ifndef TWAMP_TEST_SESSION_CONTROLLER_H
#define TWAMP_TEST_SESSION_CONTROLLER_H

#include <map>
#include <memory>

#include "EpollPoller.h"
#include "FinalisationPacer.h"
#include "IoMultiplexer.h"
#include "RandomFd.h"
#include "SessionKey.h"
#include "SocketHelper.h"
#include "TwampTestSessionControllerInterface.h"
#include "UdpSocket.h"

class TwampTestSessionFactory;

class TwampTestSessionController : public TwampTestSessionControllerInterface {
  public:
    // The process-wide instance. An existing one is returned as it is;
    // otherwise a non-null instance is adopted (not owned), else a controller
    // is built whose dispatcher uses factory.
    static TwampTestSessionControllerInterface* getInstance(
        TwampTestSessionControllerInterface* instance = nullptr,
        TwampTestSessionFactory* factory = nullptr);
#ifdef TWAMP_UNIT_TEST
    // Forgets the instance without destroying it.
    static void resetInstanceForTest();
#endif

    // factory is handed to the dispatcher; it must outlive the controller.
    explicit TwampTestSessionController(TwampTestSessionFactory* factory);
    TwampTestSessionController(const TwampTestSessionController&) = delete;
    TwampTestSessionController& operator=(const TwampTestSessionController&) = delete;
    // Destroys the sessions in key order, then the dispatcher, then the rest.
    ~TwampTestSessionController() override;

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

  private:
    // Declared in this order on purpose: the dispatcher is created last but
    // must be gone before the registry, the socket and the multiplexer.
    // The daemon's loop: epoll, every ready descriptor per wake-up.
    IoMultiplexer ioMultiplexer{std::make_unique<EpollPoller>(),
                                IoMultiplexer::ServeRule::EveryReady};
    std::unique_ptr<ItcDispatcher> itcDispatcher;
    UdpSocket udpSocket;
    RandomFd randomFd;
    SocketHelper socketHelper;
    FinalisationPacer finalisationPacer;
    std::map<SessionKey, std::unique_ptr<TwampTestSession>> sessions;
};

#endif  // TWAMP_TEST_SESSION_CONTROLLER_H
