file(REMOVE_RECURSE
  "CMakeFiles/itc.dir/src/itc_mailbox.c.o"
  "CMakeFiles/itc.dir/src/itc_mailbox.c.o.d"
  "CMakeFiles/itc.dir/src/itc_msg.c.o"
  "CMakeFiles/itc.dir/src/itc_msg.c.o.d"
  "CMakeFiles/itc.dir/src/itc_process.c.o"
  "CMakeFiles/itc.dir/src/itc_process.c.o.d"
  "CMakeFiles/itc.dir/src/itc_receive.c.o"
  "CMakeFiles/itc.dir/src/itc_receive.c.o.d"
  "CMakeFiles/itc.dir/src/itc_rundir.c.o"
  "CMakeFiles/itc.dir/src/itc_rundir.c.o.d"
  "CMakeFiles/itc.dir/src/itc_send.c.o"
  "CMakeFiles/itc.dir/src/itc_send.c.o.d"
  "CMakeFiles/itc.dir/src/itc_wire.c.o"
  "CMakeFiles/itc.dir/src/itc_wire.c.o.d"
  "libitc.pdb"
  "libitc.so"
  "libitc.so.0"
  "libitc.so.0.1.0"
)

# Per-language clean rules from dependency scanning.
foreach(lang C)
  include(CMakeFiles/itc.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
