file(REMOVE_RECURSE
  "libtwamp_exporter_lib.a"
)
