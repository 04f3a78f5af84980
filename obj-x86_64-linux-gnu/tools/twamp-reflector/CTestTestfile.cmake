# CMake generated Testfile for 
# Source directory: /work/wt/integ2/tools/twamp-reflector
# Build directory: /work/wt/integ2/obj-x86_64-linux-gnu/tools/twamp-reflector
# 
# This file includes the relevant testing commands required for 
# testing this directory and lists subdirectories to be tested as well.
