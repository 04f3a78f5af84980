/* Receiving: datagrams are checked and turned into signals; those the caller does not
 * want now are kept, in arrival order, in the mailbox's queue for later calls. */
#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "itc_internal.h"

#define ITC_RX_CAPACITY (sizeof(itc_wire_header_t) + ITC_MAX_MSG_SIZE)

typedef enum { ITC_RX_SIGNAL, ITC_RX_DROPPED, ITC_RX_EMPTY, ITC_RX_ERROR } itc_rx_t;

static bool itc_filter_accepts(const uint32_t* filter, uint32_t msgno) {
    if (filter == ITC_NOFILTER) {
        return true;
    }
    int64_t count = (int32_t)filter[0];
    if (count == 0) {
        return true;
    }
    int64_t listed_count = count > 0 ? count : -count;
    bool listed = false;
    for (int64_t index = 1; index <= listed_count && !listed; ++index) {
        listed = filter[index] == msgno;
    }
    return count > 0 ? listed : !listed;
}

static bool itc_matches(const itc_msg_head_t* head, const uint32_t* filter, itc_mbox_id_t from) {
    return (from == ITC_FROM_ALL || head->sender == from) &&
           itc_filter_accepts(filter, itc_msg_number(head));
}

/* The eventfd keeps the mailbox descriptor readable while kept signals wait. */
static void itc_event_set(const itc_mailbox_t* mailbox, bool waiting) {
    uint64_t value = 1;
    ssize_t done;
    do {
        done = waiting ? write(mailbox->event_fd, &value, sizeof value)
                       : read(mailbox->event_fd, &value, sizeof value);
    } while (done < 0 && errno == EINTR);
}

static void itc_kept_push(itc_mailbox_t* mailbox, itc_msg_head_t* head) {
    head->next = NULL;
    if (mailbox->kept_tail != NULL) {
        mailbox->kept_tail->next = head;
    } else {
        mailbox->kept_head = head;
        itc_event_set(mailbox, true);
    }
    mailbox->kept_tail = head;
}

static itc_msg_head_t* itc_kept_take(itc_mailbox_t* mailbox, const uint32_t* filter,
                                     itc_mbox_id_t from) {
    itc_msg_head_t* previous = NULL;
    for (itc_msg_head_t* head = mailbox->kept_head; head != NULL; head = head->next) {
        if (itc_matches(head, filter, from)) {
            *(previous != NULL ? &previous->next : &mailbox->kept_head) = head->next;
            if (mailbox->kept_tail == head) {
                mailbox->kept_tail = previous;
            }
            head->next = NULL;
            if (mailbox->kept_head == NULL) {
                itc_event_set(mailbox, false);
            }
            return head;
        }
        previous = head;
    }
    return NULL;
}

static itc_rx_t itc_read_datagram(itc_mailbox_t* mailbox, itc_msg_head_t** head) {
    if (mailbox->rx_buffer == NULL) {
        mailbox->rx_buffer = malloc(ITC_RX_CAPACITY);
        if (mailbox->rx_buffer == NULL) {
            errno = ENOMEM;
            return ITC_RX_ERROR;
        }
    }
    struct iovec vector = {mailbox->rx_buffer, ITC_RX_CAPACITY};
    struct msghdr message;
    memset(&message, 0, sizeof message);
    message.msg_iov = &vector;
    message.msg_iovlen = 1;
    ssize_t received;
    do {
        received = recvmsg(mailbox->socket_fd, &message, MSG_DONTWAIT);
    } while (received < 0 && errno == EINTR);
    if (received < 0) {
        return errno == EAGAIN || errno == EWOULDBLOCK ? ITC_RX_EMPTY : ITC_RX_ERROR;
    }
    if ((message.msg_flags & MSG_TRUNC) != 0) {
        return ITC_RX_DROPPED;
    }
    switch (itc_wire_decode(mailbox->id, mailbox->rx_buffer, (size_t)received, head)) {
        case ITC_WIRE_SIGNAL:
            return ITC_RX_SIGNAL;
        case ITC_WIRE_DROPPED:
            return ITC_RX_DROPPED;
        default:
            return ITC_RX_ERROR;
    }
}

static struct timespec itc_deadline(int32_t tmo) {
    struct timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    if (tmo > 0) {
        int64_t nanoseconds = deadline.tv_nsec + (int64_t)(tmo % 1000) * 1000000;
        deadline.tv_sec += tmo / 1000 + nanoseconds / 1000000000;
        deadline.tv_nsec = nanoseconds % 1000000000;
    }
    return deadline;
}

/* Rounded up, so that a wait never ends before the deadline; 0 once it has passed. */
static int itc_remaining_ms(const struct timespec* deadline) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    int64_t left =
        (int64_t)(deadline->tv_sec - now.tv_sec) * 1000000000 + (deadline->tv_nsec - now.tv_nsec);
    return left <= 0 ? 0 : (int)((left + 999999) / 1000000);
}

/* false ends the receive: nothing to wait for, or the time is up. */
static bool itc_wait_readable(const itc_mailbox_t* mailbox, int32_t tmo,
                              const struct timespec* deadline) {
    if (tmo == 0) {
        errno = EAGAIN;
        return false;
    }
    int wait_ms = tmo == ITC_NO_TMO ? -1 : itc_remaining_ms(deadline);
    if (wait_ms == 0) {
        errno = ETIMEDOUT;
        return false;
    }
    struct pollfd readable = {mailbox->socket_fd, POLLIN, 0};
    return poll(&readable, 1, wait_ms) >= 0 || errno == EINTR;
}

static itc_msg_head_t* itc_receive_socket(itc_mailbox_t* mailbox, const uint32_t* filter,
                                          int32_t tmo, itc_mbox_id_t from) {
    struct timespec deadline = itc_deadline(tmo);
    for (;;) {
        itc_msg_head_t* head = NULL;
        switch (itc_read_datagram(mailbox, &head)) {
            case ITC_RX_SIGNAL:
                if (itc_matches(head, filter, from)) {
                    return head;
                }
                itc_kept_push(mailbox, head);
                break;
            case ITC_RX_DROPPED:
                break;
            case ITC_RX_EMPTY:
                if (!itc_wait_readable(mailbox, tmo, &deadline)) {
                    return NULL;
                }
                break;
            default:
                return NULL;
        }
    }
}

ITC_API union itc_msg* itc_receive(const uint32_t* filter, int32_t tmo, itc_mbox_id_t from) {
    if (tmo < ITC_NO_TMO) {
        errno = EINVAL;
        return NULL;
    }
    itc_mailbox_t* mailbox = itc_process_current();
    if (mailbox == NULL) {
        errno = EBADF;
        return NULL;
    }
    itc_msg_head_t* head = itc_kept_take(mailbox, filter, from);
    if (head == NULL) {
        head = itc_receive_socket(mailbox, filter, tmo, from);
    }
    return head != NULL ? itc_msg_from_head(head) : NULL;
}
