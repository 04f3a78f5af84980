
# Consider dependencies only in project.
set(CMAKE_DEPENDS_IN_PROJECT_ONLY OFF)

# The set of languages for which implicit dependencies are needed:
set(CMAKE_DEPENDS_LANGUAGES
  )

# The set of dependency files which are needed:
set(CMAKE_DEPENDS_DEPENDENCY_FILES
  "/work/wt/integ2/blocks/twampBl/twampTestSessionSwU/files/src/TwampTestSessionMain.cc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twampTestSession.dir/src/TwampTestSessionMain.cc.o" "gcc" "blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twampTestSession.dir/src/TwampTestSessionMain.cc.o.d"
  )

# Targets to which this target links.
set(CMAKE_TARGET_LINKED_INFO_FILES
  "/work/wt/integ2/obj-x86_64-linux-gnu/blocks/twampBl/twampTestSessionSwU/files/CMakeFiles/twamp_core.dir/DependInfo.cmake"
  "/work/wt/integ2/obj-x86_64-linux-gnu/platform/tracepoints/CMakeFiles/tn_trace_com_quorin_tn_twamp.dir/DependInfo.cmake"
  "/work/wt/integ2/obj-x86_64-linux-gnu/platform/tracepoints/CMakeFiles/tn_trace_com_quorin_tn_troubleshooting.dir/DependInfo.cmake"
  "/work/wt/integ2/obj-x86_64-linux-gnu/platform/qrn_ng/CMakeFiles/qrn_ng.dir/DependInfo.cmake"
  "/work/wt/integ2/obj-x86_64-linux-gnu/platform/salog/CMakeFiles/SaLog.dir/DependInfo.cmake"
  "/work/wt/integ2/obj-x86_64-linux-gnu/platform/itc/CMakeFiles/itc.dir/DependInfo.cmake"
  )

# Fortran module output directory.
set(CMAKE_Fortran_TARGET_MODULE_DIR "")
