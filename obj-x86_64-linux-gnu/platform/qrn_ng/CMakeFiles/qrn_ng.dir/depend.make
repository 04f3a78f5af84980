# Empty dependencies file for qrn_ng.
# This may be replaced when dependencies are built.
