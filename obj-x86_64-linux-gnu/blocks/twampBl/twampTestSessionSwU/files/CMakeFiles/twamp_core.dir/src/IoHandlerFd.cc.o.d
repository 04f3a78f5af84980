blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/IoHandlerFd.cc.o: \
 /work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/IoHandlerFd.cc \
 /usr/include/stdc-predef.h \
 /work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/IoHandlerFd.h
