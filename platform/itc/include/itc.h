/*
 * ITC mailbox messaging: signals between threads and processes of one host.
 *
 * Stand-in for the node platform's ITC library (libitc.so.0). A mailbox is a
 * Unix datagram socket bound to a path in the run directory, so processes in
 * different network namespaces reach each other as long as they share the
 * file system.
 *
 * Environment:
 *   ITC_RUNDIR   run directory of the mailbox sockets and name entries
 *                (default /run/itc). Read at every call that resolves a
 *                mailbox, so set it before the first call and leave it.
 *
 * A signal is an application-defined union whose first 32-bit word is the
 * signal number:
 *
 *   union itc_msg {
 *       uint32_t msgno;
 *       struct my_request request;
 *       ...
 *   };
 *
 * The library never looks past that first word. Every function reports a
 * failure through its result and errno; none writes to stdout or stderr.
 */
#ifndef ITC_H
#define ITC_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Defined by each application; see above. */
union itc_msg;

/* A mailbox id, unique among the host's live mailboxes. */
typedef uint32_t itc_mbox_id_t;

/* No mailbox. */
#define ITC_NO_ID 0
/* itc_receive: accept a signal from any sender. */
#define ITC_FROM_ALL 0xFFF11111
/* itc_receive: wait until a signal arrives. */
#define ITC_NO_TMO (-1)
/* itc_receive: accept every signal number. */
#define ITC_NOFILTER NULL
/* Largest signal in bytes, signal number included. */
#define ITC_MAX_MSG_SIZE 65536
/* Every received signal is readable at least this far; bytes past its own size are 0. */
#define ITC_MIN_RECEIVE_SIZE 256

/**
 * Prepares the calling process for ITC. A second call returns 0 and changes nothing.
 * @param mailbox_count  how many mailboxes the process may hold at once (>= 1)
 * @param alloc_scheme   0, the only scheme: signals come from the C heap
 * @param scheme_params  ignored by scheme 0 (pass NULL)
 * @param name_space     must be NULL; ITC_RUNDIR plays that role
 * @param flags          must be 0
 * @return 0 on success, -1 with errno EINVAL for a bad argument
 */
int itc_init(int32_t mailbox_count, int32_t alloc_scheme, const void* scheme_params,
             const char* name_space, uint32_t flags);

/**
 * Creates the calling thread's mailbox and publishes it under a name.
 * @param name   1 to 250 bytes, without '/'
 * @param flags  must be 0
 * @return the mailbox id, or ITC_NO_ID with errno: EPERM (itc_init not called),
 *         EINVAL (empty or NULL name, '/' in it, flags), ENAMETOOLONG (name or
 *         run directory too long), EBUSY (the thread already has a mailbox),
 *         ENOSPC (mailbox_count reached), EEXIST (a live mailbox has the name),
 *         EACCES (no permission on the run directory), or the failing call's errno
 */
itc_mbox_id_t itc_create_mailbox(const char* name, uint32_t flags);

/**
 * Deletes one of the process's mailboxes: its name entry, its socket and its
 * descriptors. Signals still waiting in it are freed. The owning thread must
 * not be inside itc_receive at the time.
 * @param id  the mailbox
 * @return 0, or -1 with errno ENOENT when the process has no such mailbox
 */
int itc_delete_mailbox(itc_mbox_id_t id);

/**
 * Finds a live mailbox by name. An entry whose owner is gone is never trusted.
 * @param name  the name given to itc_create_mailbox
 * @return the mailbox id, or ITC_NO_ID with errno ENOENT (no live mailbox of that
 *         name), EACCES (no permission on the run directory), EINVAL, ENAMETOOLONG
 */
itc_mbox_id_t itc_locate(const char* name);

/**
 * @return the calling thread's mailbox, or ITC_NO_ID
 */
itc_mbox_id_t itc_current_mbox(void);

/**
 * @return a descriptor that is readable (select/poll) exactly while a signal
 *         waits in the calling thread's mailbox, or -1 with errno EBADF when
 *         the thread has no mailbox. Owned by the library: do not close it.
 */
int itc_get_fd(void);

/**
 * Allocates a zero-filled signal.
 * @param size   bytes, 4 to ITC_MAX_MSG_SIZE, signal number included
 * @param msgno  written into the first word
 * @return the signal, or NULL with errno EINVAL (size) or ENOMEM
 */
union itc_msg* itc_alloc(size_t size, uint32_t msgno);

/**
 * Frees a signal and sets *msg to NULL. Does nothing for a NULL msg or *msg.
 * @param msg  address of the signal pointer
 */
void itc_free(union itc_msg** msg);

/**
 * Sends a signal without blocking. Always takes ownership: *msg is freed and set
 * to NULL, also on failure.
 * @param msg   address of the signal pointer
 * @param to    receiving mailbox
 * @param from  sender id written into the signal (normally the own mailbox)
 * @return 0, or -1 with errno: EINVAL (NULL signal, to ITC_NO_ID or ITC_FROM_ALL),
 *         ENOENT (no such mailbox), ECONNREFUSED (its owner is gone), EAGAIN (its
 *         queue is full), EACCES (no permission), or the failing call's errno
 */
int itc_send(union itc_msg** msg, itc_mbox_id_t to, itc_mbox_id_t from);

/**
 * Takes the oldest waiting signal of the calling thread's mailbox that passes
 * the filter and comes from the given sender. Signals that do not match stay
 * waiting, in their order, for later calls.
 * @param filter  NULL: every number. Otherwise filter[0] is a count N followed by
 *                |N| numbers: N > 0 accepts only the listed numbers, N < 0 accepts
 *                all but the listed numbers, N == 0 accepts every number.
 * @param tmo     0: do not wait; ITC_NO_TMO: wait for ever; > 0: milliseconds
 * @param from    ITC_FROM_ALL, or the only sender to accept
 * @return the signal (free it with itc_free), or NULL with errno: EAGAIN (tmo 0 and
 *         nothing matching waits), ETIMEDOUT (tmo > 0 expired), EBADF (the thread
 *         has no mailbox), EINVAL (tmo below ITC_NO_TMO), ENOMEM
 */
union itc_msg* itc_receive(const uint32_t* filter, int32_t tmo, itc_mbox_id_t from);

/**
 * @return the sender id of a received signal (ITC_NO_ID for NULL or an unsent signal)
 */
itc_mbox_id_t itc_sender(union itc_msg* msg);

/**
 * @return the receiving mailbox of a received signal (ITC_NO_ID for NULL or an
 *         unsent signal)
 */
itc_mbox_id_t itc_receiver(union itc_msg* msg);

/**
 * @return the signal's own size in bytes as allocated or sent (0 for NULL)
 */
size_t itc_size(union itc_msg* msg);

#ifdef __cplusplus
}
#endif

#endif /* ITC_H */
