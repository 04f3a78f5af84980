/* Sending: one datagram per signal from the process's unbound send socket, never
 * blocking. The signal is freed whatever the outcome. */
#include <errno.h>
#include <string.h>
#include <sys/socket.h>

#include "itc_internal.h"

static int itc_send_datagram(itc_msg_head_t* head, itc_mbox_id_t to, itc_mbox_id_t from) {
    if (to == ITC_NO_ID || to == ITC_FROM_ALL || head->size < sizeof(uint32_t) ||
        head->size > ITC_MAX_MSG_SIZE) {
        errno = EINVAL;
        return -1;
    }
    char rundir[PATH_MAX];
    struct sockaddr_un address;
    if (!itc_rundir_get(rundir, sizeof rundir) || !itc_socket_address(rundir, to, &address)) {
        return -1;
    }
    int fd = itc_process_send_fd();
    if (fd < 0) {
        return -1;
    }
    itc_wire_header_t wire = {ITC_WIRE_MAGIC, ITC_WIRE_VERSION, from, to, head->size};
    struct iovec vector[2] = {{&wire, sizeof wire}, {itc_msg_from_head(head), head->size}};
    struct msghdr message;
    memset(&message, 0, sizeof message);
    message.msg_name = &address;
    message.msg_namelen = sizeof address;
    message.msg_iov = vector;
    message.msg_iovlen = 2;
    ssize_t sent;
    do {
        sent = sendmsg(fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent < 0 ? -1 : 0;
}

ITC_API int itc_send(union itc_msg** msg, itc_mbox_id_t to, itc_mbox_id_t from) {
    if (msg == NULL || *msg == NULL) {
        errno = EINVAL;
        return -1;
    }
    itc_msg_head_t* head = itc_msg_to_head(*msg);
    *msg = NULL;
    if (head == NULL) {
        errno = EINVAL;
        return -1;
    }
    int result = itc_send_datagram(head, to, from);
    itc_msg_release(head);
    return result;
}
