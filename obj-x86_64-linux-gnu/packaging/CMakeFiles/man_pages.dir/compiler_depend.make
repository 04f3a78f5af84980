# Empty custom commands generated dependencies file for man_pages.
# This may be replaced when dependencies are built.
