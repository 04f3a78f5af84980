/*
 * ITC datagram format: a fixed header followed by the signal's bytes.
 *
 * All fields are native-endian: sender and receiver share one host. A datagram
 * that breaks any rule below is dropped by the receiving library.
 */
#ifndef ITC_WIRE_H
#define ITC_WIRE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* "ITC1" in memory on a little-endian host. */
#define ITC_WIRE_MAGIC 0x31435449u
#define ITC_WIRE_VERSION 1u

typedef struct {
    uint32_t magic;    /* ITC_WIRE_MAGIC */
    uint32_t version;  /* ITC_WIRE_VERSION */
    uint32_t sender;   /* id the sender put into itc_send's from */
    uint32_t receiver; /* id of the mailbox the datagram was sent to */
    uint32_t length;   /* bytes after the header: 4 to ITC_MAX_MSG_SIZE */
} itc_wire_header_t;

#ifdef __cplusplus
}
#endif

#endif /* ITC_WIRE_H */
