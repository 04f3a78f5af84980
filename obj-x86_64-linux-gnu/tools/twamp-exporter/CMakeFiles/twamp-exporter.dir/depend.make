# Empty dependencies file for twamp-exporter.
# This may be replaced when dependencies are built.
