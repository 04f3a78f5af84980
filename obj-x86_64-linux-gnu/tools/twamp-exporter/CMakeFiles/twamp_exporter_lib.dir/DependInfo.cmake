
# Consider dependencies only in project.
set(CMAKE_DEPENDS_IN_PROJECT_ONLY OFF)

# The set of languages for which implicit dependencies are needed:
set(CMAKE_DEPENDS_LANGUAGES
  )

# The set of dependency files which are needed:
set(CMAKE_DEPENDS_DEPENDENCY_FILES
  "/work/wt/integ2/tools/twamp-exporter/CounterAccumulator.cc" "tools/twamp-exporter/CMakeFiles/twamp_exporter_lib.dir/CounterAccumulator.cc.o" "gcc" "tools/twamp-exporter/CMakeFiles/twamp_exporter_lib.dir/CounterAccumulator.cc.o.d"
  "/work/wt/integ2/tools/twamp-exporter/ExporterOptions.cc" "tools/twamp-exporter/CMakeFiles/twamp_exporter_lib.dir/ExporterOptions.cc.o" "gcc" "tools/twamp-exporter/CMakeFiles/twamp_exporter_lib.dir/ExporterOptions.cc.o.d"
  "/work/wt/integ2/tools/twamp-exporter/MetricsCollector.cc" "tools/twamp-exporter/CMakeFiles/twamp_exporter_lib.dir/MetricsCollector.cc.o" "gcc" "tools/twamp-exporter/CMakeFiles/twamp_exporter_lib.dir/MetricsCollector.cc.o.d"
  "/work/wt/integ2/tools/twamp-exporter/MetricsFormatter.cc" "tools/twamp-exporter/CMakeFiles/twamp_exporter_lib.dir/MetricsFormatter.cc.o" "gcc" "tools/twamp-exporter/CMakeFiles/twamp_exporter_lib.dir/MetricsFormatter.cc.o.d"
  "/work/wt/integ2/tools/twamp-exporter/MetricsHttpServer.cc" "tools/twamp-exporter/CMakeFiles/twamp_exporter_lib.dir/MetricsHttpServer.cc.o" "gcc" "tools/twamp-exporter/CMakeFiles/twamp_exporter_lib.dir/MetricsHttpServer.cc.o.d"
  )

# Targets to which this target links.
set(CMAKE_TARGET_LINKED_INFO_FILES
  "/work/wt/integ2/obj-x86_64-linux-gnu/tools/twamp-ctl/CMakeFiles/twamp_ctl_lib.dir/DependInfo.cmake"
  )

# Fortran module output directory.
set(CMAKE_Fortran_TARGET_MODULE_DIR "")
