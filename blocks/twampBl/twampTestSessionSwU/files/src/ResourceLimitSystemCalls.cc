#include "ResourceLimitSystemCalls.h"

ResourceLimitSystemCalls::~ResourceLimitSystemCalls() = default;

int ResourceLimitSystemCalls::getOpenFileLimit(struct rlimit* limit) {
    return ::getrlimit(RLIMIT_NOFILE, limit);
}

int ResourceLimitSystemCalls::setOpenFileLimit(const struct rlimit* limit) {
    return ::setrlimit(RLIMIT_NOFILE, limit);
}

ResourceLimitSystemCalls& ResourceLimitSystemCalls::real() {
    static ResourceLimitSystemCalls systemCalls;
    return systemCalls;
}
