
# Consider dependencies only in project.
set(CMAKE_DEPENDS_IN_PROJECT_ONLY OFF)

# The set of languages for which implicit dependencies are needed:
set(CMAKE_DEPENDS_LANGUAGES
  )

# The set of dependency files which are needed:
set(CMAKE_DEPENDS_DEPENDENCY_FILES
  "/work/wt/integ2/tools/twamp-ctl/twamp_ctl.cc" "tools/twamp-ctl/CMakeFiles/twamp-ctl.dir/twamp_ctl.cc.o" "gcc" "tools/twamp-ctl/CMakeFiles/twamp-ctl.dir/twamp_ctl.cc.o.d"
  )

# Targets to which this target links.
set(CMAKE_TARGET_LINKED_INFO_FILES
  "/work/wt/integ2/obj-x86_64-linux-gnu/tools/twamp-ctl/CMakeFiles/twamp_daemon_client.dir/DependInfo.cmake"
  "/work/wt/integ2/obj-x86_64-linux-gnu/tools/twamp-ctl/CMakeFiles/twamp_ctl_lib.dir/DependInfo.cmake"
  "/work/wt/integ2/obj-x86_64-linux-gnu/platform/itc/CMakeFiles/itc.dir/DependInfo.cmake"
  )

# Fortran module output directory.
set(CMAKE_Fortran_TARGET_MODULE_DIR "")
