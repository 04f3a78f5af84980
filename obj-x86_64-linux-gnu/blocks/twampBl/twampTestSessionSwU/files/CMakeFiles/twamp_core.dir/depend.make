# Empty dependencies file for twamp_core.
# This may be replaced when dependencies are built.
