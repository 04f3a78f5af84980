// Captures the daemon's test packets where they arrive, on the reflector's
// side of the veth pair: a packet socket on that interface sees every IPv4
// UDP datagram to the reflectors' ports, whoever answers it. Only the
// sender fields are read (sequence number and T1); nothing is answered.
#ifndef TWAMP_BENCH_T1_CAPTURE_H
#define TWAMP_BENCH_T1_CAPTURE_H

#include <csignal>
#include <cstdint>
#include <string>

#include "LatenessReport.h"
#include "FileDescriptor.h"

class T1Capture {
  public:
    // Packets to ports basePort .. basePort + ports - 1; session i uses basePort + i.
    T1Capture(uint16_t basePort, uint32_t ports) : basePort(basePort), ports(ports) {}

    // Opens the packet socket on the interface; false with error set.
    bool open(const std::string& interface, std::string& error);
    // Books every captured packet into report until stop becomes non-zero.
    void run(const volatile std::sig_atomic_t& stop, LatenessReport& report);
    // Packets booked so far.
    uint64_t captured() const { return capturedCount; }
    // Packets the kernel dropped because the socket's buffer was full.
    uint64_t kernelDrops() const;

  private:
    // The test packet in an IPv4 datagram, or false when it is none of ours.
    bool parse(const uint8_t* datagram, std::size_t length, CapturedRequest& request) const;

    uint16_t basePort;
    uint32_t ports;
    FileDescriptor socket;
    uint64_t capturedCount = 0;
};

#endif  // TWAMP_BENCH_T1_CAPTURE_H
