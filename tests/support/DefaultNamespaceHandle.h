// The platform's handle of the initial network namespace, /tmp/proc_1_ns_net,
// as the lab creates it for tests: a link to pid 1's namespace, or to the
// opener's own where pid 1's cannot be read (in a container). An existing
// handle is left as it is.
#ifndef TWAMP_TESTS_DEFAULT_NAMESPACE_HANDLE_H
#define TWAMP_TESTS_DEFAULT_NAMESPACE_HANDLE_H

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace twamp_test {

constexpr const char* kDefaultNamespaceHandle = "/tmp/proc_1_ns_net";

// True when the handle exists (created if missing) and can be opened.
inline bool ensureDefaultNamespaceHandle() {
    struct stat existing {};
    if (lstat(kDefaultNamespaceHandle, &existing) != 0) {
        const char* target =
            access("/proc/1/ns/net", R_OK) == 0 ? "/proc/1/ns/net" : "/proc/self/ns/net";
        if (symlink(target, kDefaultNamespaceHandle) != 0 && errno != EEXIST) {
            return false;
        }
    }
    const int probe = open(kDefaultNamespaceHandle, O_RDONLY);
    if (probe < 0) {
        return false;
    }
    close(probe);
    return true;
}

}  // namespace twamp_test

#endif  // TWAMP_TESTS_DEFAULT_NAMESPACE_HANDLE_H
