file(REMOVE_RECURSE
  "CMakeFiles/twamp_exporter_lib.dir/CounterAccumulator.cc.o"
  "CMakeFiles/twamp_exporter_lib.dir/CounterAccumulator.cc.o.d"
  "CMakeFiles/twamp_exporter_lib.dir/ExporterOptions.cc.o"
  "CMakeFiles/twamp_exporter_lib.dir/ExporterOptions.cc.o.d"
  "CMakeFiles/twamp_exporter_lib.dir/MetricsCollector.cc.o"
  "CMakeFiles/twamp_exporter_lib.dir/MetricsCollector.cc.o.d"
  "CMakeFiles/twamp_exporter_lib.dir/MetricsFormatter.cc.o"
  "CMakeFiles/twamp_exporter_lib.dir/MetricsFormatter.cc.o.d"
  "CMakeFiles/twamp_exporter_lib.dir/MetricsHttpServer.cc.o"
  "CMakeFiles/twamp_exporter_lib.dir/MetricsHttpServer.cc.o.d"
  "libtwamp_exporter_lib.a"
  "libtwamp_exporter_lib.pdb"
)

# Per-language clean rules from dependency scanning.
foreach(lang CXX)
  include(CMakeFiles/twamp_exporter_lib.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
