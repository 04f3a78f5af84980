#include "RandomFd.h"

#include <fcntl.h>
#include <unistd.h>

RandomFd::RandomFd(const char* path) {
    fd = open(path, O_RDONLY);
}

RandomFd::~RandomFd() {
    if (fd != -1) {
        close(fd);
    }
}

int RandomFd::getFd() const {
    return fd;
}
