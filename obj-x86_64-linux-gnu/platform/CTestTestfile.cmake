# CMake generated Testfile for 
# Source directory: /work/wt/integ2/platform
# Build directory: /work/wt/integ2/obj-x86_64-linux-gnu/platform
# 
# This file includes the relevant testing commands required for 
# testing this directory and lists subdirectories to be tested as well.
subdirs("tracepoints")
subdirs("qrn_ng")
subdirs("itc")
subdirs("salog")
