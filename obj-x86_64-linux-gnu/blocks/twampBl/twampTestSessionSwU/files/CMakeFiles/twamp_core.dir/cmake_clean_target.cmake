file(REMOVE_RECURSE
  "libtwamp_core.a"
)
