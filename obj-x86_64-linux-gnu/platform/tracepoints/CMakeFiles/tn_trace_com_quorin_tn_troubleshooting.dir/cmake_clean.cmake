file(REMOVE_RECURSE
  "CMakeFiles/tn_trace_com_quorin_tn_troubleshooting.dir/troubleshooting_probe.c.o"
  "CMakeFiles/tn_trace_com_quorin_tn_troubleshooting.dir/troubleshooting_probe.c.o.d"
  "libtn_trace_com_quorin_tn_troubleshooting.pdb"
  "libtn_trace_com_quorin_tn_troubleshooting.so"
)

# Per-language clean rules from dependency scanning.
foreach(lang C)
  include(CMakeFiles/tn_trace_com_quorin_tn_troubleshooting.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
