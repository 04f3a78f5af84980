/* The signal header compiled as C: the managing service may be written in C. */
#include "TwtsiSignals.h"

#include "TwtsiSignalsC.h"

size_t twtsiCreateSizeInC(void) {
    return sizeof(struct twtsiCreateTwampTestSession);
}

size_t twtsiDeleteSizeInC(void) {
    return sizeof(struct twtsiDeleteTwampTestSession);
}

size_t twtsiRequestCompletedOffsetInC(void) {
    return offsetof(struct twtsiGetTwampTestSessionPmCountersReq, completedIntervalOnly);
}

size_t twtsiReplyCountersOffsetInC(void) {
    return offsetof(struct twtsiGetTwampTestSessionPmCountersRsp, counters);
}

size_t twtsiReplySizeInC(void) {
    return sizeof(struct twtsiGetTwampTestSessionPmCountersRsp);
}

size_t itcMsgSizeInC(void) {
    return sizeof(union itc_msg);
}
