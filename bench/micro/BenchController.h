// The process-wide controller of the benchmarks: the real multiplexer (never
// run), an unbound IPv4 socket, the real random source, socket helper and
// finalisation pacer, no dispatcher and no registry. Sessions reach it through
// TwampTestSessionController::getInstance() exactly as in the daemon.
#ifndef TWAMP_BENCH_BENCH_CONTROLLER_H
#define TWAMP_BENCH_BENCH_CONTROLLER_H

#include "BenchUdpSocket.h"
#include "FinalisationPacer.h"
#include "IoMultiplexer.h"
#include "RandomFd.h"
#include "SocketHelper.h"
#include "TwampTestSessionControllerInterface.h"

class BenchController : public TwampTestSessionControllerInterface {
  public:
    // Makes the one instance the process-wide controller; call before any
    // session exists. It lives until the process ends, after every session.
    static void adopt();

    // TwampTestSessionControllerInterface
    IoMultiplexer& getIoMultiplexer() override { return multiplexer; }
    ItcDispatcher* getItcDispatcher() override { return nullptr; }
    UdpSocket& getUdpSocket() override { return udpSocket; }
    RandomFd& getRandomFd() override { return randomFd; }
    SocketHelper& getSocketHelper() override { return socketHelper; }
    FinalisationPacer& getFinalisationPacer() override { return finalisationPacer; }
    void addTwampTestSession(const SessionKey& /*key*/, TwampTestSession* /*session*/) override {}
    void deleteTwampTestSession(const SessionKey& /*key*/) override {}
    TwampTestSession* getTwampTestSession(const SessionKey& /*key*/) override { return nullptr; }

  private:
    BenchController() = default;

    IoMultiplexer multiplexer;
    BenchUdpSocket udpSocket;
    RandomFd randomFd;
    SocketHelper socketHelper;
    FinalisationPacer finalisationPacer;
};

#endif  // TWAMP_BENCH_BENCH_CONTROLLER_H
