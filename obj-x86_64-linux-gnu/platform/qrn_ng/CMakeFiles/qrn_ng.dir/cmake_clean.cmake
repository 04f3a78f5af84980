file(REMOVE_RECURSE
  "CMakeFiles/qrn_ng.dir/qrn_ng.c.o"
  "CMakeFiles/qrn_ng.dir/qrn_ng.c.o.d"
  "libqrn_ng.pdb"
  "libqrn_ng.so"
  "libqrn_ng.so.0"
  "libqrn_ng.so.0.1.0"
)

# Per-language clean rules from dependency scanning.
foreach(lang C)
  include(CMakeFiles/qrn_ng.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
