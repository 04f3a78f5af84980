
# Consider dependencies only in project.
set(CMAKE_DEPENDS_IN_PROJECT_ONLY OFF)

# The set of languages for which implicit dependencies are needed:
set(CMAKE_DEPENDS_LANGUAGES
  )

# The set of dependency files which are needed:
set(CMAKE_DEPENDS_DEPENDENCY_FILES
  "/work/wt/integ2/tools/twamp-reflector/twamp_reflector.cc" "tools/twamp-reflector/CMakeFiles/twamp-reflector.dir/twamp_reflector.cc.o" "gcc" "tools/twamp-reflector/CMakeFiles/twamp-reflector.dir/twamp_reflector.cc.o.d"
  )

# Targets to which this target links.
set(CMAKE_TARGET_LINKED_INFO_FILES
  "/work/wt/integ2/obj-x86_64-linux-gnu/tools/twamp-reflector/CMakeFiles/twamp_reflector_lib.dir/DependInfo.cmake"
  )

# Fortran module output directory.
set(CMAKE_Fortran_TARGET_MODULE_DIR "")
