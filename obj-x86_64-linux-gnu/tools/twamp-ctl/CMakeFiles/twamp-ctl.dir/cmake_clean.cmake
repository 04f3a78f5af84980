file(REMOVE_RECURSE
  "CMakeFiles/twamp-ctl.dir/twamp_ctl.cc.o"
  "CMakeFiles/twamp-ctl.dir/twamp_ctl.cc.o.d"
  "twamp-ctl"
  "twamp-ctl.pdb"
)

# Per-language clean rules from dependency scanning.
foreach(lang CXX)
  include(CMakeFiles/twamp-ctl.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
