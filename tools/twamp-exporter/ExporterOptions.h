// Command line of twamp-exporter, parsed with a clear message for every mistake.
#ifndef TWAMP_EXPORTER_OPTIONS_H
#define TWAMP_EXPORTER_OPTIONS_H

#include <cstdint>
#include <string>
#include <vector>

struct ExporterOptions {
    std::string listenAddress = "127.0.0.1";
    uint16_t port = 9862;
    std::string service;
    double timeoutSeconds = 2.0;
    bool help = false;
    bool version = false;
};

// Parses argv (without the program name); on failure false with a message.
// defaultService is used when --service is absent.
bool parseExporterOptions(const std::vector<std::string>& arguments,
                          const std::string& defaultService, ExporterOptions& options,
                          std::string& error);

// The usage text.
std::string exporterUsage();

#endif  // TWAMP_EXPORTER_OPTIONS_H
