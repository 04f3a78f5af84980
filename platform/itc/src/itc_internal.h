/* Shared by the ITC stand-in's sources; nothing here is exported. */
#ifndef ITC_INTERNAL_H
#define ITC_INTERNAL_H

#include <limits.h>
#include <stdalign.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/un.h>

#include "itc.h"
#include "itc_wire.h"

/* The library is built with hidden visibility; only the itc_* API is exported. */
#define ITC_API __attribute__((visibility("default")))

#define ITC_DEFAULT_RUNDIR "/run/itc"
/* "name.<name>" must stay a valid directory entry (255 bytes). */
#define ITC_NAME_MAX_LENGTH 250
/* "mbox.<8 hex digits>" */
#define ITC_SOCKET_NAME_LENGTH 13

/* The hidden prefix in front of every signal handed to the application. */
typedef struct itc_msg_head {
    struct itc_msg_head* next; /* link in a mailbox's queue of kept signals */
    uint32_t magic;
    uint32_t size;
    itc_mbox_id_t sender;
    itc_mbox_id_t receiver;
} itc_msg_head_t;

/* The signal's bytes start here, aligned for any type. */
#define ITC_HEAD_SPACE                                                            \
    ((sizeof(itc_msg_head_t) + alignof(max_align_t) - 1) / alignof(max_align_t) * \
     alignof(max_align_t))

typedef struct itc_mailbox {
    struct itc_mailbox* next;
    itc_mbox_id_t id;
    int socket_fd; /* the bound datagram socket */
    int event_fd;  /* readable while kept signals wait */
    int epoll_fd;  /* itc_get_fd: watches both of the above */
    itc_msg_head_t* kept_head;
    itc_msg_head_t* kept_tail;
    unsigned char* rx_buffer;
    char socket_name[ITC_SOCKET_NAME_LENGTH + 1];
    char socket_path[sizeof(((struct sockaddr_un*)0)->sun_path)];
    char entry_path[PATH_MAX];
} itc_mailbox_t;

/* itc_msg.c */
/* A zero-filled block with room for capacity bytes of a signal of size bytes. */
itc_msg_head_t* itc_msg_new(size_t size, size_t capacity);
/* A received signal: at least ITC_MIN_RECEIVE_SIZE bytes, sender and receiver set. */
itc_msg_head_t* itc_msg_received(const itc_wire_header_t* wire, const unsigned char* payload);
/* The application's pointer of a block. */
union itc_msg* itc_msg_from_head(itc_msg_head_t* head);
/* The block behind an application's pointer; NULL when it is not one of ours. */
itc_msg_head_t* itc_msg_to_head(union itc_msg* msg);
/* The signal number, the first word of the signal. */
uint32_t itc_msg_number(const itc_msg_head_t* head);
/* Frees a block (NULL-safe), keeping errno. */
void itc_msg_release(itc_msg_head_t* head);

/* itc_wire.c */
typedef enum { ITC_WIRE_SIGNAL, ITC_WIRE_DROPPED, ITC_WIRE_ERROR } itc_wire_result_t;
/* Turns received bytes of a datagram for mailbox receiver into a signal (SIGNAL, *head set);
 * DROPPED for anything that is not one whole ITC signal for that mailbox, ERROR (errno)
 * when no memory is left. */
itc_wire_result_t itc_wire_decode(itc_mbox_id_t receiver, const unsigned char* datagram,
                                  size_t received, itc_msg_head_t** head);

/* itc_process.c */
/* Takes a place for a new mailbox of the calling thread; false with EPERM, EBUSY, ENOSPC. */
bool itc_process_reserve(void);
/* Gives back a place taken by itc_process_reserve, keeping errno. */
void itc_process_release(void);
/* Adds a created mailbox to the process and makes it the calling thread's. */
void itc_process_register(itc_mailbox_t* mailbox);
/* Removes a mailbox from the process (its place is freed); NULL when unknown. */
itc_mailbox_t* itc_process_unregister(itc_mbox_id_t id);
/* The calling thread's mailbox or NULL. */
itc_mailbox_t* itc_process_current(void);
/* The process's unbound send socket, opened on first use; -1 with errno. */
int itc_process_send_fd(void);

/* itc_mailbox.c */
/* Closes descriptors and frees memory and kept signals; files are left alone. */
void itc_mailbox_close(itc_mailbox_t* mailbox);

/* itc_rundir.c */
typedef enum { ITC_ENTRY_MISSING, ITC_ENTRY_STALE, ITC_ENTRY_LIVE, ITC_ENTRY_ERROR } itc_entry_t;

/* ITC_RUNDIR or the default; false with ENAMETOOLONG. */
bool itc_rundir_get(char* out, size_t capacity);
/* Creates the run directory when missing and locks it for all processes; -1 with errno. */
int itc_rundir_lock(const char* rundir);
/* Releases the lock, keeping errno. */
void itc_rundir_unlock(int lock_fd);
/* 0 for a valid mailbox name, else EINVAL or ENAMETOOLONG. */
int itc_name_check(const char* name);
/* "mbox.<8 hex digits>" of an id. */
bool itc_socket_name(itc_mbox_id_t id, char* out, size_t capacity);
/* The socket address of an id; false with ENAMETOOLONG when the path does not fit. */
bool itc_socket_address(const char* rundir, itc_mbox_id_t id, struct sockaddr_un* address);
/* The path of a name entry. */
bool itc_entry_path(const char* rundir, const char* name, char* out, size_t capacity);
/* LIVE while a process holds the socket, STALE when nobody does, ERROR otherwise. */
itc_entry_t itc_socket_probe(const struct sockaddr_un* address);
/* Follows a name entry to its mailbox; *id is set for LIVE (and for a parsable STALE). */
itc_entry_t itc_entry_resolve(const char* rundir, const char* name, itc_mbox_id_t* id);
/* Points a name entry at an id's socket atomically. Caller holds the run directory lock. */
bool itc_entry_publish(const char* rundir, const char* name, itc_mbox_id_t id);

#endif /* ITC_INTERNAL_H */
