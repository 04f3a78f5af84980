# CMake generated Testfile for 
# Source directory: /work/wt/integ2/packaging
# Build directory: /work/wt/integ2/obj-x86_64-linux-gnu/packaging
# 
# This file includes the relevant testing commands required for 
# testing this directory and lists subdirectories to be tested as well.
