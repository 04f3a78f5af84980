file(REMOVE_RECURSE
  "CMakeFiles/tn_trace_com_quorin_tn_twamp.dir/twamp_probe.c.o"
  "CMakeFiles/tn_trace_com_quorin_tn_twamp.dir/twamp_probe.c.o.d"
  "libtn_trace_com_quorin_tn_twamp.pdb"
  "libtn_trace_com_quorin_tn_twamp.so"
)

# Per-language clean rules from dependency scanning.
foreach(lang C)
  include(CMakeFiles/tn_trace_com_quorin_tn_twamp.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
