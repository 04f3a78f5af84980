# Empty compiler generated dependencies file for twamp_core_seam.
# This may be replaced when dependencies are built.
