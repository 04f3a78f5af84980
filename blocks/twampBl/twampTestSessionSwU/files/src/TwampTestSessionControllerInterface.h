// The daemon's root object as the rest of the program sees it: the shared
// multiplexer, dispatcher, socket, random source, socket helper and
// finalisation pacer, and the registry of test sessions by their 16-byte key.
#ifndef TWAMP_TEST_SESSION_CONTROLLER_INTERFACE_H
#define TWAMP_TEST_SESSION_CONTROLLER_INTERFACE_H

#include "SessionKey.h"

class FinalisationPacer;
class IoMultiplexer;
class ItcDispatcher;
class UdpSocket;
class RandomFd;
class SocketHelper;
class TwampTestSession;

class TwampTestSessionControllerInterface {
  public:
    virtual ~TwampTestSessionControllerInterface() = default;

    // The event loop's multiplexer.
    virtual IoMultiplexer& getIoMultiplexer() = 0;
    // The ITC dispatcher (owned by the controller).
    virtual ItcDispatcher* getItcDispatcher() = 0;
    // The one UDP socket shared by all sessions.
    virtual UdpSocket& getUdpSocket() = 0;
    // The open /dev/urandom.
    virtual RandomFd& getRandomFd() = 0;
    // Reader and writer of ancillary data.
    virtual SocketHelper& getSocketHelper() = 0;
    // Keeps the sessions' minute finalisations apart.
    virtual FinalisationPacer& getFinalisationPacer() = 0;
    // Registers session under key unless the key is taken (the first one stays).
    virtual void addTwampTestSession(const SessionKey& key, TwampTestSession* session) = 0;
    // Destroys and unregisters the session of key; nothing when absent.
    virtual void deleteTwampTestSession(const SessionKey& key) = 0;
    // The session registered under key, or null.
    virtual TwampTestSession* getTwampTestSession(const SessionKey& key) = 0;
};

#endif  // TWAMP_TEST_SESSION_CONTROLLER_INTERFACE_H
