file(REMOVE_RECURSE
  "libtwamp_core_seam.a"
)
