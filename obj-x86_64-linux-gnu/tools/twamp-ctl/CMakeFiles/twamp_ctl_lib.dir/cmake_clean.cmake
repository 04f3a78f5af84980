file(REMOVE_RECURSE
  "CMakeFiles/twamp_ctl_lib.dir/CounterPlot.cc.o"
  "CMakeFiles/twamp_ctl_lib.dir/CounterPlot.cc.o.d"
  "CMakeFiles/twamp_ctl_lib.dir/CountersFormatter.cc.o"
  "CMakeFiles/twamp_ctl_lib.dir/CountersFormatter.cc.o.d"
  "CMakeFiles/twamp_ctl_lib.dir/CtlOptions.cc.o"
  "CMakeFiles/twamp_ctl_lib.dir/CtlOptions.cc.o.d"
  "CMakeFiles/twamp_ctl_lib.dir/SessionListFormatter.cc.o"
  "CMakeFiles/twamp_ctl_lib.dir/SessionListFormatter.cc.o.d"
  "libtwamp_ctl_lib.a"
  "libtwamp_ctl_lib.pdb"
)

# Per-language clean rules from dependency scanning.
foreach(lang CXX)
  include(CMakeFiles/twamp_ctl_lib.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
