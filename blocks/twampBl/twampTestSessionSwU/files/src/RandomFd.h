// The open /dev/urandom, the source of the test packets' random padding.
#ifndef TWAMP_RANDOM_FD_H
#define TWAMP_RANDOM_FD_H

class RandomFd {
  public:
    // Opens path read-only; a failure is not reported here but leaves the
    // descriptor at -1, which the reader of random bytes traces.
    explicit RandomFd(const char* path = "/dev/urandom");
    RandomFd(const RandomFd&) = delete;
    RandomFd& operator=(const RandomFd&) = delete;
    // Closes the descriptor unless it is -1.
    virtual ~RandomFd();

    // The descriptor, or -1 when the open failed.
    virtual int getFd() const;

  private:
    int fd = -1;
};

#endif  // TWAMP_RANDOM_FD_H
