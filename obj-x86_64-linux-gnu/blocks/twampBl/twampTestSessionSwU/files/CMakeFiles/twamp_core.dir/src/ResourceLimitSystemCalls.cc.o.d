blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/ResourceLimitSystemCalls.cc.o: \
 /work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/ResourceLimitSystemCalls.cc \
 /usr/include/stdc-predef.h \
 /work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/ResourceLimitSystemCalls.h \
 /usr/include/x86_64-linux-gnu/sys/resource.h /usr/include/features.h \
 /usr/include/features-time64.h \
 /usr/include/x86_64-linux-gnu/bits/wordsize.h \
 /usr/include/x86_64-linux-gnu/bits/timesize.h \
 /usr/include/x86_64-linux-gnu/sys/cdefs.h \
 /usr/include/x86_64-linux-gnu/bits/long-double.h \
 /usr/include/x86_64-linux-gnu/gnu/stubs.h \
 /usr/include/x86_64-linux-gnu/gnu/stubs-64.h \
 /usr/include/x86_64-linux-gnu/bits/resource.h \
 /usr/include/x86_64-linux-gnu/bits/types.h \
 /usr/include/x86_64-linux-gnu/bits/typesizes.h \
 /usr/include/x86_64-linux-gnu/bits/time64.h \
 /usr/include/x86_64-linux-gnu/bits/types/struct_timeval.h \
 /usr/include/x86_64-linux-gnu/bits/types/struct_rusage.h
