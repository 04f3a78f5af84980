
# Consider dependencies only in project.
set(CMAKE_DEPENDS_IN_PROJECT_ONLY OFF)

# The set of languages for which implicit dependencies are needed:
set(CMAKE_DEPENDS_LANGUAGES
  )

# The set of dependency files which are needed:
set(CMAKE_DEPENDS_DEPENDENCY_FILES
  "/work/wt/integ2/tools/twamp-reflector/Impairments.cc" "tools/twamp-reflector/CMakeFiles/twamp_reflector_lib.dir/Impairments.cc.o" "gcc" "tools/twamp-reflector/CMakeFiles/twamp_reflector_lib.dir/Impairments.cc.o.d"
  "/work/wt/integ2/tools/twamp-reflector/JsonLine.cc" "tools/twamp-reflector/CMakeFiles/twamp_reflector_lib.dir/JsonLine.cc.o" "gcc" "tools/twamp-reflector/CMakeFiles/twamp_reflector_lib.dir/JsonLine.cc.o.d"
  "/work/wt/integ2/tools/twamp-reflector/Reflector.cc" "tools/twamp-reflector/CMakeFiles/twamp_reflector_lib.dir/Reflector.cc.o" "gcc" "tools/twamp-reflector/CMakeFiles/twamp_reflector_lib.dir/Reflector.cc.o.d"
  "/work/wt/integ2/tools/twamp-reflector/ReflectorOptions.cc" "tools/twamp-reflector/CMakeFiles/twamp_reflector_lib.dir/ReflectorOptions.cc.o" "gcc" "tools/twamp-reflector/CMakeFiles/twamp_reflector_lib.dir/ReflectorOptions.cc.o.d"
  "/work/wt/integ2/tools/twamp-reflector/ReflectorSocket.cc" "tools/twamp-reflector/CMakeFiles/twamp_reflector_lib.dir/ReflectorSocket.cc.o" "gcc" "tools/twamp-reflector/CMakeFiles/twamp_reflector_lib.dir/ReflectorSocket.cc.o.d"
  "/work/wt/integ2/tools/twamp-reflector/ReplyBuilder.cc" "tools/twamp-reflector/CMakeFiles/twamp_reflector_lib.dir/ReplyBuilder.cc.o" "gcc" "tools/twamp-reflector/CMakeFiles/twamp_reflector_lib.dir/ReplyBuilder.cc.o.d"
  "/work/wt/integ2/tools/twamp-reflector/RestartSchedule.cc" "tools/twamp-reflector/CMakeFiles/twamp_reflector_lib.dir/RestartSchedule.cc.o" "gcc" "tools/twamp-reflector/CMakeFiles/twamp_reflector_lib.dir/RestartSchedule.cc.o.d"
  "/work/wt/integ2/tools/twamp-reflector/TruthQueue.cc" "tools/twamp-reflector/CMakeFiles/twamp_reflector_lib.dir/TruthQueue.cc.o" "gcc" "tools/twamp-reflector/CMakeFiles/twamp_reflector_lib.dir/TruthQueue.cc.o.d"
  "/work/wt/integ2/tools/twamp-reflector/TruthWriter.cc" "tools/twamp-reflector/CMakeFiles/twamp_reflector_lib.dir/TruthWriter.cc.o" "gcc" "tools/twamp-reflector/CMakeFiles/twamp_reflector_lib.dir/TruthWriter.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/NtpTimestamp.cc" "tools/twamp-reflector/CMakeFiles/twamp_reflector_lib.dir/__/__/blocks/twampBl/twampTestSessionSwU/files/src/NtpTimestamp.cc.o" "gcc" "tools/twamp-reflector/CMakeFiles/twamp_reflector_lib.dir/__/__/blocks/twampBl/twampTestSessionSwU/files/src/NtpTimestamp.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/OwampTestMessage.cc" "tools/twamp-reflector/CMakeFiles/twamp_reflector_lib.dir/__/__/blocks/twampBl/twampTestSessionSwU/files/src/OwampTestMessage.cc.o" "gcc" "tools/twamp-reflector/CMakeFiles/twamp_reflector_lib.dir/__/__/blocks/twampBl/twampTestSessionSwU/files/src/OwampTestMessage.cc.o.d"
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/TwampTestMessage.cc" "tools/twamp-reflector/CMakeFiles/twamp_reflector_lib.dir/__/__/blocks/twampBl/twampTestSessionSwU/files/src/TwampTestMessage.cc.o" "gcc" "tools/twamp-reflector/CMakeFiles/twamp_reflector_lib.dir/__/__/blocks/twampBl/twampTestSessionSwU/files/src/TwampTestMessage.cc.o.d"
  )

# Targets to which this target links.
set(CMAKE_TARGET_LINKED_INFO_FILES
  )

# Fortran module output directory.
set(CMAKE_Fortran_TARGET_MODULE_DIR "")
