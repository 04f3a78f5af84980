file(REMOVE_RECURSE
  "CMakeFiles/SaLog.dir/saLog.c.o"
  "CMakeFiles/SaLog.dir/saLog.c.o.d"
  "libSaLog.pdb"
  "libSaLog.so"
  "libSaLog.so.0"
  "libSaLog.so.0.1.0"
)

# Per-language clean rules from dependency scanning.
foreach(lang C)
  include(CMakeFiles/SaLog.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
