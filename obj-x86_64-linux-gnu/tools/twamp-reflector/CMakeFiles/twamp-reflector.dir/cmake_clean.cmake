file(REMOVE_RECURSE
  "CMakeFiles/twamp-reflector.dir/twamp_reflector.cc.o"
  "CMakeFiles/twamp-reflector.dir/twamp_reflector.cc.o.d"
  "twamp-reflector"
  "twamp-reflector.pdb"
)

# Per-language clean rules from dependency scanning.
foreach(lang CXX)
  include(CMakeFiles/twamp-reflector.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
