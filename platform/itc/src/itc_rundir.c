/* The run directory: one socket per mailbox ("mbox.<8 hex id>") and one name entry per
 * mailbox ("name.<name>", a symbolic link to the socket's file name). Entries left by
 * dead processes are recognised by probing the socket and are never trusted. */
#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "itc_internal.h"

#define ITC_RUNDIR_MODE 0770

static bool itc_format(char* out, size_t capacity, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

static bool itc_format(char* out, size_t capacity, const char* format, ...) {
    va_list args;
    va_start(args, format);
    int written = vsnprintf(out, capacity, format, args);
    va_end(args);
    if (written < 0 || (size_t)written >= capacity) {
        errno = ENAMETOOLONG;
        return false;
    }
    return true;
}

bool itc_rundir_get(char* out, size_t capacity) {
    const char* rundir = getenv("ITC_RUNDIR");
    if (rundir == NULL || rundir[0] == '\0') {
        rundir = ITC_DEFAULT_RUNDIR;
    }
    return itc_format(out, capacity, "%s", rundir);
}

/* chmod after mkdir: the umask must not narrow the group's rights. A set-group-id bit
 * inherited from the parent directory is kept. */
static bool itc_rundir_create(const char* rundir) {
    if (mkdir(rundir, ITC_RUNDIR_MODE) != 0) {
        return errno == EEXIST;
    }
    struct stat status;
    if (stat(rundir, &status) != 0) {
        return false;
    }
    return chmod(rundir, ITC_RUNDIR_MODE | (status.st_mode & S_ISGID)) == 0;
}

/* Creations and name changes of all processes are serialised by a lock on the
 * directory itself, released by the kernel when a holder dies. */
int itc_rundir_lock(const char* rundir) {
    if (!itc_rundir_create(rundir)) {
        return -1;
    }
    int fd = open(rundir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    while (flock(fd, LOCK_EX) != 0) {
        if (errno != EINTR) {
            int saved = errno;
            close(fd);
            errno = saved;
            return -1;
        }
    }
    return fd;
}

void itc_rundir_unlock(int lock_fd) {
    int saved = errno;
    close(lock_fd);
    errno = saved;
}

int itc_name_check(const char* name) {
    if (name == NULL || name[0] == '\0' || strchr(name, '/') != NULL) {
        return EINVAL;
    }
    if (strlen(name) > ITC_NAME_MAX_LENGTH) {
        return ENAMETOOLONG;
    }
    return 0;
}

bool itc_socket_name(itc_mbox_id_t id, char* out, size_t capacity) {
    return itc_format(out, capacity, "mbox.%08x", (unsigned)id);
}

bool itc_socket_address(const char* rundir, itc_mbox_id_t id, struct sockaddr_un* address) {
    memset(address, 0, sizeof *address);
    address->sun_family = AF_UNIX;
    return itc_format(address->sun_path, sizeof address->sun_path, "%s/mbox.%08x", rundir,
                      (unsigned)id);
}

bool itc_entry_path(const char* rundir, const char* name, char* out, size_t capacity) {
    return itc_format(out, capacity, "%s/name.%s", rundir, name);
}

/* Only "mbox." and exactly 8 lower-case hex digits naming a valid id are accepted: an
 * entry pointing anywhere else is not ours. */
static bool itc_socket_name_parse(const char* text, itc_mbox_id_t* id) {
    static const char prefix[] = "mbox.";
    if (strlen(text) != ITC_SOCKET_NAME_LENGTH || strncmp(text, prefix, sizeof prefix - 1) != 0) {
        return false;
    }
    for (const char* digit = text + sizeof prefix - 1; *digit != '\0'; ++digit) {
        if (!isxdigit((unsigned char)*digit) || isupper((unsigned char)*digit)) {
            return false;
        }
    }
    *id = (itc_mbox_id_t)strtoul(text + sizeof prefix - 1, NULL, 16);
    return *id != ITC_NO_ID && *id != ITC_FROM_ALL;
}

/* A socket file that nobody holds refuses connections: its owner is gone. Connecting
 * needs write permission on the socket, so only owner and group can query. */
itc_entry_t itc_socket_probe(const struct sockaddr_un* address) {
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return ITC_ENTRY_ERROR;
    }
    int result = connect(fd, (const struct sockaddr*)address, sizeof *address);
    int saved = errno;
    close(fd);
    errno = saved;
    if (result == 0) {
        return ITC_ENTRY_LIVE;
    }
    return saved == ECONNREFUSED || saved == ENOENT ? ITC_ENTRY_STALE : ITC_ENTRY_ERROR;
}

itc_entry_t itc_entry_resolve(const char* rundir, const char* name, itc_mbox_id_t* id) {
    char path[PATH_MAX];
    char target[ITC_SOCKET_NAME_LENGTH + 2];
    *id = ITC_NO_ID;
    if (!itc_entry_path(rundir, name, path, sizeof path)) {
        return ITC_ENTRY_ERROR;
    }
    ssize_t length = readlink(path, target, sizeof target - 1);
    if (length < 0) {
        return errno == ENOENT ? ITC_ENTRY_MISSING : ITC_ENTRY_ERROR;
    }
    target[length] = '\0';
    struct sockaddr_un address;
    if (!itc_socket_name_parse(target, id)) {
        *id = ITC_NO_ID;
        return ITC_ENTRY_STALE;
    }
    if (!itc_socket_address(rundir, *id, &address)) {
        return ITC_ENTRY_ERROR;
    }
    return itc_socket_probe(&address);
}

/* Caller holds the run directory lock. The entry appears whole or not at all: the link
 * is made under a temporary name and renamed over any stale entry. */
bool itc_entry_publish(const char* rundir, const char* name, itc_mbox_id_t id) {
    char target[ITC_SOCKET_NAME_LENGTH + 1];
    char temporary[PATH_MAX];
    char entry[PATH_MAX];
    if (!itc_socket_name(id, target, sizeof target) ||
        !itc_format(temporary, sizeof temporary, "%s/tmp.%08x", rundir, (unsigned)id) ||
        !itc_entry_path(rundir, name, entry, sizeof entry)) {
        return false;
    }
    (void)unlink(temporary);
    if (symlink(target, temporary) != 0) {
        return false;
    }
    if (rename(temporary, entry) != 0) {
        int saved = errno;
        (void)unlink(temporary);
        errno = saved;
        return false;
    }
    return true;
}

ITC_API itc_mbox_id_t itc_locate(const char* name) {
    int error = itc_name_check(name);
    if (error != 0) {
        errno = error;
        return ITC_NO_ID;
    }
    char rundir[PATH_MAX];
    if (!itc_rundir_get(rundir, sizeof rundir)) {
        return ITC_NO_ID;
    }
    itc_mbox_id_t id = ITC_NO_ID;
    switch (itc_entry_resolve(rundir, name, &id)) {
        case ITC_ENTRY_LIVE:
            return id;
        case ITC_ENTRY_MISSING:
        case ITC_ENTRY_STALE:
            errno = ENOENT;
            return ITC_NO_ID;
        default:
            return ITC_NO_ID;
    }
}
