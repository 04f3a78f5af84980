/* Layout figures of the signal header as a C compiler sees it. */
#ifndef TWAMP_TESTS_TWTSI_SIGNALS_C_H
#define TWAMP_TESTS_TWTSI_SIGNALS_C_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

size_t twtsiCreateSizeInC(void);
size_t twtsiDeleteSizeInC(void);
size_t twtsiRequestCompletedOffsetInC(void);
size_t twtsiReplyCountersOffsetInC(void);
size_t twtsiReplySizeInC(void);
size_t itcMsgSizeInC(void);

#ifdef __cplusplus
}
#endif

#endif /* TWAMP_TESTS_TWTSI_SIGNALS_C_H */
