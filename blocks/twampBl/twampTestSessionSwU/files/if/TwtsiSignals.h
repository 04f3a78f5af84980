/*
 * The control signals of the TWAMP test session service, shared by the daemon
 * and the services that manage it.
 *
 * Every signal is an ITC message: a plain native-endian structure whose first
 * 32-bit word is the signal number. The manager sends create, delete and
 * counters request to the daemon's mailbox; only the counters request is
 * answered. The layouts are fixed byte for byte (checked below), so that both
 * sides can be built by different compilers.
 *
 * This header also defines union itc_msg, which the ITC library only declares:
 * a program that includes it must not define the union elsewhere.
 */
#ifndef TWTSI_SIGNALS_H
#define TWTSI_SIGNALS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define TWTSI_STATIC_ASSERT(condition, message) static_assert(condition, message)
#else
#define TWTSI_STATIC_ASSERT(condition, message) _Static_assert(condition, message)
#endif

/* Signal numbers, the first word of every signal. */
#define TWTSI_CREATE_TWAMP_TEST_SESSION 0x01A11401u
#define TWTSI_DELETE_TWAMP_TEST_SESSION 0x01A11403u
#define TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_REQ 0x01A11404u
#define TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_RSP 0x01A11405u

/*
 * Extension: the session list, a request/reply pair that tools (twamp-ctl
 * list, the metrics exporter) send to see which sessions a daemon runs. The
 * numbers lie apart from the four above, which keep their numbers, layouts
 * and behaviour; a daemon without the extension frees the request unanswered.
 */
#define TWTSI_LIST_TWAMP_TEST_SESSIONS_REQ 0x01A114E0u
#define TWTSI_LIST_TWAMP_TEST_SESSIONS_RSP 0x01A114E1u

/* The opaque session key; compared bytewise over all 16 bytes. */
#define TWTSI_SESSION_ID_SIZE 16
/* Room for the longest IPv6 text form; the terminator is not guaranteed. */
#define TWTSI_DST_IP_ADDRESS_SIZE 46

/* The counters grid of one 15-minute interval: 38 counters of 15 one-minute bins. */
#define TWTSI_PM_COUNTER_ROWS 38
#define TWTSI_PM_COUNTER_BINS 15
#define TWTSI_PM_COUNTER_VALUES (TWTSI_PM_COUNTER_ROWS * TWTSI_PM_COUNTER_BINS)
/* A counter value for which no valid value exists. */
#define TWTSI_PM_NOT_AVAILABLE (-2)

/*
 * What the daemon accepts in a create signal; a create outside these limits
 * starts no session and is reported in the trace and the operator log.
 * Managers may check the same limits before they send.
 */
#define TWTSI_MIN_PACKET_SIZE 41    /* the reflected packet's fields fit */
#define TWTSI_MAX_PACKET_SIZE 65507 /* the largest UDP payload over IPv4 */
/* The fastest rate one session's timer can keep; 0 and 1 both mean one a second. */
#define TWTSI_MAX_PACKETS_PER_SECOND 10000u
/* Start slots must fall inside the first second of the minute. */
#define TWTSI_MAX_START_OFFSET_DENSE 5555u /* spreadingBase 5000: 180 us slots */
#define TWTSI_MAX_START_OFFSET 2499u       /* any other base: 400 us slots */
#define TWTSI_DENSE_SPREADING_BASE 5000u
/* DSCP is a 6-bit field. */
#define TWTSI_MAX_DSCP 63u

/* Sizes of the signals as allocated by the sender. */
#define TWTSI_CREATE_TWAMP_TEST_SESSION_SIZE 96
#define TWTSI_DELETE_TWAMP_TEST_SESSION_SIZE 20
#define TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_REQ_SIZE 24
#define TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_RSP_SIZE 4584

/* Starts a test session towards one reflector. Never answered. */
struct twtsiCreateTwampTestSession {
    uint32_t sigNo;                               /* TWTSI_CREATE_TWAMP_TEST_SESSION */
    char dstIpAddress[TWTSI_DST_IP_ADDRESS_SIZE]; /* reflector address as text */
    uint16_t dstUdpPort;                          /* reflector port, host order */
    uint8_t sessionId[TWTSI_SESSION_ID_SIZE];     /* key of the new session */
    uint32_t packetsPerSecond;                    /* send rate; 1 or less: one a second */
    uint32_t dscp;                                /* DSCP of the test packets */
    uint32_t spare1;                              /* stored, no effect */
    uint32_t spare2;                              /* stored, no effect */
    int32_t packetSize;                           /* UDP payload bytes, 41 to 65507 */
    uint32_t startOffset;                         /* slot in the start spreading */
    uint32_t spreadingBase;                       /* 5000: 180 us slots, else 400 us */
};

/* Stops and removes a test session. Never answered. */
struct twtsiDeleteTwampTestSession {
    uint32_t sigNo;                           /* TWTSI_DELETE_TWAMP_TEST_SESSION */
    uint8_t sessionId[TWTSI_SESSION_ID_SIZE]; /* key of the session */
};

/* Asks for the counters of one session's 15-minute interval. */
struct twtsiGetTwampTestSessionPmCountersReq {
    uint32_t sigNo;                           /* TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_REQ */
    uint8_t sessionId[TWTSI_SESSION_ID_SIZE]; /* key of the session */
    uint8_t completedIntervalOnly;            /* 0: interval in progress, else last completed */
};

/* The counters of one interval: row r is counter r, column b its minute b. */
struct twtsiGetTwampTestSessionPmCountersRsp {
    uint32_t sigNo;                           /* TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_RSP */
    uint8_t sessionId[TWTSI_SESSION_ID_SIZE]; /* copied from the request */
    uint8_t padding[4];                       /* never written */
    int64_t counters[TWTSI_PM_COUNTER_ROWS][TWTSI_PM_COUNTER_BINS];
};

/*
 * Extension: the session list. A daemon with 2000 sessions cannot answer in
 * one signal (the ITC datagram limit is 65536 bytes), so the list is paged:
 * the request names the index of the first entry, the reply carries at most
 * TWTSI_LIST_PAGE_ENTRIES entries and says whether more follow. Entries are
 * in key order; a session created or deleted between two pages may be seen
 * twice or not at all, as in any paged listing.
 */
#define TWTSI_LIST_PAGE_ENTRIES 256
#define TWTSI_LIST_TWAMP_TEST_SESSIONS_REQ_SIZE 8

/* What a listed session is doing. */
#define TWTSI_SESSION_STATE_WAITING 0    /* created; sends from the next whole minute */
#define TWTSI_SESSION_STATE_SENDING 1    /* sending test packets */
#define TWTSI_SESSION_STATE_REFUSED 2    /* the create was refused; no session runs */
#define TWTSI_SESSION_STATE_UNRESOLVED 3 /* registered, but its address did not resolve */

/* Asks for one page of the session list. */
struct twtsiListTwampTestSessionsReq {
    uint32_t sigNo;      /* TWTSI_LIST_TWAMP_TEST_SESSIONS_REQ */
    uint32_t startIndex; /* index of the first entry wanted, 0 for the first page */
};

/* One session of the list; counts are -2 when not known. */
struct twtsiTwampTestSessionEntry {
    uint8_t sessionId[TWTSI_SESSION_ID_SIZE];     /* key of the session */
    char dstIpAddress[TWTSI_DST_IP_ADDRESS_SIZE]; /* reflector address, NUL-terminated */
    uint16_t dstUdpPort;                          /* reflector port */
    uint32_t packetsPerSecond;                    /* as created */
    uint32_t dscp;                                /* as created */
    int32_t packetSize;                           /* as created */
    uint32_t state;                               /* TWTSI_SESSION_STATE_* */
    int64_t lastReplyAgeSeconds; /* seconds since the start of the latest minute with a reply */
    int64_t minuteSentPkts;      /* sentPkts of the running minute */
    int64_t minuteReceivedPkts;  /* receivedPkts of the running minute */
};

/*
 * One page of the session list. It is not a member of union itc_msg, whose
 * size stays that of the counters reply: a page is read and written through
 * a pointer to this structure.
 */
struct twtsiListTwampTestSessionsRsp {
    uint32_t sigNo;      /* TWTSI_LIST_TWAMP_TEST_SESSIONS_RSP */
    uint32_t startIndex; /* copied from the request */
    uint32_t totalCount; /* entries in the whole list */
    uint32_t count;      /* entries in this page */
    uint8_t more;        /* 1 when entries follow this page */
    uint8_t padding[7];  /* zero */
    struct twtsiTwampTestSessionEntry entries[TWTSI_LIST_PAGE_ENTRIES]; /* count are valid */
};

#define TWTSI_LIST_TWAMP_TEST_SESSIONS_RSP_HEADER_SIZE 24
#define TWTSI_TWAMP_TEST_SESSION_ENTRY_SIZE 104
/* A reply is sent only as long as its count of entries needs. */
#define TWTSI_LIST_TWAMP_TEST_SESSIONS_RSP_SIZE(count) \
    (TWTSI_LIST_TWAMP_TEST_SESSIONS_RSP_HEADER_SIZE + (count)*TWTSI_TWAMP_TEST_SESSION_ENTRY_SIZE)

typedef struct twtsiCreateTwampTestSession twtsiCreateTwampTestSession;
typedef struct twtsiDeleteTwampTestSession twtsiDeleteTwampTestSession;
typedef struct twtsiGetTwampTestSessionPmCountersReq twtsiGetTwampTestSessionPmCountersReq;
typedef struct twtsiGetTwampTestSessionPmCountersRsp twtsiGetTwampTestSessionPmCountersRsp;
typedef struct twtsiListTwampTestSessionsReq twtsiListTwampTestSessionsReq;
typedef struct twtsiTwampTestSessionEntry twtsiTwampTestSessionEntry;
typedef struct twtsiListTwampTestSessionsRsp twtsiListTwampTestSessionsRsp;

/* The application's signal union of the ITC library. */
union itc_msg {
    uint32_t sigNo;
    struct twtsiCreateTwampTestSession twtsiCreateTwampTestSession;
    struct twtsiDeleteTwampTestSession twtsiDeleteTwampTestSession;
    struct twtsiGetTwampTestSessionPmCountersReq twtsiGetTwampTestSessionPmCountersReq;
    struct twtsiGetTwampTestSessionPmCountersRsp twtsiGetTwampTestSessionPmCountersRsp;
    struct twtsiListTwampTestSessionsReq twtsiListTwampTestSessionsReq; /* extension */
};

TWTSI_STATIC_ASSERT(offsetof(struct twtsiCreateTwampTestSession, sigNo) == 0x00, "sigNo");
TWTSI_STATIC_ASSERT(offsetof(struct twtsiCreateTwampTestSession, dstIpAddress) == 0x04,
                    "dstIpAddress");
TWTSI_STATIC_ASSERT(offsetof(struct twtsiCreateTwampTestSession, dstUdpPort) == 0x32, "dstUdpPort");
TWTSI_STATIC_ASSERT(offsetof(struct twtsiCreateTwampTestSession, sessionId) == 0x34, "sessionId");
TWTSI_STATIC_ASSERT(offsetof(struct twtsiCreateTwampTestSession, packetsPerSecond) == 0x44,
                    "packetsPerSecond");
TWTSI_STATIC_ASSERT(offsetof(struct twtsiCreateTwampTestSession, dscp) == 0x48, "dscp");
TWTSI_STATIC_ASSERT(offsetof(struct twtsiCreateTwampTestSession, spare1) == 0x4C, "spare1");
TWTSI_STATIC_ASSERT(offsetof(struct twtsiCreateTwampTestSession, spare2) == 0x50, "spare2");
TWTSI_STATIC_ASSERT(offsetof(struct twtsiCreateTwampTestSession, packetSize) == 0x54, "packetSize");
TWTSI_STATIC_ASSERT(offsetof(struct twtsiCreateTwampTestSession, startOffset) == 0x58,
                    "startOffset");
TWTSI_STATIC_ASSERT(offsetof(struct twtsiCreateTwampTestSession, spreadingBase) == 0x5C,
                    "spreadingBase");
TWTSI_STATIC_ASSERT(sizeof(struct twtsiCreateTwampTestSession) ==
                        TWTSI_CREATE_TWAMP_TEST_SESSION_SIZE,
                    "create size");

TWTSI_STATIC_ASSERT(offsetof(struct twtsiDeleteTwampTestSession, sigNo) == 0x00, "sigNo");
TWTSI_STATIC_ASSERT(offsetof(struct twtsiDeleteTwampTestSession, sessionId) == 0x04, "sessionId");
TWTSI_STATIC_ASSERT(sizeof(struct twtsiDeleteTwampTestSession) ==
                        TWTSI_DELETE_TWAMP_TEST_SESSION_SIZE,
                    "delete size");

TWTSI_STATIC_ASSERT(offsetof(struct twtsiGetTwampTestSessionPmCountersReq, sigNo) == 0x00, "sigNo");
TWTSI_STATIC_ASSERT(offsetof(struct twtsiGetTwampTestSessionPmCountersReq, sessionId) == 0x04,
                    "sessionId");
TWTSI_STATIC_ASSERT(offsetof(struct twtsiGetTwampTestSessionPmCountersReq, completedIntervalOnly) ==
                        0x14,
                    "completedIntervalOnly");
TWTSI_STATIC_ASSERT(sizeof(struct twtsiGetTwampTestSessionPmCountersReq) >= 21, "request size");
TWTSI_STATIC_ASSERT(sizeof(struct twtsiGetTwampTestSessionPmCountersReq) ==
                        TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_REQ_SIZE,
                    "request size");

TWTSI_STATIC_ASSERT(offsetof(struct twtsiGetTwampTestSessionPmCountersRsp, sigNo) == 0x00, "sigNo");
TWTSI_STATIC_ASSERT(offsetof(struct twtsiGetTwampTestSessionPmCountersRsp, sessionId) == 0x04,
                    "sessionId");
TWTSI_STATIC_ASSERT(offsetof(struct twtsiGetTwampTestSessionPmCountersRsp, padding) == 0x14,
                    "padding");
TWTSI_STATIC_ASSERT(offsetof(struct twtsiGetTwampTestSessionPmCountersRsp, counters) == 0x18,
                    "counters");
TWTSI_STATIC_ASSERT(sizeof(((struct twtsiGetTwampTestSessionPmCountersRsp*)0)->counters) == 4560,
                    "counters size");
TWTSI_STATIC_ASSERT(sizeof(struct twtsiGetTwampTestSessionPmCountersRsp) ==
                        TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_RSP_SIZE,
                    "reply size");

TWTSI_STATIC_ASSERT(sizeof(struct twtsiListTwampTestSessionsReq) ==
                        TWTSI_LIST_TWAMP_TEST_SESSIONS_REQ_SIZE,
                    "list request size");
TWTSI_STATIC_ASSERT(offsetof(struct twtsiTwampTestSessionEntry, dstIpAddress) == 0x10,
                    "entry dstIpAddress");
TWTSI_STATIC_ASSERT(offsetof(struct twtsiTwampTestSessionEntry, dstUdpPort) == 0x3E,
                    "entry dstUdpPort");
TWTSI_STATIC_ASSERT(offsetof(struct twtsiTwampTestSessionEntry, packetsPerSecond) == 0x40,
                    "entry packetsPerSecond");
TWTSI_STATIC_ASSERT(offsetof(struct twtsiTwampTestSessionEntry, state) == 0x4C, "entry state");
TWTSI_STATIC_ASSERT(offsetof(struct twtsiTwampTestSessionEntry, lastReplyAgeSeconds) == 0x50,
                    "entry lastReplyAgeSeconds");
TWTSI_STATIC_ASSERT(sizeof(struct twtsiTwampTestSessionEntry) ==
                        TWTSI_TWAMP_TEST_SESSION_ENTRY_SIZE,
                    "entry size");
TWTSI_STATIC_ASSERT(offsetof(struct twtsiListTwampTestSessionsRsp, entries) ==
                        TWTSI_LIST_TWAMP_TEST_SESSIONS_RSP_HEADER_SIZE,
                    "list reply header");
/* The largest page stays well inside the ITC limit of 65536 bytes. */
TWTSI_STATIC_ASSERT(sizeof(struct twtsiListTwampTestSessionsRsp) ==
                        TWTSI_LIST_TWAMP_TEST_SESSIONS_RSP_SIZE(TWTSI_LIST_PAGE_ENTRIES),
                    "list reply size");
TWTSI_STATIC_ASSERT(sizeof(struct twtsiListTwampTestSessionsRsp) <= 65536, "list reply limit");

#endif /* TWTSI_SIGNALS_H */
