/* Process-wide state: initialisation, the registry of the process's mailboxes, each
 * thread's current mailbox, the shared send socket, and what a forked child keeps. */
#include <errno.h>
#include <pthread.h>
#include <stdbool.h>
#include <sys/socket.h>
#include <unistd.h>

#include "itc_internal.h"

/* Room for several maximum-size signals waiting at slow receivers: their bytes are
 * charged to the sending socket until read. Capped by net.core.wmem_max. */
#define ITC_SEND_BUFFER_BYTES (1 << 20)

/* Scheme 0: signals come from the C heap. */
#define ITC_SCHEME_HEAP 0

typedef struct {
    bool initialised;
    int32_t mailbox_limit;
    int32_t mailbox_count; /* live plus reserved for a creation in progress */
    int send_fd;
    itc_mailbox_t* mailboxes;
} itc_process_t;

static pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_once_t g_atfork_once = PTHREAD_ONCE_INIT;
static itc_process_t g_process = {false, 0, 0, -1, NULL};
static _Thread_local itc_mbox_id_t t_current = ITC_NO_ID;

static void itc_atfork_prepare(void) {
    pthread_mutex_lock(&g_lock);
}

static void itc_atfork_parent(void) {
    pthread_mutex_unlock(&g_lock);
}

/* The child drops what it inherited without touching the files: the mailboxes still
 * belong to the parent. Closing the child's copies of the descriptors leaves the
 * parent's sockets open. The child may then itc_init and create its own mailbox. */
static void itc_atfork_child(void) {
    itc_mailbox_t* mailbox = g_process.mailboxes;
    while (mailbox != NULL) {
        itc_mailbox_t* next = mailbox->next;
        itc_mailbox_close(mailbox);
        mailbox = next;
    }
    if (g_process.send_fd >= 0) {
        close(g_process.send_fd);
    }
    g_process = (itc_process_t){false, 0, 0, -1, NULL};
    t_current = ITC_NO_ID;
    pthread_mutex_unlock(&g_lock);
}

static void itc_atfork_register(void) {
    pthread_atfork(itc_atfork_prepare, itc_atfork_parent, itc_atfork_child);
}

static void itc_lock(void) {
    pthread_once(&g_atfork_once, itc_atfork_register);
    pthread_mutex_lock(&g_lock);
}

static void itc_unlock(void) {
    pthread_mutex_unlock(&g_lock);
}

/* Caller holds the lock. */
static itc_mailbox_t* itc_process_find(itc_mbox_id_t id) {
    if (id == ITC_NO_ID) {
        return NULL;
    }
    for (itc_mailbox_t* mailbox = g_process.mailboxes; mailbox != NULL; mailbox = mailbox->next) {
        if (mailbox->id == id) {
            return mailbox;
        }
    }
    return NULL;
}

/* Caller holds the lock. */
static int itc_process_reserve_locked(void) {
    if (!g_process.initialised) {
        return EPERM;
    }
    if (itc_process_find(t_current) != NULL) {
        return EBUSY;
    }
    if (g_process.mailbox_count >= g_process.mailbox_limit) {
        return ENOSPC;
    }
    ++g_process.mailbox_count;
    return 0;
}

bool itc_process_reserve(void) {
    itc_lock();
    int error = itc_process_reserve_locked();
    itc_unlock();
    if (error != 0) {
        errno = error;
        return false;
    }
    return true;
}

void itc_process_release(void) {
    int saved = errno;
    itc_lock();
    --g_process.mailbox_count;
    itc_unlock();
    errno = saved;
}

void itc_process_register(itc_mailbox_t* mailbox) {
    itc_lock();
    mailbox->next = g_process.mailboxes;
    g_process.mailboxes = mailbox;
    t_current = mailbox->id;
    itc_unlock();
}

itc_mailbox_t* itc_process_unregister(itc_mbox_id_t id) {
    itc_lock();
    itc_mailbox_t** link = &g_process.mailboxes;
    while (*link != NULL && (*link)->id != id) {
        link = &(*link)->next;
    }
    itc_mailbox_t* mailbox = *link;
    if (mailbox != NULL) {
        *link = mailbox->next;
        mailbox->next = NULL;
        --g_process.mailbox_count;
    }
    if (t_current == id) {
        t_current = ITC_NO_ID;
    }
    itc_unlock();
    return mailbox;
}

itc_mailbox_t* itc_process_current(void) {
    itc_lock();
    itc_mailbox_t* mailbox = itc_process_find(t_current);
    itc_unlock();
    return mailbox;
}

/* Caller holds the lock. */
static int itc_process_open_send_socket(void) {
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    int bytes = ITC_SEND_BUFFER_BYTES;
    /* Best effort: the default buffer still carries maximum-size signals. */
    (void)setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
    return fd;
}

int itc_process_send_fd(void) {
    itc_lock();
    if (g_process.send_fd < 0) {
        g_process.send_fd = itc_process_open_send_socket();
    }
    int fd = g_process.send_fd;
    itc_unlock();
    return fd;
}

ITC_API int itc_init(int32_t mailbox_count, int32_t alloc_scheme, const void* scheme_params,
                     const char* name_space, uint32_t flags) {
    (void)scheme_params;
    if (mailbox_count < 1 || alloc_scheme != ITC_SCHEME_HEAP || name_space != NULL || flags != 0) {
        errno = EINVAL;
        return -1;
    }
    itc_lock();
    if (!g_process.initialised) {
        g_process.initialised = true;
        g_process.mailbox_limit = mailbox_count;
    }
    itc_unlock();
    return 0;
}

ITC_API itc_mbox_id_t itc_current_mbox(void) {
    itc_lock();
    itc_mailbox_t* mailbox = itc_process_find(t_current);
    itc_mbox_id_t id = mailbox != NULL ? mailbox->id : ITC_NO_ID;
    itc_unlock();
    return id;
}

ITC_API int itc_get_fd(void) {
    itc_lock();
    itc_mailbox_t* mailbox = itc_process_find(t_current);
    int fd = mailbox != NULL ? mailbox->epoll_fd : -1;
    itc_unlock();
    if (fd < 0) {
        errno = EBADF;
    }
    return fd;
}
