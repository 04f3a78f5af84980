# CMake generated Testfile for 
# Source directory: /work/wt/integ2/platform/salog
# Build directory: /work/wt/integ2/obj-x86_64-linux-gnu/platform/salog
# 
# This file includes the relevant testing commands required for 
# testing this directory and lists subdirectories to be tested as well.
