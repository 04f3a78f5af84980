# Empty compiler generated dependencies file for twampTestSession.
# This may be replaced when dependencies are built.
