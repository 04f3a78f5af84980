// The open /dev/urandom, the source of the test packets' random padding.
//
// Every packet sent varies its padding with one fresh random byte. Reading
// the device once per packet would cost a system call per packet, so the
// bytes are read ahead in blocks shared by all sessions.
#ifndef TWAMP_RANDOM_FD_H
#define TWAMP_RANDOM_FD_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>

class RandomFd {
  public:
    // Reads up to count bytes of the descriptor into buffer, with the result of ::read.
    using ReadFunction = std::function<ssize_t(int fd, void* buffer, std::size_t count)>;
    static constexpr std::size_t kBlockSize = 256;

    // Opens path read-only; a failure is not reported here but leaves the
    // descriptor at -1, which the reader of random bytes traces.
    explicit RandomFd(const char* path = "/dev/urandom");
    RandomFd(const RandomFd&) = delete;
    RandomFd& operator=(const RandomFd&) = delete;
    // Closes the descriptor unless it is -1.
    virtual ~RandomFd();

    // The descriptor, or -1 when the open failed.
    virtual int getFd() const;
    // Hands out the next random byte, reading a new block with read when the
    // last one is used up: 1 when byte was set, otherwise the failed read's
    // result (-1 with errno, or 0 at end of file).
    virtual ssize_t takeByte(uint8_t& byte, const ReadFunction& read);

  private:
    int fd = -1;
    uint8_t block[kBlockSize] = {};
    std::size_t blockLength = 0;  // bytes read into the block
    std::size_t blockUsed = 0;    // bytes handed out of it
};

#endif  // TWAMP_RANDOM_FD_H
