/* Datagrams arriving at an ITC mailbox: any bytes, any length. Whatever is not one whole
 * signal for the mailbox must be dropped; a signal must be handed out with its own length,
 * its sender and at least 256 readable bytes, zero past its end.
 *
 * Input: the datagram as received by mailbox 0x00010001. */
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "itc.h"
#include "itc_internal.h"

#define FUZZ_MAILBOX_ID 0x00010001u

static void check_signal(const uint8_t* data, size_t size, itc_msg_head_t* head) {
    itc_wire_header_t wire;
    memcpy(&wire, data, sizeof wire);
    union itc_msg* msg = itc_msg_from_head(head);
    if (itc_size(msg) != wire.length || itc_sender(msg) != wire.sender ||
        itc_receiver(msg) != FUZZ_MAILBOX_ID || size != sizeof wire + wire.length) {
        abort();
    }
    const unsigned char* bytes = (const unsigned char*)msg;
    if (memcmp(bytes, data + sizeof wire, wire.length) != 0) {
        abort();
    }
    for (size_t index = wire.length; index < ITC_MIN_RECEIVE_SIZE; ++index) {
        if (bytes[index] != 0) {
            abort();
        }
    }
    itc_free(&msg);
    if (msg != NULL) {
        abort();
    }
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    /* A copy of exactly size bytes, so that the sanitizer sees any read past the datagram. */
    unsigned char* datagram = malloc(size > 0 ? size : 1);
    if (datagram == NULL) {
        return 0;
    }
    if (size > 0) {
        memcpy(datagram, data, size);
    }
    itc_msg_head_t* head = NULL;
    switch (itc_wire_decode(FUZZ_MAILBOX_ID, datagram, size, &head)) {
        case ITC_WIRE_SIGNAL:
            check_signal(data, size, head);
            break;
        case ITC_WIRE_DROPPED:
            if (head != NULL) {
                abort();
            }
            break;
        default:
            break;
    }
    free(datagram);
    return 0;
}
