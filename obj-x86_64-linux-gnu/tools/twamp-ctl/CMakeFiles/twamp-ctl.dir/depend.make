# Empty dependencies file for twamp-ctl.
# This may be replaced when dependencies are built.
