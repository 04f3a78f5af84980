/* Mailboxes: creation (socket, descriptors, name entry), deletion and teardown. */
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "itc_internal.h"

#define ITC_SOCKET_MODE 0660
/* Random 32-bit ids rarely collide; a few attempts cover stale sockets in the way. */
#define ITC_BIND_ATTEMPTS 16

static void itc_close_fd(int* fd) {
    if (*fd >= 0) {
        close(*fd);
        *fd = -1;
    }
}

void itc_mailbox_close(itc_mailbox_t* mailbox) {
    if (mailbox == NULL) {
        return;
    }
    int saved = errno;
    itc_close_fd(&mailbox->epoll_fd);
    itc_close_fd(&mailbox->event_fd);
    itc_close_fd(&mailbox->socket_fd);
    while (mailbox->kept_head != NULL) {
        itc_msg_head_t* next = mailbox->kept_head->next;
        itc_msg_release(mailbox->kept_head);
        mailbox->kept_head = next;
    }
    free(mailbox->rx_buffer);
    free(mailbox);
    errno = saved;
}

static bool itc_watch(int epoll_fd, int fd) {
    struct epoll_event event;
    memset(&event, 0, sizeof event);
    event.events = EPOLLIN;
    event.data.fd = fd;
    return epoll_ctl(epoll_fd, EPOLL_CTL_ADD, fd, &event) == 0;
}

/* The epoll descriptor is readable while the socket or the kept-signal eventfd is. */
static itc_mailbox_t* itc_mailbox_new(void) {
    itc_mailbox_t* mailbox = calloc(1, sizeof *mailbox);
    if (mailbox == NULL) {
        errno = ENOMEM;
        return NULL;
    }
    mailbox->socket_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    mailbox->event_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    mailbox->epoll_fd = epoll_create1(EPOLL_CLOEXEC);
    if (mailbox->socket_fd < 0 || mailbox->event_fd < 0 || mailbox->epoll_fd < 0 ||
        !itc_watch(mailbox->epoll_fd, mailbox->socket_fd) ||
        !itc_watch(mailbox->epoll_fd, mailbox->event_fd)) {
        itc_mailbox_close(mailbox);
        return NULL;
    }
    return mailbox;
}

static bool itc_random_id(itc_mbox_id_t* id) {
    do {
        ssize_t got = getrandom(id, sizeof *id, 0);
        if (got < 0 && errno != EINTR) {
            return false;
        }
        if (got != (ssize_t)sizeof *id) {
            *id = ITC_NO_ID;
        }
    } while (*id == ITC_NO_ID || *id == ITC_FROM_ALL);
    return true;
}

/* Caller holds the run directory lock. A socket file in the way whose owner is gone
 * is removed; the next attempt draws a new id. */
static bool itc_mailbox_bind(itc_mailbox_t* mailbox, const char* rundir) {
    for (int attempt = 0; attempt < ITC_BIND_ATTEMPTS; ++attempt) {
        itc_mbox_id_t id;
        struct sockaddr_un address;
        if (!itc_random_id(&id) || !itc_socket_address(rundir, id, &address)) {
            return false;
        }
        if (bind(mailbox->socket_fd, (const struct sockaddr*)&address, sizeof address) == 0) {
            mailbox->id = id;
            memcpy(mailbox->socket_path, address.sun_path, sizeof mailbox->socket_path);
            return itc_socket_name(id, mailbox->socket_name, sizeof mailbox->socket_name);
        }
        if (errno != EADDRINUSE) {
            return false;
        }
        if (itc_socket_probe(&address) == ITC_ENTRY_STALE) {
            (void)unlink(address.sun_path);
        }
    }
    errno = EADDRINUSE;
    return false;
}

/* Caller holds the run directory lock. A live entry keeps its name; a stale one is
 * taken over and its dead socket file removed. */
static bool itc_name_claim(const char* rundir, const char* name) {
    itc_mbox_id_t previous = ITC_NO_ID;
    switch (itc_entry_resolve(rundir, name, &previous)) {
        case ITC_ENTRY_MISSING:
            return true;
        case ITC_ENTRY_STALE: {
            struct sockaddr_un address;
            if (previous != ITC_NO_ID && itc_socket_address(rundir, previous, &address)) {
                (void)unlink(address.sun_path);
            }
            return true;
        }
        case ITC_ENTRY_LIVE:
            errno = EEXIST;
            return false;
        default:
            return false;
    }
}

/* Removes the name entry only while it still points at this mailbox's socket. */
static void itc_mailbox_unlink(itc_mailbox_t* mailbox) {
    int saved = errno;
    char target[ITC_SOCKET_NAME_LENGTH + 2];
    ssize_t length = readlink(mailbox->entry_path, target, sizeof target - 1);
    if (length == ITC_SOCKET_NAME_LENGTH &&
        memcmp(target, mailbox->socket_name, ITC_SOCKET_NAME_LENGTH) == 0) {
        (void)unlink(mailbox->entry_path);
    }
    if (mailbox->socket_path[0] != '\0') {
        (void)unlink(mailbox->socket_path);
    }
    errno = saved;
}

static bool itc_mailbox_publish(itc_mailbox_t* mailbox, const char* rundir, const char* name) {
    if (!itc_entry_path(rundir, name, mailbox->entry_path, sizeof mailbox->entry_path)) {
        return false;
    }
    int lock_fd = itc_rundir_lock(rundir);
    if (lock_fd < 0) {
        return false;
    }
    bool published = itc_name_claim(rundir, name) && itc_mailbox_bind(mailbox, rundir) &&
                     chmod(mailbox->socket_path, ITC_SOCKET_MODE) == 0 &&
                     itc_entry_publish(rundir, name, mailbox->id);
    if (!published) {
        itc_mailbox_unlink(mailbox);
    }
    itc_rundir_unlock(lock_fd);
    return published;
}

static itc_mailbox_t* itc_mailbox_open(const char* name) {
    char rundir[PATH_MAX];
    struct sockaddr_un longest;
    /* Every socket path has the same length: check it before anything is created. */
    if (!itc_rundir_get(rundir, sizeof rundir) ||
        !itc_socket_address(rundir, ITC_FROM_ALL, &longest)) {
        return NULL;
    }
    itc_mailbox_t* mailbox = itc_mailbox_new();
    if (mailbox != NULL && !itc_mailbox_publish(mailbox, rundir, name)) {
        itc_mailbox_close(mailbox);
        return NULL;
    }
    return mailbox;
}

ITC_API itc_mbox_id_t itc_create_mailbox(const char* name, uint32_t flags) {
    int error = itc_name_check(name);
    if (error == 0 && flags != 0) {
        error = EINVAL;
    }
    if (error != 0) {
        errno = error;
        return ITC_NO_ID;
    }
    if (!itc_process_reserve()) {
        return ITC_NO_ID;
    }
    itc_mailbox_t* mailbox = itc_mailbox_open(name);
    if (mailbox == NULL) {
        itc_process_release();
        return ITC_NO_ID;
    }
    itc_mbox_id_t id = mailbox->id;
    itc_process_register(mailbox);
    return id;
}

ITC_API int itc_delete_mailbox(itc_mbox_id_t id) {
    itc_mailbox_t* mailbox = itc_process_unregister(id);
    if (mailbox == NULL) {
        errno = ENOENT;
        return -1;
    }
    itc_mailbox_unlink(mailbox);
    itc_mailbox_close(mailbox);
    return 0;
}
