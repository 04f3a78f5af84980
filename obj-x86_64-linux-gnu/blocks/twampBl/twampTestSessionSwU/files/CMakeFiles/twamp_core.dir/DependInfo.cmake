
# Consider dependencies only in project.
set(CMAKE_DEPENDS_IN_PROJECT_ONLY OFF)

# The set of languages for which implicit dependencies are needed:
set(CMAKE_DEPENDS_LANGUAGES
  )

# The set of dependency files which are needed:
set(CMAKE_DEPENDS_DEPENDENCY_FILES
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/EpollPoller.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/EpollPoller.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/EpollPoller.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/EpollSystemCalls.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/EpollSystemCalls.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/EpollSystemCalls.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/IoHandler.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/IoHandler.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/IoHandler.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/IoHandlerFd.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/IoHandlerFd.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/IoHandlerFd.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/IoMultiplexer.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/IoMultiplexer.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/IoMultiplexer.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/ItcDispatcher.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/ItcDispatcher.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/ItcDispatcher.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/MissingSequenceList.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/MissingSequenceList.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/MissingSequenceList.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/NtpTimestamp.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/NtpTimestamp.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/NtpTimestamp.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/OutstandingPacket.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/OutstandingPacket.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/OutstandingPacket.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/OutstandingPacketStore.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/OutstandingPacketStore.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/OutstandingPacketStore.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/OwampTestMessage.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/OwampTestMessage.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/OwampTestMessage.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/PercentileVector.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/PercentileVector.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/PercentileVector.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/PmState.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/PmState.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/PmState.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/RandomFd.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/RandomFd.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/RandomFd.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/ReceiveBatch.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/ReceiveBatch.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/ReceiveBatch.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/ReceiverKey.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/ReceiverKey.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/ReceiverKey.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/ReceiverRegistry.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/ReceiverRegistry.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/ReceiverRegistry.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/ResourceLimitSystemCalls.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/ResourceLimitSystemCalls.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/ResourceLimitSystemCalls.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/SelectPoller.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/SelectPoller.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/SelectPoller.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/SessionListHandler.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/SessionListHandler.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/SessionListHandler.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/SessionRoster.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/SessionRoster.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/SessionRoster.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/SocketHelper.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/SocketHelper.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/SocketHelper.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/SocketSystemCalls.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/SocketSystemCalls.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/SocketSystemCalls.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/TimestampSource.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/TimestampSource.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/TimestampSource.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/TraceFacade.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/TraceFacade.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/TraceFacade.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/TwampTestMessage.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/TwampTestMessage.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/TwampTestMessage.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/TwampTestSession.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/TwampTestSession.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/TwampTestSession.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/TwampTestSessionController.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/TwampTestSessionController.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/TwampTestSessionController.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/TwampTestSessionFactory.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/TwampTestSessionFactory.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/TwampTestSessionFactory.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/TwampTracepoints.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/TwampTracepoints.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/TwampTracepoints.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/UdpSocket.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/UdpSocket.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/UdpSocket.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/tn_log_internal.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/tn_log_internal.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/src/tn_log_internal.cc.o.d"
  )

# Targets to which this target links.
set(CMAKE_TARGET_LINKED_INFO_FILES
  "/work/wt/integ2/obj-x86_64-linux-gnu/platform/tracepoints/CMakeFiles/tn_trace_com_quorin_tn_twamp.dir/DependInfo.cmake"
  "/work/wt/integ2/obj-x86_64-linux-gnu/platform/tracepoints/CMakeFiles/tn_trace_com_quorin_tn_troubleshooting.dir/DependInfo.cmake"
  "/work/wt/integ2/obj-x86_64-linux-gnu/platform/qrn_ng/CMakeFiles/qrn_ng.dir/DependInfo.cmake"
  "/work/wt/integ2/obj-x86_64-linux-gnu/platform/salog/CMakeFiles/SaLog.dir/DependInfo.cmake"
  "/work/wt/integ2/obj-x86_64-linux-gnu/platform/itc/CMakeFiles/itc.dir/DependInfo.cmake"
  )

# Fortran module output directory.
set(CMAKE_Fortran_TARGET_MODULE_DIR "")
