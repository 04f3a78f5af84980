// A descriptor closed with its owner.
#ifndef TWAMP_TESTS_SCOPED_FD_H
#define TWAMP_TESTS_SCOPED_FD_H

#include <unistd.h>

namespace twamp_test {

class ScopedFd {
  public:
    explicit ScopedFd(int fd = -1) : fd(fd) {}
    ScopedFd(const ScopedFd&) = delete;
    ScopedFd& operator=(const ScopedFd&) = delete;
    ~ScopedFd() { reset(); }

    // The descriptor, -1 when none.
    int get() const { return fd; }
    // Closes the descriptor held so far and takes newFd.
    void reset(int newFd = -1) {
        if (fd != -1) {
            ::close(fd);
        }
        fd = newFd;
    }

  private:
    int fd;
};

}  // namespace twamp_test

#endif  // TWAMP_TESTS_SCOPED_FD_H
