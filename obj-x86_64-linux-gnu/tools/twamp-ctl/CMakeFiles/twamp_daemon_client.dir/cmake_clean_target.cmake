file(REMOVE_RECURSE
  "libtwamp_daemon_client.a"
)
