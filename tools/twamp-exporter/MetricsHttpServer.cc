#include "MetricsHttpServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <microhttpd.h>

#include <cerrno>
#include <cstring>

namespace {

constexpr const char* kExpositionType = "text/plain; version=0.0.4; charset=utf-8";
constexpr int kHttpOk = 200;
constexpr int kHttpNotFound = 404;
constexpr int kHttpMethodNotAllowed = 405;
// Longest wait of one select, so that a stop request is seen soon.
constexpr long kLongestWaitMs = 500;

MHD_Result handleRequest(void* context, MHD_Connection* connection, const char* url,
                         const char* method, const char* /*version*/, const char* /*uploadData*/,
                         size_t* /*uploadDataSize*/, void** /*connectionContext*/) {
    const auto& pageSource = *static_cast<const std::function<std::string()>*>(context);
    std::string contentType;
    std::string body;
    const int status = MetricsHttpServer::answer(method, url, pageSource, contentType, body);
    MHD_Response* response =
        MHD_create_response_from_buffer(body.size(), &body[0], MHD_RESPMEM_MUST_COPY);
    if (response == nullptr) {
        return MHD_NO;
    }
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, contentType.c_str());
    const MHD_Result queued =
        MHD_queue_response(connection, static_cast<unsigned int>(status), response);
    MHD_destroy_response(response);
    return queued;
}

}  // namespace

MetricsHttpServer::MetricsHttpServer(std::function<std::string()> pageSource)
    : pageSource(std::move(pageSource)) {}

MetricsHttpServer::~MetricsHttpServer() {
    if (daemon != nullptr) {
        MHD_stop_daemon(daemon);
    }
}

int MetricsHttpServer::answer(const std::string& method, const std::string& url,
                              const std::function<std::string()>& pageSource,
                              std::string& contentType, std::string& body) {
    contentType = "text/plain; charset=utf-8";
    if (method != "GET" && method != "HEAD") {
        body = "only GET\n";
        return kHttpMethodNotAllowed;
    }
    if (url == "/metrics") {
        contentType = kExpositionType;
        body = pageSource();
        return kHttpOk;
    }
    if (url == "/") {
        body = "twamp-exporter: the metrics are at /metrics\n";
        return kHttpOk;
    }
    body = "not found: " + url + "\n";
    return kHttpNotFound;
}

bool MetricsHttpServer::start(const std::string& address, uint16_t port, std::string& error) {
    struct sockaddr_in ipv4 {};
    struct sockaddr_in6 ipv6 {};
    const struct sockaddr* bound = nullptr;
    unsigned int flags = MHD_USE_ERROR_LOG;
    if (inet_pton(AF_INET, address.c_str(), &ipv4.sin_addr) == 1) {
        ipv4.sin_family = AF_INET;
        ipv4.sin_port = htons(port);
        bound = reinterpret_cast<const struct sockaddr*>(&ipv4);
    } else if (inet_pton(AF_INET6, address.c_str(), &ipv6.sin6_addr) == 1) {
        ipv6.sin6_family = AF_INET6;
        ipv6.sin6_port = htons(port);
        bound = reinterpret_cast<const struct sockaddr*>(&ipv6);
        flags |= MHD_USE_IPv6;
    } else {
        error = "'" + address + "' is not an IPv4 or IPv6 address";
        return false;
    }
    daemon = MHD_start_daemon(flags, port, nullptr, nullptr, &handleRequest, &pageSource,
                              MHD_OPTION_SOCK_ADDR, bound, MHD_OPTION_END);
    if (daemon == nullptr) {
        error = "cannot listen on " + address + " port " + std::to_string(port) + ": " +
                std::strerror(errno);
        return false;
    }
    return true;
}

bool MetricsHttpServer::run(const volatile std::sig_atomic_t& stop, std::string& error) {
    while (stop == 0) {
        if (!serveOnce(error)) {
            return false;
        }
    }
    return true;
}

bool MetricsHttpServer::serveOnce(std::string& error) {
    fd_set readSet;
    fd_set writeSet;
    fd_set exceptSet;
    FD_ZERO(&readSet);
    FD_ZERO(&writeSet);
    FD_ZERO(&exceptSet);
    MHD_socket highest = 0;
    if (MHD_get_fdset(daemon, &readSet, &writeSet, &exceptSet, &highest) != MHD_YES) {
        error = "MHD_get_fdset failed";
        return false;
    }
    MHD_UNSIGNED_LONG_LONG timeoutMs = kLongestWaitMs;
    if (MHD_get_timeout(daemon, &timeoutMs) != MHD_YES || timeoutMs > kLongestWaitMs) {
        timeoutMs = kLongestWaitMs;
    }
    struct timeval timeout {};
    timeout.tv_sec = static_cast<time_t>(timeoutMs / 1000);
    timeout.tv_usec = static_cast<suseconds_t>((timeoutMs % 1000) * 1000);
    if (select(highest + 1, &readSet, &writeSet, &exceptSet, &timeout) < 0 && errno != EINTR) {
        error = std::string("select failed: ") + std::strerror(errno);
        return false;
    }
    MHD_run_from_select(daemon, &readSet, &writeSet, &exceptSet);
    return true;
}
