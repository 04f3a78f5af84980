# Empty dependencies file for itc.
# This may be replaced when dependencies are built.
