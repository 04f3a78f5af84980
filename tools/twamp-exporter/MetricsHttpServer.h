// The exporter's HTTP side (libmicrohttpd, no thread of its own): GET
// /metrics answers with what the page source returns, / with a pointer to
// it, anything else with 404. The loop runs in the caller's thread, so the
// page source may use the thread's ITC mailbox.
#ifndef TWAMP_EXPORTER_METRICS_HTTP_SERVER_H
#define TWAMP_EXPORTER_METRICS_HTTP_SERVER_H

#include <csignal>
#include <cstdint>
#include <functional>
#include <string>

struct MHD_Daemon;

class MetricsHttpServer {
  public:
    // pageSource builds the /metrics text at every scrape.
    explicit MetricsHttpServer(std::function<std::string()> pageSource);
    MetricsHttpServer(const MetricsHttpServer&) = delete;
    MetricsHttpServer& operator=(const MetricsHttpServer&) = delete;
    // Stops listening.
    ~MetricsHttpServer();

    // Listens on address (IPv4 or IPv6 text) and port; false with a message.
    bool start(const std::string& address, uint16_t port, std::string& error);
    // Serves until stop becomes non-zero (set by a signal handler); false
    // with a message when waiting for connections fails.
    bool run(const volatile std::sig_atomic_t& stop, std::string& error);

    // Builds the answer to one request: status, content type and body.
    static int answer(const std::string& method, const std::string& url,
                      const std::function<std::string()>& pageSource, std::string& contentType,
                      std::string& body);

  private:
    bool serveOnce(std::string& error);

    std::function<std::string()> pageSource;
    MHD_Daemon* daemon = nullptr;
};

#endif  // TWAMP_EXPORTER_METRICS_HTTP_SERVER_H
