/* Received datagrams: a datagram becomes a signal only when it is one whole ITC signal
 * for the mailbox that received it; anything else is dropped, never trusted. */
#include <string.h>

#include "itc_internal.h"

static bool itc_wire_check(itc_mbox_id_t receiver, const unsigned char* datagram, size_t received,
                           itc_wire_header_t* wire) {
    if (received < sizeof *wire) {
        return false;
    }
    memcpy(wire, datagram, sizeof *wire);
    return wire->magic == ITC_WIRE_MAGIC && wire->version == ITC_WIRE_VERSION &&
           wire->receiver == receiver && wire->length == received - sizeof *wire &&
           wire->length >= sizeof(uint32_t) && wire->length <= ITC_MAX_MSG_SIZE;
}

itc_wire_result_t itc_wire_decode(itc_mbox_id_t receiver, const unsigned char* datagram,
                                  size_t received, itc_msg_head_t** head) {
    itc_wire_header_t wire;
    if (!itc_wire_check(receiver, datagram, received, &wire)) {
        return ITC_WIRE_DROPPED;
    }
    *head = itc_msg_received(&wire, datagram + sizeof wire);
    return *head != NULL ? ITC_WIRE_SIGNAL : ITC_WIRE_ERROR;
}
