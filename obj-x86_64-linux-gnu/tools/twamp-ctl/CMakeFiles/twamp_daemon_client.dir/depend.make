# Empty dependencies file for twamp_daemon_client.
# This may be replaced when dependencies are built.
