# Empty compiler generated dependencies file for twamp_exporter_lib.
# This may be replaced when dependencies are built.
