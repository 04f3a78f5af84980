/* Signals: the heap block behind each union itc_msg pointer and its accessors. */
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "itc_internal.h"

/* Marks a block as one of ours, so a foreign pointer is refused instead of freed. */
#define ITC_MSG_MAGIC 0x4d435449u

itc_msg_head_t* itc_msg_new(size_t size, size_t capacity) {
    itc_msg_head_t* head = calloc(1, ITC_HEAD_SPACE + capacity);
    if (head == NULL) {
        errno = ENOMEM;
        return NULL;
    }
    head->magic = ITC_MSG_MAGIC;
    head->size = (uint32_t)size;
    return head;
}

itc_msg_head_t* itc_msg_received(const itc_wire_header_t* wire, const unsigned char* payload) {
    /* At least ITC_MIN_RECEIVE_SIZE readable bytes, zero past the signal's own end, so a
     * reader that trusts a short signal's layout reads zeros, never foreign memory. */
    size_t capacity = wire->length > ITC_MIN_RECEIVE_SIZE ? wire->length : ITC_MIN_RECEIVE_SIZE;
    itc_msg_head_t* head = itc_msg_new(wire->length, capacity);
    if (head == NULL) {
        return NULL;
    }
    head->sender = wire->sender;
    head->receiver = wire->receiver;
    memcpy(itc_msg_from_head(head), payload, wire->length);
    return head;
}

union itc_msg* itc_msg_from_head(itc_msg_head_t* head) {
    return (union itc_msg*)((unsigned char*)head + ITC_HEAD_SPACE);
}

itc_msg_head_t* itc_msg_to_head(union itc_msg* msg) {
    if (msg == NULL) {
        return NULL;
    }
    itc_msg_head_t* head = (itc_msg_head_t*)((unsigned char*)msg - ITC_HEAD_SPACE);
    return head->magic == ITC_MSG_MAGIC ? head : NULL;
}

uint32_t itc_msg_number(const itc_msg_head_t* head) {
    uint32_t msgno;
    memcpy(&msgno, (const unsigned char*)head + ITC_HEAD_SPACE, sizeof msgno);
    return msgno;
}

void itc_msg_release(itc_msg_head_t* head) {
    int saved = errno;
    if (head != NULL) {
        head->magic = 0;
        free(head);
    }
    errno = saved;
}

ITC_API union itc_msg* itc_alloc(size_t size, uint32_t msgno) {
    if (size < sizeof msgno || size > ITC_MAX_MSG_SIZE) {
        errno = EINVAL;
        return NULL;
    }
    itc_msg_head_t* head = itc_msg_new(size, size);
    if (head == NULL) {
        return NULL;
    }
    union itc_msg* msg = itc_msg_from_head(head);
    memcpy(msg, &msgno, sizeof msgno);
    return msg;
}

ITC_API void itc_free(union itc_msg** msg) {
    if (msg == NULL || *msg == NULL) {
        return;
    }
    itc_msg_head_t* head = itc_msg_to_head(*msg);
    *msg = NULL;
    itc_msg_release(head);
}

ITC_API itc_mbox_id_t itc_sender(union itc_msg* msg) {
    itc_msg_head_t* head = itc_msg_to_head(msg);
    return head != NULL ? head->sender : ITC_NO_ID;
}

ITC_API itc_mbox_id_t itc_receiver(union itc_msg* msg) {
    itc_msg_head_t* head = itc_msg_to_head(msg);
    return head != NULL ? head->receiver : ITC_NO_ID;
}

ITC_API size_t itc_size(union itc_msg* msg) {
    itc_msg_head_t* head = itc_msg_to_head(msg);
    return head != NULL ? head->size : 0;
}
