file(REMOVE_RECURSE
  "CMakeFiles/twamp-exporter.dir/twamp_exporter.cc.o"
  "CMakeFiles/twamp-exporter.dir/twamp_exporter.cc.o.d"
  "twamp-exporter"
  "twamp-exporter.pdb"
)

# Per-language clean rules from dependency scanning.
foreach(lang CXX)
  include(CMakeFiles/twamp-exporter.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
