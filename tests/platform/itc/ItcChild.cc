#include "ItcChild.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace itc_test {

namespace {

void closeFd(int* fd) {
    if (*fd >= 0) {
        close(*fd);
        *fd = -1;
    }
}

}  // namespace

ItcChild::~ItcChild() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    closeAll();
}

void ItcChild::closeAll() {
    closeFd(&reportRead_);
    closeFd(&reportWrite_);
    closeFd(&releaseRead_);
    closeFd(&releaseWrite_);
}

bool ItcChild::start(const std::function<void(ItcChild&)>& body) {
    int report[2];
    int release[2];
    if (pipe2(report, O_CLOEXEC) != 0) {
        return false;
    }
    if (pipe2(release, O_CLOEXEC) != 0) {
        close(report[0]);
        close(report[1]);
        return false;
    }
    reportRead_ = report[0];
    reportWrite_ = report[1];
    releaseRead_ = release[0];
    releaseWrite_ = release[1];
    pid_ = fork();
    if (pid_ < 0) {
        closeAll();
        return false;
    }
    if (pid_ == 0) {
        closeFd(&reportRead_);
        closeFd(&releaseWrite_);
        body(*this);
        _exit(0);
    }
    closeFd(&reportWrite_);
    closeFd(&releaseRead_);
    return true;
}

void ItcChild::report(int64_t value) {
    ssize_t written;
    do {
        written = write(reportWrite_, &value, sizeof value);
    } while (written < 0 && errno == EINTR);
}

void ItcChild::awaitRelease() {
    char byte;
    ssize_t got;
    do {
        got = read(releaseRead_, &byte, sizeof byte);
    } while (got < 0 && errno == EINTR);
}

// Reads what the child wrote within timeoutMs: kData, kEnded once the child closed its
// end (it ended), kTimedOut.
ItcChild::ReadResult ItcChild::readPending(int timeoutMs) {
    struct pollfd readable = {reportRead_, POLLIN, 0};
    int ready = poll(&readable, 1, timeoutMs);
    if (ready == 0) {
        return ReadResult::kTimedOut;
    }
    unsigned char buffer[256];
    ssize_t got = ready < 0 ? -1 : read(reportRead_, buffer, sizeof buffer);
    if (got <= 0) {
        return ReadResult::kEnded;
    }
    partial_.insert(partial_.end(), buffer, buffer + got);
    while (partial_.size() >= sizeof(int64_t)) {
        unsigned char bytes[sizeof(int64_t)];
        for (unsigned char& byte : bytes) {
            byte = partial_.front();
            partial_.pop_front();
        }
        int64_t value;
        std::memcpy(&value, bytes, sizeof value);
        values_.push_back(value);
    }
    return ReadResult::kData;
}

bool ItcChild::next(int64_t* value, int timeoutMs) {
    while (values_.empty()) {
        if (reportRead_ < 0 || readPending(timeoutMs) != ReadResult::kData) {
            return false;
        }
    }
    *value = values_.front();
    values_.pop_front();
    return true;
}

void ItcChild::release() {
    char byte = 1;
    ssize_t written;
    do {
        written = write(releaseWrite_, &byte, sizeof byte);
    } while (written < 0 && errno == EINTR);
}

void ItcChild::kill(int signal) {
    if (pid_ > 0) {
        ::kill(pid_, signal);
    }
}

int ItcChild::finish(int timeoutMs) {
    ReadResult result = ReadResult::kEnded;
    do {
        result = reportRead_ >= 0 ? readPending(timeoutMs) : ReadResult::kEnded;
    } while (result == ReadResult::kData);
    int status = -1;
    if (pid_ > 0) {
        if (result == ReadResult::kTimedOut) {
            ::kill(pid_, SIGKILL);
        }
        waitpid(pid_, &status, 0);
        pid_ = -1;
    }
    closeAll();
    return status;
}

}  // namespace itc_test
