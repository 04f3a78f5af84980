#include "TwampTestSessionController.h"

#include <utility>

#include "ItcDispatcher.h"
#include "TwampTestSession.h"

namespace {

// The process-wide controller; a plain global, the process has one thread.
TwampTestSessionControllerInterface* controllerInstance = nullptr;

}  // namespace

TwampTestSessionControllerInterface* TwampTestSessionController::getInstance(
    TwampTestSessionControllerInterface* instance, TwampTestSessionFactory* factory) {
    if (controllerInstance != nullptr) {
        return controllerInstance;
    }
    if (instance != nullptr) {
        controllerInstance = instance;
        return controllerInstance;
    }
    controllerInstance = new TwampTestSessionController(factory);
    return controllerInstance;
}

#ifdef TWAMP_UNIT_TEST
void TwampTestSessionController::resetInstanceForTest() {
    controllerInstance = nullptr;
}
#endif

TwampTestSessionController::TwampTestSessionController(TwampTestSessionFactory* factory) {
    itcDispatcher.reset(new ItcDispatcher(factory));
}

TwampTestSessionController::~TwampTestSessionController() {
    for (auto& entry : sessions) {
        entry.second.reset();
    }
    itcDispatcher.reset();
}

IoMultiplexer& TwampTestSessionController::getIoMultiplexer() {
    return ioMultiplexer;
}

ItcDispatcher* TwampTestSessionController::getItcDispatcher() {
    return itcDispatcher.get();
}

UdpSocket& TwampTestSessionController::getUdpSocket() {
    return udpSocket;
}

RandomFd& TwampTestSessionController::getRandomFd() {
    return randomFd;
}

SocketHelper& TwampTestSessionController::getSocketHelper() {
    return socketHelper;
}

FinalisationPacer& TwampTestSessionController::getFinalisationPacer() {
    return finalisationPacer;
}

void TwampTestSessionController::addTwampTestSession(const SessionKey& key,
                                                     TwampTestSession* session) {
    // The first session of a key stays; a later one keeps running unregistered.
    if (sessions.count(key) != 0) {
        return;
    }
    sessions.emplace(key, std::unique_ptr<TwampTestSession>(session));
}

void TwampTestSessionController::deleteTwampTestSession(const SessionKey& key) {
    auto entry = sessions.find(key);
    if (entry == sessions.end()) {
        return;
    }
    entry->second.reset();
    sessions.erase(entry);
}

TwampTestSession* TwampTestSessionController::getTwampTestSession(const SessionKey& key) {
    auto entry = sessions.find(key);
    if (entry == sessions.end()) {
        return nullptr;
    }
    return entry->second.get();
}
