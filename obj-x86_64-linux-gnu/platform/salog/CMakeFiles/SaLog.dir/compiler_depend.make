# Empty compiler generated dependencies file for SaLog.
# This may be replaced when dependencies are built.
