// Command line of twamp-ctl, the manager's tool for the TWAMP test session
// daemon: parsed into one request, with a clear message for every mistake.
#ifndef TWAMP_CTL_OPTIONS_H
#define TWAMP_CTL_OPTIONS_H

#include <cstdint>
#include <string>
#include <vector>

enum class CtlCommand { Create, Delete, Counters, List, Plot, Help };
enum class CtlOutput { Table, Json, Csv };

struct CtlOptions {
    std::string service;
    double timeoutSeconds = 5.0;
    bool timeoutGiven = false;
    CtlCommand command = CtlCommand::Help;
    uint8_t sessionId[16] = {};
    bool sessionIdGiven = false;
    // create
    std::string dstIpAddress;
    uint16_t dstUdpPort = 0;
    bool dstGiven = false;
    bool portGiven = false;
    uint32_t packetsPerSecond = 1;
    uint32_t dscp = 0;
    int32_t packetSize = 64;
    uint32_t startOffset = 0;
    uint32_t spreadingBase = 0;
    uint32_t spare1 = 0;
    uint32_t spare2 = 0;
    // counters
    bool completedIntervalOnly = false;
    bool wait = false;
    CtlOutput output = CtlOutput::Table;
    // --version before the command: print the name and version, nothing else.
    bool version = false;
    // plot
    std::string plotOut;
    std::string fromCsv;
};

// Parses argv (without the program name); on failure returns false with a
// message in error. defaultService is used when --service is absent.
bool parseCtlOptions(const std::vector<std::string>& arguments, const std::string& defaultService,
                     CtlOptions& options, std::string& error);

// A session id: 32 hex digits, or a text label of at most 16 bytes padded with
// zero bytes. False with a message for anything else.
bool parseSessionId(const std::string& text, uint8_t (&sessionId)[16], std::string& error);

// The 32 lower-case hex digits of a session id.
std::string sessionIdHex(const uint8_t (&sessionId)[16]);

// The usage text.
std::string ctlUsage();

#endif  // TWAMP_CTL_OPTIONS_H
