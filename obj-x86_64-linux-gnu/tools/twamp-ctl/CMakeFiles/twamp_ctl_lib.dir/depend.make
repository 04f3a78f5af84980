# Empty dependencies file for twamp_ctl_lib.
# This may be replaced when dependencies are built.
