
# Consider dependencies only in project.
set(CMAKE_DEPENDS_IN_PROJECT_ONLY OFF)

# The set of languages for which implicit dependencies are needed:
set(CMAKE_DEPENDS_LANGUAGES
  )

# The set of dependency files which are needed:
set(CMAKE_DEPENDS_DEPENDENCY_FILES
  "/work/wt/integ2/platform/tracepoints/twamp_probe.c" "platform/tracepoints/CMakeFiles/tn_trace_com_quorin_tn_twamp.dir/twamp_probe.c.o" "gcc" "platform/tracepoints/CMakeFiles/tn_trace_com_quorin_tn_twamp.dir/twamp_probe.c.o.d"
  )

# Targets to which this target links.
set(CMAKE_TARGET_LINKED_INFO_FILES
  )

# Fortran module output directory.
set(CMAKE_Fortran_TARGET_MODULE_DIR "")
