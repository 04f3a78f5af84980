
# Consider dependencies only in project.
set(CMAKE_DEPENDS_IN_PROJECT_ONLY OFF)

# The set of languages for which implicit dependencies are needed:
set(CMAKE_DEPENDS_LANGUAGES
  )

# The set of dependency files which are needed:
set(CMAKE_DEPENDS_DEPENDENCY_FILES
  "/work/wt/integ2/tools/twamp-ctl/CounterPlot.cc" "tools/twamp-ctl/CMakeFiles/twamp_ctl_lib.dir/CounterPlot.cc.o" "gcc" "tools/twamp-ctl/CMakeFiles/twamp_ctl_lib.dir/CounterPlot.cc.o.d"
  "/work/wt/integ2/tools/twamp-ctl/CountersFormatter.cc" "tools/twamp-ctl/CMakeFiles/twamp_ctl_lib.dir/CountersFormatter.cc.o" "gcc" "tools/twamp-ctl/CMakeFiles/twamp_ctl_lib.dir/CountersFormatter.cc.o.d"
  "/work/wt/integ2/tools/twamp-ctl/CtlOptions.cc" "tools/twamp-ctl/CMakeFiles/twamp_ctl_lib.dir/CtlOptions.cc.o" "gcc" "tools/twamp-ctl/CMakeFiles/twamp_ctl_lib.dir/CtlOptions.cc.o.d"
  "/work/wt/integ2/tools/twamp-ctl/SessionListFormatter.cc" "tools/twamp-ctl/CMakeFiles/twamp_ctl_lib.dir/SessionListFormatter.cc.o" "gcc" "tools/twamp-ctl/CMakeFiles/twamp_ctl_lib.dir/SessionListFormatter.cc.o.d"
  )

# Targets to which this target links.
set(CMAKE_TARGET_LINKED_INFO_FILES
  )

# Fortran module output directory.
set(CMAKE_Fortran_TARGET_MODULE_DIR "")
