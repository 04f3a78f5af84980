file(REMOVE_RECURSE
  "libtwamp_ctl_lib.a"
)
