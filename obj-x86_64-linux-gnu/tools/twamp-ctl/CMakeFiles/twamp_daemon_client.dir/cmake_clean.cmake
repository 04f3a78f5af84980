file(REMOVE_RECURSE
  "CMakeFiles/twamp_daemon_client.dir/ItcDaemonClient.cc.o"
  "CMakeFiles/twamp_daemon_client.dir/ItcDaemonClient.cc.o.d"
  "libtwamp_daemon_client.a"
  "libtwamp_daemon_client.pdb"
)

# Per-language clean rules from dependency scanning.
foreach(lang CXX)
  include(CMakeFiles/twamp_daemon_client.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
