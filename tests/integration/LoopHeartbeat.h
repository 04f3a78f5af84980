// A periodic timer in the daemon's event loop. The multiplexer waits without
// a time-out, so without it a test driving the loop could block for good
// while nothing else is due (before the first packet, after a delete).
#ifndef TWAMP_TESTS_LOOP_HEARTBEAT_H
#define TWAMP_TESTS_LOOP_HEARTBEAT_H

#include <set>

#include "IoHandler.h"
#include "IoMultiplexer.h"
#include "FileDescriptor.h"

namespace scenario_test {

class LoopHeartbeat : public IoHandler {
  public:
    // Arms a monotonic timer of periodMs (below 1000) and watches it in
    // multiplexer, which must outlive the heartbeat.
    LoopHeartbeat(IoMultiplexer& multiplexer, long periodMs);
    LoopHeartbeat(const LoopHeartbeat&) = delete;
    LoopHeartbeat& operator=(const LoopHeartbeat&) = delete;
    ~LoopHeartbeat() override;

    // Whether the timer was created, armed and registered.
    bool isRunning() const;

    // IoHandler
    std::set<int> getReadFds() const override;
    // Consumes the expiries.
    bool handleInput(int fd) override;

  private:
    IoMultiplexer& multiplexer;
    FileDescriptor timer;
    bool running = false;
};

}  // namespace scenario_test

#endif  // TWAMP_TESTS_LOOP_HEARTBEAT_H
