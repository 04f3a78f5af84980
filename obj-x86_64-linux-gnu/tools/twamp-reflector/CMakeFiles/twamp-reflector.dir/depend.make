# Empty dependencies file for twamp-reflector.
# This may be replaced when dependencies are built.
