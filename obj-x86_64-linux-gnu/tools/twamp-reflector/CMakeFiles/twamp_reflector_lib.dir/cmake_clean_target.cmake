file(REMOVE_RECURSE
  "libtwamp_reflector_lib.a"
)
