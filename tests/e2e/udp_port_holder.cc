// Holds a UDP port for a test: udp_port_holder ADDRESS PORT SECONDS binds the
// address and port, prints "bound", and keeps them until killed or SECONDS
// have passed.
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char* argv[]) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: udp_port_holder ADDRESS PORT SECONDS\n");
        return 2;
    }
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_flags = AI_PASSIVE;
    addrinfo* result = nullptr;
    const int resolved = getaddrinfo(argv[1], argv[2], &hints, &result);
    if (resolved != 0) {
        std::fprintf(stderr, "udp_port_holder: %s\n", gai_strerror(resolved));
        return 1;
    }
    const int fd = socket(result->ai_family, result->ai_socktype, result->ai_protocol);
    if (fd < 0 || bind(fd, result->ai_addr, result->ai_addrlen) != 0) {
        std::perror("udp_port_holder: bind");
        freeaddrinfo(result);
        return 1;
    }
    freeaddrinfo(result);
    std::printf("bound\n");
    std::fflush(stdout);
    sleep(static_cast<unsigned>(std::strtoul(argv[3], nullptr, 10)));
    close(fd);
    return 0;
}
