// The system calls that read and set the process's resource limits. The base
// class calls the real ones; tests override them to see what start-up asks
// for and to make either call fail.
#ifndef TWAMP_RESOURCE_LIMIT_SYSTEM_CALLS_H
#define TWAMP_RESOURCE_LIMIT_SYSTEM_CALLS_H

#include <sys/resource.h>

class ResourceLimitSystemCalls {
  public:
    virtual ~ResourceLimitSystemCalls();

    // ::getrlimit(RLIMIT_NOFILE)
    virtual int getOpenFileLimit(struct rlimit* limit);
    // ::setrlimit(RLIMIT_NOFILE)
    virtual int setOpenFileLimit(const struct rlimit* limit);

    // The process's instance calling the real system calls.
    static ResourceLimitSystemCalls& real();
};

#endif  // TWAMP_RESOURCE_LIMIT_SYSTEM_CALLS_H
