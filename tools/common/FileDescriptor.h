// Owns one file descriptor and closes it: the one descriptor wrapper of the
// tools, the benchmarks and the tests. (The daemon keeps its descriptors in
// the classes that own them.)
#ifndef TWAMP_FILE_DESCRIPTOR_H
#define TWAMP_FILE_DESCRIPTOR_H

#include <unistd.h>

class FileDescriptor {
  public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() { reset(); }

    FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        if (this != &other) {
            reset(other.fd_);
            other.fd_ = -1;
        }
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    // The descriptor, -1 when none.
    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    // Closes the descriptor held so far and takes fd.
    void reset(int fd = -1) {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

#endif  // TWAMP_FILE_DESCRIPTOR_H
