# Empty dependencies file for twamp_reflector_lib.
# This may be replaced when dependencies are built.
