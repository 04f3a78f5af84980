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

ssize_t RandomFd::takeByte(uint8_t& byte, const ReadFunction& read) {
    if (blockUsed == blockLength) {
        const ssize_t count = read(fd, block, sizeof(block));
        if (count <= 0) {
            return count;
        }
        // A short read still gives usable bytes.
        blockLength = static_cast<std::size_t>(count);
        blockUsed = 0;
    }
    byte = block[blockUsed++];
    return 1;
}
